// SPDX-License-Identifier: Apache-2.0
// Filters of sockets, which the kernel applies before it queues anything.
#ifndef PLATFORM_LINUX_GATE_SOCKET_FILTER_H
#define PLATFORM_LINUX_GATE_SOCKET_FILTER_H

namespace ravo::platform {

// Gives a packet socket a filter that only UDP datagrams over IPv4 to port 67 pass, whole or their first parts. Returns
// 0, or -1 and errno.
int socket_take_dhcp(int fd);

// Gives a socket a filter that nothing passes: it keeps its port and can send, and the kernel stores nothing for it.
// Returns 0, or -1 and errno.
int socket_refuse_all(int fd);

}  // namespace ravo::platform

#endif

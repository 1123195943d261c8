// SPDX-License-Identifier: Apache-2.0
// The layer-2 packet channel: DHCP messages with the port and VLAN they came in on.
#ifndef PLATFORM_LINUX_CHANNEL_CHANNEL_H
#define PLATFORM_LINUX_CHANNEL_CHANNEL_H

#include <sys/socket.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>

#include "inventory/switch_description.h"

struct relay_access;

namespace ravo::platform {

// Installs what the description says of the channel. While it is open, the ports are held to the limits at once.
void channel_describe(const switch_description &description);

// Lets the guards ask the relay for its settings. relay: as long as the process lives.
void channel_know_relay(const struct relay_access *relay);

// Lets the guards know that a transaction of the daemon before goes on, for so many seconds. xid: as it is in the
// message; port: the number of the port it came in on, 0: none.
void channel_know_transaction(std::uint32_t xid, std::uint32_t port, std::int64_t seconds);

// Opens the channel. Returns a descriptor that is readable while a frame waits, or -1 and errno. One channel at a time;
// EBUSY when one is open.
int channel_open();
// Tells whether a descriptor is the channel's.
bool channel_owns(int fd);
// Takes frames, a limited number, until one is a message to be delivered; that one is in hand then, until it is
// received. Returns whether there is one. When there is none and the descriptor is readable still, others shall have
// their turn first.
bool channel_next();
// Looks out for a frame, for a few microseconds. To sleep and to be woken takes as long, so this is for when a message
// was just handled. Returns whether a frame waits.
bool channel_look_out();
// Receives the message in hand, or the next one, in the layout of osal.h; -1 and EAGAIN when there is none.
ssize_t channel_receive(void *buffer, std::size_t size, int flags, struct sockaddr *from, socklen_t *from_length);
// The message that was received last is done with: closes its book.
void channel_done();
// Closes the channel. Returns 0.
int channel_close();
// Closes it at the end of the process: what comes in from now on is the next daemon's, where there is an init system
// that keeps descriptors (process/descriptor_store.h).
void channel_leave();

// Messages lost for want of room in the queue since the last call of channel_forget_lost, or since the start.
std::uint64_t channel_lost();
void channel_forget_lost();

}  // namespace ravo::platform

#endif

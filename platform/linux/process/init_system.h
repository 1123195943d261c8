// SPDX-License-Identifier: Apache-2.0
// The init system's notification socket (sd_notify(3)) and its watchdog (sd_watchdog_enabled(3)), without the library
// and the libraries that it brings.
#ifndef PLATFORM_LINUX_PROCESS_INIT_SYSTEM_H
#define PLATFORM_LINUX_PROCESS_INIT_SYSTEM_H

#include <cstddef>
#include <cstdint>
#include <string>

namespace ravo::platform {

// Sends text to the init system, without ever waiting for it: the event loop must not hang because another process
// does. Returns false when the init system has no room for it now, so that it has to be sent again; true when it was
// sent, or when there is nobody to send it to. text: lines such as "READY=1"; fd: a descriptor that goes with it; -1:
// none.
bool init_system_tell(const std::string &text, int fd = -1);

// The same, to whoever keeps descriptors: the init system, or the supervisor.
bool init_system_tell_store(const std::string &text, int fd = -1);

// Says that a supervisor keeps descriptors, and where it hears of them: a connected socket of packets, which stays the
// caller's.
void init_system_stores_at(int socket);

// How many descriptors it gave to this process, from number 3 on (sd_listen_fds(3)).
std::size_t init_system_descriptors();

// Microseconds within which the init system's watchdog wants to hear of this process; 0: it does not watch it.
std::uint64_t init_system_watchdog();

}  // namespace ravo::platform

#endif

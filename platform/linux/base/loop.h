// SPDX-License-Identifier: Apache-2.0
// The one event loop of the daemon.
#ifndef PLATFORM_LINUX_BASE_LOOP_H
#define PLATFORM_LINUX_BASE_LOOP_H

struct event_base;

namespace ravo::platform {

// Returns the event base, created on first use (epoll, no cached precision). It lives until loop_free.
struct event_base *loop_base();

// Frees the event base. All events on it must be gone.
void loop_free();

}  // namespace ravo::platform

#endif

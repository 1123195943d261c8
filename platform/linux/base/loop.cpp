// SPDX-License-Identifier: Apache-2.0
// One event base serves the whole daemon: sockets, netlink, timers, signals and management sessions are events on it.
// It is made when the first service asks for it, so that no service depends on another having been opened before.
#include "base/loop.h"

#include <event2/event.h>

#include <cstdio>
#include <cstdlib>

namespace ravo::platform {

namespace {

struct event_base *base = nullptr;

struct event_base *make_base() {
    struct event_config *config = event_config_new();
    if (config == nullptr) return nullptr;
    // Packet sockets, netlink and Unix sockets can all be polled; without the time cache a timer armed late in a long
    // callback still runs for its whole time.
    event_config_set_flag(config, EVENT_BASE_FLAG_NO_CACHE_TIME);
    event_config_set_flag(config, EVENT_BASE_FLAG_NOLOCK);
    struct event_base *made = event_base_new_with_config(config);
    event_config_free(config);
    return made;
}

}  // namespace

struct event_base *loop_base() {
    if (base != nullptr) return base;
    base = make_base();
    if (base == nullptr) {
        std::fputs("ravod: cannot make an event loop: no memory or no epoll\n", stderr);
        std::exit(1);
    }
    return base;
}

void loop_free() {
    if (base == nullptr) return;
    event_base_free(base);
    base = nullptr;
}

}  // namespace ravo::platform

// SPDX-License-Identifier: Apache-2.0
// Owners of what the event library hands out.
#ifndef FRONT_WEB_EVENT_OWNER_H
#define FRONT_WEB_EVENT_OWNER_H

#include <event2/event.h>

#include <memory>

namespace ravo::web {

struct event_delete {
    void operator()(struct event *e) const { event_free(e); }
};
using event_ptr = std::unique_ptr<struct event, event_delete>;

struct base_delete {
    void operator()(struct event_base *b) const { event_base_free(b); }
};
using base_ptr = std::unique_ptr<struct event_base, base_delete>;

}  // namespace ravo::web

#endif

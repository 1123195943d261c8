// SPDX-License-Identifier: Apache-2.0
// The regular looks at the daemon: what the history is made of, and what open pages are sent.
#ifndef FRONT_WEB_LOOK_H
#define FRONT_WEB_LOOK_H

#include "server.h"

namespace ravo::web {

inline constexpr std::size_t most_streams = 32;

// Asks the daemon for its counters; when they are there, they go into the history and to the pages.
void look_at_daemon(server &s);

// The newest row of the history, the totals and the daemon's state, as pages are sent it.
nlohmann::json now_json(const server &s);

// {"status": "up" or "down", "reason", "version", "daemon_version"}
nlohmann::json health_json(const server &s, bool up, const std::string &reason);

// GET /api/v1/events and /api/v1/history.
void serve_events(const exchange_ptr &x);
void serve_history(const exchange_ptr &x);

}  // namespace ravo::web

#endif

// SPDX-License-Identifier: Apache-2.0
// The daemon as the web side sees it: documents, which are what commands print, kept for a moment and shared by all who
// ask. However many pages are open, the daemon is asked for one thing once a second at most, and never for more than a
// small part of its time. Nothing here waits.
#ifndef FRONT_WEB_DAEMON_H
#define FRONT_WEB_DAEMON_H

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "link.h"

struct event_base;

namespace ravo::web {

struct document {
    bool there = false;  // the command succeeded: text is its output
    bool cut = false;    // there is more than was kept
    int result = 1;      // of the command, when the daemon answered
    bool answered = false;
    std::string text;
    std::string tail;    // of what was not kept, the last bytes
    std::string reason;  // not answered: why
    std::chrono::steady_clock::time_point at = {};
};
using document_ptr = std::shared_ptr<const document>;
using on_document = std::function<void(const document_ptr &doc)>;

struct daemon;
struct daemon_delete {
    void operator()(daemon *d) const;
};
using daemon_ptr = std::unique_ptr<daemon, daemon_delete>;

// base: the event loop, which must outlive it; socket: the daemon's. Connects when something is asked.
daemon_ptr daemon_make(struct event_base *base, const std::string &socket);

// Hands on what the command prints: what is known when it is not older than this, else what the daemon answers now. A
// document that took the daemon long to make is kept for twenty times as long, but not for more than 30 s, so that the
// daemon has most of its time for other work.
void daemon_document(daemon &d, const std::string &command, std::chrono::milliseconds age, on_document use);

// One change, in the name of this user: these lines, in a session of their own that begins in privileged execution
// mode, until one fails. done gets the answers to the lines that were run. Documents that are known are forgotten, so
// that the change shows.
void daemon_change(daemon &d, const std::string &user, std::vector<std::string> lines,
                   std::function<void(const std::vector<client::reply> &answers)> done);

// As of the last request: whether the daemon answers, its version and its process.
const client::link_state &daemon_state(const daemon &d);

// Forgets what nobody asked for lately. To be called now and then.
void daemon_tidy(daemon &d);

}  // namespace ravo::web

#endif

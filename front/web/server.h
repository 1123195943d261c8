// SPDX-License-Identifier: Apache-2.0
// All that ravo-web has and knows, and its life: listening, serving, looking at the daemon now and then.
#ifndef FRONT_WEB_SERVER_H
#define FRONT_WEB_SERVER_H

#include <openssl/types.h>

#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "accounts.h"
#include "connections.h"
#include "daemon.h"
#include "event_owner.h"
#include "exchange.h"
#include "history.h"
#include "options.h"
#include "sessions.h"

struct evhttp;

namespace ravo::web {

struct http_delete {
    void operator()(struct evhttp *h) const;
};
struct tls_delete {
    void operator()(SSL_CTX *t) const;
};

// How a file was when it was read.
struct file_mark {
    std::int64_t changed_ns = -1;
    std::int64_t size = -1;
    bool operator==(const file_mark &) const = default;
};

struct server {
    web_options options;
    base_ptr base;
    std::unique_ptr<SSL_CTX, tls_delete> tls;  // null: plain
    std::unique_ptr<struct evhttp, http_delete> http;
    daemon_ptr daemon;
    connection_table connections;
    std::vector<struct bufferevent *> fresh;  // of connections whose descriptor is not known yet; each is held
    event_ptr look_at_fresh;
    event_ptr every_second;
    std::vector<event_ptr> signals;

    std::vector<account> accounts;
    file_mark accounts_mark;
    std::vector<std::string> tokens;
    session_table sessions;
    sign_in_guard guard;

    history past;
    std::list<exchange_ptr> streams;  // of pages that are open: they are sent what happens
    unsigned seconds = 0;             // since the start
    bool looking = false;             // the daemon was asked for the history and has not answered
};

// Serves until SIGTERM or SIGINT. Returns the exit status; what is wrong goes to standard error.
int serve(const web_options &options);

// One line to standard error, for the journal. Bytes that are not printable are written as "?".
void log_line(const std::string &text);

// Reads the accounts again when their file has changed; sessions of accounts that are no more end.
void refresh_accounts(server &s);

// Sends the pages what is counted now.
void send_to_streams(server &s);

}  // namespace ravo::web

#endif

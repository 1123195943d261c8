// SPDX-License-Identifier: Apache-2.0
// What is served where, and to whom.
#ifndef FRONT_WEB_ROUTES_H
#define FRONT_WEB_ROUTES_H

#include <span>
#include <string_view>

#include "exchange.h"

struct evhttp_request;

namespace ravo::web {

// Who may ask.
enum class audience {
    anyone,
    metrics,  // from this host, or with a token
    reader,   // signed in
    writer,   // signed in as one who may change, with the session's second name
    leaver,   // signed in, with the session's second name
};

struct route_row {
    web::verb verb;
    std::string_view path;  // "/api/v1/interfaces/NAME/servers": a segment in capitals stands for any one
    audience who;
    void (*serve)(const exchange_ptr &x);
};

// All routes but those of the page's own files.
std::span<const route_row> all_routes();

// The segment at a place of the request's path.
const std::string &segment(const exchange &x, std::size_t place);

// The HTTP library's callback for every request. arg: the server.
void route(struct evhttp_request *request, void *arg);

}  // namespace ravo::web

#endif

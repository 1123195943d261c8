// SPDX-License-Identifier: Apache-2.0
// One request and the answer to it, which may come later.
//
// The HTTP library owns the request until it is answered, but for one case: when the connection ends first and the
// request was taken off it, it is ours to free. An exchange knows which, so that whoever answers late need not.
#ifndef FRONT_WEB_EXCHANGE_H
#define FRONT_WEB_EXCHANGE_H

#include <functional>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "accounts.h"
#include "request_text.h"

struct evhttp_request;

namespace ravo::web {

struct server;

enum class verb { get, head, post, put, remove };

struct exchange {
    server *owner = nullptr;
    struct evhttp_request *request = nullptr;  // null: answered, or nobody is there any more
    web::verb verb = web::verb::get;
    target what;
    std::string address;                   // of the client
    std::string session;                   // its name, empty without one
    account who;                           // of the session
    struct exchange_hold *held = nullptr;  // keeps this alive while the HTTP library has the request
    std::function<void()> gone = nullptr;  // the client of a stream went away
};
using exchange_ptr = std::shared_ptr<exchange>;

struct header {
    const char *name;
    std::string value;
};

// Takes over a request of the HTTP library. Until it is answered the exchange lives, whoever holds it or not.
exchange_ptr exchange_open(server *owner, struct evhttp_request *request);

// A header of the request, "" without one.
std::string_view header_of(const exchange &x, const char *name);
// The body, not longer than the limit that the HTTP library holds.
std::string body_of(const exchange &x);

// Answers a request; nothing happens when nobody is there any more. status: of HTTP; type: of the content; more:
// further headers. All answers have the headers that keep a browser from doing more with them than is meant.
void respond(exchange &x, int status, const char *type, std::string_view body, const std::vector<header> &more = {});
void respond_json(exchange &x, int status, const nlohmann::json &value, const std::vector<header> &more = {});
// JSON text that is there already.
void respond_text(exchange &x, std::string_view json);
// {"code", "text"}: the code is the status, or a refusal's own.
void respond_fault(exchange &x, int status, const std::string &text, int code = 0);

// An answer that goes on, as events for the page.
void stream_begin(exchange &x);
// Sends one event. Returns false when the client does not take what was sent; the stream is over then.
bool stream_event(exchange &x, std::string_view name, const std::string &data);
void stream_end(exchange &x);

}  // namespace ravo::web

#endif

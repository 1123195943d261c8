// SPDX-License-Identifier: Apache-2.0
// The HTTP library knows plain requests, exchanges are shared pointers: a small record on the heap, held by the
// library's callbacks, keeps an exchange alive until it is answered or its connection ends, whichever comes first.
#include "exchange.h"

#include <nlohmann/json.hpp>

#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <event2/http.h>
#include <event2/keyvalq_struct.h>
#include <malloc.h>

#include <utility>

#include "server.h"

namespace ravo::web {

// What an exchange is kept alive by while the HTTP library has its request.
struct exchange_hold {
    exchange_ptr x;
};

namespace {

constexpr std::size_t large_answer = 64 * 1024;
constexpr std::size_t most_unsent = 256 * 1024;  // of a stream

constexpr const char *policy =
    "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self'; connect-src 'self'; manifest-src 'self'; "
    "base-uri 'none'; form-action 'none'; frame-ancestors 'none'";

int descriptor_of(const exchange &x) {
    struct evhttp_connection *c = evhttp_request_get_connection(x.request);
    return c == nullptr ? -1 : bufferevent_getfd(evhttp_connection_get_bufferevent(c));
}

// The connection ends while the request is with us.
void on_close(struct evhttp_connection * /*c*/, void *arg) {
    const exchange_ptr x = static_cast<exchange_hold *>(arg)->x;
    delete std::exchange(x->held, nullptr);
    struct evhttp_request *request = x->request;
    x->request = nullptr;
    // Taken off its connection it is nobody's but ours.
    if (request != nullptr && evhttp_request_get_connection(request) == nullptr) evhttp_request_free(request);
    if (x->gone) x->gone();
}

// The answer is on its way: from here on the request is the HTTP library's.
struct evhttp_request *let_go(exchange &x) {
    struct evhttp_request *request = x.request;
    x.request = nullptr;
    if (request == nullptr) return nullptr;
    struct evhttp_connection *c = evhttp_request_get_connection(request);
    if (c != nullptr) evhttp_connection_set_closecb(c, nullptr, nullptr);
    delete std::exchange(x.held, nullptr);  // whoever answers has the exchange too
    return request;
}

void add_headers(struct evhttp_request *request, const char *type, const std::vector<header> &more) {
    struct evkeyvalq *out = evhttp_request_get_output_headers(request);
    bool cache = false;
    for (const header &h : more) {
        evhttp_add_header(out, h.name, h.value.c_str());
        cache = cache || std::string_view(h.name) == "Cache-Control";
    }
    evhttp_add_header(out, "Content-Type", type);
    if (!cache) evhttp_add_header(out, "Cache-Control", "no-store");
    evhttp_add_header(out, "Content-Security-Policy", policy);
    evhttp_add_header(out, "X-Content-Type-Options", "nosniff");
    evhttp_add_header(out, "X-Frame-Options", "DENY");
    evhttp_add_header(out, "Referrer-Policy", "no-referrer");
    evhttp_add_header(out, "Cross-Origin-Opener-Policy", "same-origin");
    evhttp_add_header(out, "Cross-Origin-Resource-Policy", "same-origin");
}

// Counts the connection as waiting for a request again once the answer is taken.
void on_complete(struct evhttp_request *request, void *arg) {
    struct evhttp_connection *c = evhttp_request_get_connection(request);
    if (c != nullptr)
        connection_waits(static_cast<connection_table *>(arg), bufferevent_getfd(evhttp_connection_get_bufferevent(c)));
}

}  // namespace

exchange_ptr exchange_open(server *owner, struct evhttp_request *request) {
    auto x = std::make_shared<exchange>();
    x->owner = owner;
    x->request = request;
    const int fd = descriptor_of(*x);
    x->address = peer_address(fd);
    connection_serves(&owner->connections, fd);
    evhttp_request_set_on_complete_cb(request, on_complete, &owner->connections);
    x->held = new exchange_hold{x};
    evhttp_connection_set_closecb(evhttp_request_get_connection(request), on_close, x->held);
    return x;
}

std::string_view header_of(const exchange &x, const char *name) {
    if (x.request == nullptr) return {};
    const char *value = evhttp_find_header(evhttp_request_get_input_headers(x.request), name);
    return value == nullptr ? std::string_view{} : value;
}

std::string body_of(const exchange &x) {
    if (x.request == nullptr) return {};
    struct evbuffer *in = evhttp_request_get_input_buffer(x.request);
    std::string body(evbuffer_get_length(in), '\0');
    const ev_ssize_t got = evbuffer_copyout(in, body.data(), body.size());
    body.resize(got < 0 ? 0 : static_cast<std::size_t>(got));
    return body;
}

void respond(exchange &x, int status, const char *type, std::string_view body, const std::vector<header> &more) {
    struct evhttp_request *request = let_go(x);
    if (request == nullptr) return;
    add_headers(request, type, more);
    struct evbuffer *out = evbuffer_new();
    evbuffer_add(out, body.data(), body.size());
    evhttp_send_reply(request, status, nullptr, out);
    evbuffer_free(out);
    if (body.size() > large_answer) malloc_trim(0);  // what it was made of is free by now, or soon
}

void respond_json(exchange &x, int status, const nlohmann::json &value, const std::vector<header> &more) {
    respond(x, status, "application/json", value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace), more);
}

void respond_text(exchange &x, std::string_view json) {
    respond(x, 200, "application/json", json);
}

void respond_fault(exchange &x, int status, const std::string &text, int code) {
    respond_json(x, status, {{"code", code != 0 ? code : status}, {"text", text}});
}

void stream_begin(exchange &x) {
    if (x.request == nullptr) return;
    connection_serves(&x.owner->connections, descriptor_of(x), /*stream=*/true);
    add_headers(x.request, "text/event-stream", {{"X-Accel-Buffering", "no"}});
    evhttp_send_reply_start(x.request, 200, "OK");
}

bool stream_event(exchange &x, std::string_view name, const std::string &data) {
    if (x.request == nullptr) return false;
    struct evhttp_connection *c = evhttp_request_get_connection(x.request);
    if (c == nullptr) return false;
    struct evbuffer *unsent = bufferevent_get_output(evhttp_connection_get_bufferevent(c));
    if (evbuffer_get_length(unsent) > most_unsent) {
        stream_end(x);
        return false;
    }
    const std::string text = "event: " + std::string(name) + "\ndata: " + data + "\n\n";
    struct evbuffer *out = evbuffer_new();
    evbuffer_add(out, text.data(), text.size());
    evhttp_send_reply_chunk(x.request, out);
    evbuffer_free(out);
    return x.request != nullptr;
}

void stream_end(exchange &x) {
    if (x.request == nullptr) return;
    connection_serves(&x.owner->connections, descriptor_of(x));  // what is left has to be taken in time
    evhttp_send_reply_end(let_go(x));
}

}  // namespace ravo::web

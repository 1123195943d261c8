// SPDX-License-Identifier: Apache-2.0
// How far a page that does not take its events may lag. The rest of what becomes of requests is lab/test_web_daemon.py.
#include "exchange.h"

#include <arpa/inet.h>
#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <event2/event.h>
#include <event2/http.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "server.h"

namespace {

using namespace ravo::web;

constexpr std::size_t may_lag = 256 * 1024;
const std::string data(1000, 'x');

// Filled by the server's handler, which runs in the event loop once.
struct seen {
    server owner;
    event_base *base = nullptr;
    std::size_t before = 0;  // bytes not taken when the last event was accepted
    std::size_t after = 0;   // and behind it
    bool is_over = false;
};

std::size_t unsent(const exchange &x) {
    return evbuffer_get_length(
        bufferevent_get_output(evhttp_connection_get_bufferevent(evhttp_request_get_connection(x.request))));
}

// Nothing is handed to the kernel before the loop turns again, so that the page has taken none of it.
void tell_without_end(evhttp_request *request, void *arg) {
    auto *const s = static_cast<seen *>(arg);
    const exchange_ptr x = exchange_open(&s->owner, request);
    stream_begin(*x);
    s->before = unsent(*x);
    while (stream_event(*x, "counts", data) && s->after < 2 * may_lag) {
        s->before = s->after;
        s->after = unsent(*x);
    }
    s->is_over = x->request == nullptr;
    event_base_loopbreak(s->base);
}

TEST(Exchange, AStreamThatLagsTooFarIsOver) {
    seen s;
    s.base = event_base_new();
    evhttp *const http = evhttp_new(s.base);
    evhttp_set_gencb(http, tell_without_end, &s);
    evhttp_bound_socket *const bound = evhttp_bind_socket_with_handle(http, "127.0.0.1", 0);
    ASSERT_NE(bound, nullptr);
    sockaddr_in address{};
    socklen_t length = sizeof address;
    ASSERT_EQ(getsockname(evhttp_bound_socket_get_fd(bound), reinterpret_cast<sockaddr *>(&address), &length), 0);
    const int page = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(connect(page, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    const std::string request = "GET / HTTP/1.1\r\nHost: x\r\n\r\n";
    ASSERT_EQ(send(page, request.data(), request.size(), 0), static_cast<ssize_t>(request.size()));
    event_base_dispatch(s.base);
    EXPECT_TRUE(s.is_over);
    EXPECT_LE(s.before, may_lag);
    EXPECT_GT(s.after, may_lag) << "the last event was let in while there was room";
    EXPECT_LT(s.after, may_lag + 2 * data.size());
    close(page);
    evhttp_free(http);
    event_base_free(s.base);
}

}  // namespace

// SPDX-License-Identifier: Apache-2.0
// One event loop serves everything. A timer of a second looks after what has no event of its own: connections that are
// too slow, documents that nobody wants any more, the history, the accounts' file.
#include "server.h"

#include <arpa/inet.h>
#include <event2/bufferevent.h>
#include <event2/bufferevent_ssl.h>
#include <event2/event.h>
#include <event2/http.h>
#include <malloc.h>
#include <netinet/in.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <csignal>
#include <cstdio>
#include <ctime>
#include <fstream>

#include "look.h"
#include "notify.h"
#include "routes.h"

namespace ravo::web {

void http_delete::operator()(struct evhttp *h) const {
    evhttp_free(h);
}

void tls_delete::operator()(SSL_CTX *t) const {
    SSL_CTX_free(t);
}

namespace {

constexpr int silence_seconds = 20;  // of a connection, reading or writing
constexpr std::size_t largest_header = 8192;
constexpr std::size_t shortest_token = 16;
constexpr int idle_look = 10;    // seconds between two looks at the daemon while no page is open
constexpr int watched_look = 2;  // the same while one is

// ---- Files ----

file_mark mark_of(const std::string &path) {
    struct stat about {};
    if (stat(path.c_str(), &about) != 0) return {};
    return {about.st_mtim.tv_sec * 1000000000 + about.st_mtim.tv_nsec, about.st_size};
}

fault read_tokens(const std::string &path, std::vector<std::string> *out) {
    out->clear();
    if (path.empty()) return {};
    struct stat about {};
    std::ifstream file(path);
    if (!file || stat(path.c_str(), &about) != 0) return {path + ": cannot be read"};
    if ((about.st_mode & (S_IRWXO | S_IWGRP)) != 0)
        return {path + ": may be read by others or written by its group; chmod 640"};
    std::string line;
    for (int number = 1; std::getline(file, line); ++number) {
        if (line.empty() || line.front() == '#') continue;
        if (line.size() < shortest_token || !is_plain_word(line, 256))
            return {path + ":" + std::to_string(number) + ": a token is 16 to 256 letters and digits"};
        out->push_back(line);
    }
    return {};
}

// ---- TLS ----

fault tls_fault(const std::string &path) {
    char text[256];
    ERR_error_string_n(ERR_get_error(), text, sizeof text);
    ERR_clear_error();
    return {path + ": " + text};
}

// Makes the context of new connections. Those that there are keep theirs.
fault load_tls(server &s) {
    if (s.options.tls_certificate.empty()) return {};
    std::unique_ptr<SSL_CTX, tls_delete> made(SSL_CTX_new(TLS_server_method()));
    if (made == nullptr || SSL_CTX_set_min_proto_version(made.get(), TLS1_2_VERSION) != 1) return tls_fault("TLS");
    SSL_CTX_set_options(made.get(), SSL_OP_NO_RENEGOTIATION | SSL_OP_CIPHER_SERVER_PREFERENCE);
    if (SSL_CTX_use_certificate_chain_file(made.get(), s.options.tls_certificate.c_str()) != 1)
        return tls_fault(s.options.tls_certificate);
    if (SSL_CTX_use_PrivateKey_file(made.get(), s.options.tls_key.c_str(), SSL_FILETYPE_PEM) != 1 ||
        SSL_CTX_check_private_key(made.get()) != 1)
        return tls_fault(s.options.tls_key);
    s.tls = std::move(made);
    return {};
}

// ---- Connections ----

// The HTTP library asks for the stream of a new connection; its descriptor is set behind this.
struct bufferevent *make_stream(struct event_base *base, void *arg) {
    auto *s = static_cast<server *>(arg);
    struct bufferevent *made = nullptr;
    if (s->tls != nullptr) {
        SSL *tls = SSL_new(s->tls.get());
        made = bufferevent_openssl_socket_new(base, -1, tls, BUFFEREVENT_SSL_ACCEPTING, BEV_OPT_CLOSE_ON_FREE);
        if (made != nullptr) bufferevent_openssl_set_allow_dirty_shutdown(made, 1);
    } else {
        made = bufferevent_socket_new(base, -1, BEV_OPT_CLOSE_ON_FREE);
    }
    if (made == nullptr) return nullptr;
    bufferevent_incref(made);
    s->fresh.push_back(made);
    event_active(s->look_at_fresh.get(), EV_TIMEOUT, 0);
    return made;
}

void release_fresh(server &s, bool count) {
    for (struct bufferevent *stream : std::exchange(s.fresh, {})) {
        const int fd = bufferevent_getfd(stream);
        if (count && fd >= 0) connection_begins(&s.connections, fd);
        bufferevent_decref(stream);
    }
}

void on_fresh(evutil_socket_t /*fd*/, short /*what*/, void *arg) {
    release_fresh(*static_cast<server *>(arg), /*count=*/true);
}

// ---- Time and signals ----

void on_second(evutil_socket_t /*fd*/, short /*what*/, void *arg) {
    auto *s = static_cast<server *>(arg);
    ++s->seconds;
    connections_look(&s->connections, std::chrono::steady_clock::now());
    daemon_tidy(*s->daemon);
    refresh_accounts(*s);
    const unsigned every = s->streams.empty() ? idle_look : watched_look;
    if (s->seconds % every == 0) look_at_daemon(*s);
}

void on_end(evutil_socket_t /*fd*/, short /*what*/, void *arg) {
    event_base_loopbreak(static_cast<server *>(arg)->base.get());
}

void on_reload(evutil_socket_t /*fd*/, short /*what*/, void *arg) {
    auto *s = static_cast<server *>(arg);
    std::vector<std::string> tokens;
    const fault wrong = read_tokens(s->options.token_file, &tokens);
    if (!wrong)
        s->tokens = std::move(tokens);
    else
        log_line(wrong.text + "; the tokens stay as they were");
    if (const fault tls = load_tls(*s)) log_line(tls.text + "; the certificate stays as it was");
    s->accounts_mark = {};
    refresh_accounts(*s);
}

bool watch_signals(server &s) {
    const auto add = [&](int number, event_callback_fn what) {
        s.signals.emplace_back(evsignal_new(s.base.get(), number, what, &s));
        return s.signals.back() != nullptr && event_add(s.signals.back().get(), nullptr) == 0;
    };
    (void)std::signal(SIGPIPE, SIG_IGN);
    return add(SIGTERM, on_end) && add(SIGINT, on_end) && add(SIGHUP, on_reload);
}

bool make_events(server &s) {
    const timeval second{1, 0};
    s.look_at_fresh.reset(evtimer_new(s.base.get(), on_fresh, &s));
    s.every_second.reset(event_new(s.base.get(), -1, EV_PERSIST, on_second, &s));
    return s.look_at_fresh != nullptr && s.every_second != nullptr && event_add(s.every_second.get(), &second) == 0 &&
           watch_signals(s);
}

// ---- Listening ----

void limit_requests(server &s) {
    struct evhttp *h = s.http.get();
    evhttp_set_max_headers_size(h, largest_header);
    evhttp_set_max_body_size(h, longest_body);
    evhttp_set_timeout(h, silence_seconds);
    evhttp_set_allowed_methods(h,
                               EVHTTP_REQ_GET | EVHTTP_REQ_HEAD | EVHTTP_REQ_POST | EVHTTP_REQ_PUT | EVHTTP_REQ_DELETE);
    evhttp_set_bevcb(h, make_stream, &s);
    evhttp_set_gencb(h, route, &s);
}

// Where it listens, as a browser takes it.
std::string url_of(const server &s, struct evhttp_bound_socket *bound) {
    sockaddr_storage here{};
    socklen_t size = sizeof here;
    getsockname(evhttp_bound_socket_get_fd(bound), reinterpret_cast<sockaddr *>(&here), &size);
    const std::uint16_t port = here.ss_family == AF_INET6 ? reinterpret_cast<const sockaddr_in6 &>(here).sin6_port
                                                          : reinterpret_cast<const sockaddr_in &>(here).sin_port;
    const bool brackets = s.options.address.find(':') != std::string::npos;
    return (s.tls != nullptr ? "https://" : "http://") +
           (brackets ? "[" + s.options.address + "]" : s.options.address) + ":" + std::to_string(ntohs(port)) + "/";
}

fault listen_there(server &s, std::string *url) {
    s.http.reset(evhttp_new(s.base.get()));
    if (s.http == nullptr) return {"no memory"};
    limit_requests(s);
    struct evhttp_bound_socket *bound =
        evhttp_bind_socket_with_handle(s.http.get(), s.options.address.c_str(), s.options.port);
    if (bound == nullptr)
        return {"--listen " + s.options.listen + ": " + evutil_socket_error_to_string(EVUTIL_SOCKET_ERROR())};
    *url = url_of(s, bound);
    return {};
}

fault prepare(server &s, std::string *url) {
    raise_descriptor_limit();
    fault wrong = read_accounts(s.options.accounts, &s.accounts);
    s.accounts_mark = mark_of(s.options.accounts);
    if (!wrong) wrong = read_tokens(s.options.token_file, &s.tokens);
    if (!wrong) wrong = load_tls(s);
    if (wrong) return wrong;
    s.base.reset(event_base_new());
    if (s.base == nullptr || !make_events(s)) return {"the event loop cannot be made"};
    s.daemon = daemon_make(s.base.get(), s.options.management);
    return {listen_there(s, url)};
}

void close_down(server &s) {
    for (const exchange_ptr &x : std::exchange(s.streams, {})) stream_end(*x);
    release_fresh(s, /*count=*/false);
    s.http.reset();
    s.daemon.reset();
}

}  // namespace

void log_line(const std::string &text) {
    std::string out = "ravo-web: " + text;
    for (char &c : out)
        if (static_cast<unsigned char>(c) < ' ' || c == 0x7F) c = '?';
    std::fprintf(stderr, "%s\n", out.c_str());
}

void refresh_accounts(server &s) {
    const file_mark now = mark_of(s.options.accounts);
    if (now == s.accounts_mark) return;
    s.accounts_mark = now;
    std::vector<account> read;
    const fault wrong = read_accounts(s.options.accounts, &read);
    if (wrong) {
        log_line(wrong.text + "; nobody can sign in until that is mended");
    }
    s.accounts = std::move(read);
    keep_sessions_of(&s.sessions, s.accounts, std::chrono::steady_clock::now());
}

int serve(const web_options &options) {
    // Large answers go back to the system when they are freed.
    mallopt(M_MMAP_THRESHOLD, 128 * 1024);
    mallopt(M_TRIM_THRESHOLD, 256 * 1024);
    server s;
    s.options = options;
    std::string url;
    const fault wrong = prepare(s, &url);
    if (wrong) {
        log_line(wrong.text);
        close_down(s);
        return 1;
    }
    if (s.accounts.empty()) log_line(options.accounts + ": has no accounts; make one: ravo-web --set-password USER");
    log_line("listening on " + url);
    client::notify_manager("READY=1");
    look_at_daemon(s);
    event_base_dispatch(s.base.get());
    client::notify_manager("STOPPING=1");
    close_down(s);
    return 0;
}

}  // namespace ravo::web

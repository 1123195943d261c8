// SPDX-License-Identifier: Apache-2.0
// A request passes these checks in this order: its target can be read, it comes from a page of ours, its path is known,
// its method is, whoever asks may. Each has one answer.
#include "routes.h"

#include <event2/http.h>

#include <algorithm>
#include <chrono>

#include "api_changes.h"
#include "api_reads.h"
#include "assets.h"
#include "look.h"
#include "metrics.h"
#include "server.h"
#include "sign_in.h"

namespace ravo::web {

namespace {

constexpr route_row rows[] = {
    {verb::get, "/metrics", audience::metrics, serve_metrics},
    {verb::get, "/api/v1/openapi.json", audience::anyone, serve_openapi},
    {verb::get, "/api/v1/health", audience::anyone, serve_health},
    {verb::post, "/api/v1/session", audience::anyone, serve_sign_in},
    {verb::get, "/api/v1/session", audience::anyone, serve_session},
    {verb::remove, "/api/v1/session", audience::leaver, serve_sign_out},
    {verb::get, "/api/v1/events", audience::reader, serve_events},
    {verb::get, "/api/v1/history", audience::reader, serve_history},
    {verb::get, "/api/v1/settings", audience::reader, serve_settings},
    {verb::get, "/api/v1/interfaces", audience::reader, serve_interfaces},
    {verb::get, "/api/v1/servers", audience::reader, serve_servers},
    {verb::get, "/api/v1/clients", audience::reader, serve_clients},
    {verb::get, "/api/v1/clients/MAC", audience::reader, serve_client},
    {verb::get, "/api/v1/statistics", audience::reader, serve_statistics},
    {verb::get, "/api/v1/transactions", audience::reader, serve_transactions},
    {verb::get, "/api/v1/advice", audience::reader, serve_advice},
    {verb::get, "/api/v1/configuration", audience::reader, serve_configuration},
    {verb::post, "/api/v1/configuration/save", audience::writer, save_configuration},
    {verb::post, "/api/v1/interfaces/NAME/servers", audience::writer, add_server},
    {verb::remove, "/api/v1/interfaces/NAME/servers/ADDRESS", audience::writer, remove_server},
    {verb::put, "/api/v1/interfaces/NAME/trust", audience::writer, set_trust},
    {verb::remove, "/api/v1/interfaces/NAME", audience::writer, clear_interface},
};

std::vector<std::string_view> split(std::string_view path) {
    std::vector<std::string_view> out;
    path.remove_prefix(1);
    while (!path.empty()) {
        const std::size_t end = std::min(path.find('/'), path.size());
        out.push_back(path.substr(0, end));
        path.remove_prefix(std::min(end + 1, path.size()));
    }
    return out;
}

bool stands_for_any(std::string_view segment) {
    return !segment.empty() && std::all_of(segment.begin(), segment.end(), [](char c) { return c >= 'A' && c <= 'Z'; });
}

bool fits(const route_row &row, const std::vector<std::string> &path) {
    const auto pattern = split(row.path);
    return std::equal(pattern.begin(), pattern.end(), path.begin(), path.end(),
                      [](auto wanted, const auto &is) { return stands_for_any(wanted) ? !is.empty() : wanted == is; });
}

// ---- Who asks ----

// A page of somebody else's that makes a browser ask here is told apart by what the browser says of it.
bool is_cross_site(const exchange &x) {
    const std::string_view site = header_of(x, "Sec-Fetch-Site");
    if (!site.empty() && site != "same-origin" && site != "none") return true;
    std::string_view origin = header_of(x, "Origin");
    if (origin.empty()) return false;
    const std::size_t mark = origin.find("://");
    if (mark == std::string_view::npos) return true;
    return origin.substr(mark + 3) != header_of(x, "Host");
}

// A name that somebody else gave this address must not open to a page of theirs what needs no sign-in.
bool is_own_host(const exchange &x) {
    const std::string host(host_of(header_of(x, "Host")));
    return host == "localhost" || is_loopback(host);
}

bool may_read_metrics(const exchange &x) {
    const bool forwarded = !header_of(x, "X-Forwarded-For").empty() || !header_of(x, "Forwarded").empty();
    if (is_loopback(x.address) && !forwarded && is_own_host(x)) return true;
    const std::string_view token = bearer_token(header_of(x, "Authorization"));
    bool known = false;
    for (const std::string &one : x.owner->tokens) known = same_secret(one, token) || known;
    return known;
}

// Finds the session and judges it. Returns whether the request may go on; else it is answered.
bool admit_session(exchange &x, audience who) {
    const session *s = find_session(&x.owner->sessions, cookie_value(header_of(x, "Cookie"), session_cookie),
                                    std::chrono::steady_clock::now());
    if (s == nullptr) {
        respond_fault(x, 401, "sign in first");
        return false;
    }
    x.session = s->id;
    x.who = s->who;
    if (who == audience::reader) return true;
    if (!same_secret(s->csrf, header_of(x, "X-CSRF-Token"))) {
        respond_fault(x, 403, "the X-CSRF-Token of this session is missing or wrong");
        return false;
    }
    if (who == audience::leaver || s->who.role == role::admin) return true;
    respond_fault(x, 403, "user " + s->who.user + " may only look");
    return false;
}

bool admit(exchange &x, audience who) {
    if (who == audience::anyone) return true;
    if (who != audience::metrics) return admit_session(x, who);
    if (may_read_metrics(x)) return true;
    respond(x, 401, "application/json", R"({"code":401,"text":"metrics need a token here"})",
            {{"WWW-Authenticate", "Bearer"}});
    return false;
}

// ---- The way of a request ----

bool read_verb(struct evhttp_request *request, verb *out) {
    switch (evhttp_request_get_command(request)) {
        case EVHTTP_REQ_GET:
            *out = verb::get;
            return true;
        case EVHTTP_REQ_HEAD:
            *out = verb::head;
            return true;
        case EVHTTP_REQ_POST:
            *out = verb::post;
            return true;
        case EVHTTP_REQ_PUT:
            *out = verb::put;
            return true;
        case EVHTTP_REQ_DELETE:
            *out = verb::remove;
            return true;
        default:
            return false;
    }
}

std::string allowed_at(const std::vector<std::string> &path) {
    std::string out;
    constexpr const char *words[] = {"GET", "HEAD", "POST", "PUT", "DELETE"};
    for (const route_row &row : rows)
        if (fits(row, path)) out += (out.empty() ? "" : ", ") + std::string(words[static_cast<int>(row.verb)]);
    return out;
}

void serve_route(const exchange_ptr &x) {
    const verb wanted = x->verb == verb::head ? verb::get : x->verb;
    for (const route_row &row : rows) {
        if (row.verb != wanted || !fits(row, x->what.path)) continue;
        if (admit(*x, row.who)) row.serve(x);
        return;
    }
    const std::string allowed = allowed_at(x->what.path);
    if (allowed.empty())
        respond_fault(*x, 404, "there is nothing at this path");
    else
        respond(*x, 405, "application/json", R"({"code":405,"text":"this path does not take that method"})",
                {{"Allow", allowed}});
}

void dispatch(const exchange_ptr &x, const char *uri) {
    auto what = uri == nullptr ? std::nullopt : read_target(uri);
    if (!what || !read_verb(x->request, &x->verb)) {
        respond_fault(*x, 400, "the request cannot be read");
        return;
    }
    x->what = std::move(*what);
    if (is_cross_site(*x) && (x->verb != verb::get || x->what.path.size() > 1)) {
        respond_fault(*x, 403, "the request comes from another site");
        return;
    }
    const bool reads = x->verb == verb::get || x->verb == verb::head;
    if (reads && serve_asset(*x)) return;
    serve_route(x);
}

}  // namespace

std::span<const route_row> all_routes() {
    return rows;
}

const std::string &segment(const exchange &x, std::size_t place) {
    static const std::string nothing;
    return place < x.what.path.size() ? x.what.path[place] : nothing;
}

void route(struct evhttp_request *request, void *arg) {
    const exchange_ptr x = exchange_open(static_cast<server *>(arg), request);
    dispatch(x, evhttp_request_get_uri(request));
}

}  // namespace ravo::web

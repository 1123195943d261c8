// SPDX-License-Identifier: Apache-2.0
// A sign-in is answered only after its address may try and its password was checked; the session's two names go out
// together, one as a cookie that scripts cannot read, the other in the answer.
#include "sign_in.h"

#include <nlohmann/json.hpp>

#include <chrono>

#include "server.h"

namespace ravo::web {

namespace {

using clock = std::chrono::steady_clock;

std::string cookie_of(const exchange &x, const std::string &value, bool over) {
    return std::string(session_cookie) + "=" + value + "; Path=/; HttpOnly; SameSite=Strict" +
           (x.owner->tls != nullptr ? "; Secure" : "") + (over ? "; Max-Age=0" : "");
}

nlohmann::json session_json(const account &who, const std::string &csrf) {
    return {{"user", who.user}, {"role", role_word(who.role)}, {"csrf", csrf}};
}

bool has_json_body(const exchange &x) {
    return header_of(x, "Content-Type").starts_with("application/json");
}

// One address of a network that a host chooses freely in: of IPv6 the first 64 bits.
std::string guard_name(const std::string &address) {
    std::size_t at = 0;
    for (int groups = 0; groups < 4; ++groups) {
        at = address.find(':', at);
        if (at == std::string::npos) return address;
        ++at;
    }
    return address.substr(0, at);
}

void refuse_wait(exchange &x, int seconds) {
    respond(x, 429, "application/json",
            R"({"code":429,"text":"too many failed sign-ins; try again in )" + std::to_string(seconds) + R"( s"})",
            {{"Retry-After", std::to_string(seconds)}});
}

}  // namespace

void serve_sign_in(const exchange_ptr &x) {
    server &s = *x->owner;
    std::vector<body_member> body = {{"user", longest_user}, {"password", longest_password}};
    const fault wrong = has_json_body(*x) ? read_body(body_of(*x), &body) : fault{"the body must be application/json"};
    if (wrong) {
        respond_fault(*x, 400, wrong.text);
        return;
    }
    const std::string name = guard_name(x->address);
    if (const int wait = sign_in_wait(&s.guard, name, clock::now()); wait > 0) {
        refuse_wait(*x, wait);
        return;
    }
    refresh_accounts(s);
    const account *who = find_account(s.accounts, body[0].text);
    if (!password_fits(who, body[1].text)) {
        sign_in_failed(&s.guard, name, clock::now());
        log_line("audit: sign-in of user \"" + body[0].text + "\" from " + x->address + " refused");
        respond_fault(*x, 401, "user or password is wrong");
        return;
    }
    sign_in_good(&s.guard, name);
    log_line("audit: user " + who->user + " signed in from " + x->address);
    const session &begun = begin_session(&s.sessions, *who, clock::now());
    respond_json(*x, 200, session_json(begun.who, begun.csrf), {{"Set-Cookie", cookie_of(*x, begun.id, false)}});
}

void serve_session(const exchange_ptr &x) {
    const std::string_view cookie = cookie_value(header_of(*x, "Cookie"), session_cookie);
    const session *s = find_session(&x->owner->sessions, cookie, clock::now());
    respond_json(*x, 200, s == nullptr ? nlohmann::json{{"user", nullptr}} : session_json(s->who, s->csrf));
}

void serve_sign_out(const exchange_ptr &x) {
    end_session(&x->owner->sessions, x->session);
    log_line("audit: user " + x->who.user + " signed out from " + x->address);
    respond_json(*x, 200, {{"user", x->who.user}}, {{"Set-Cookie", cookie_of(*x, "", true)}});
}

}  // namespace ravo::web

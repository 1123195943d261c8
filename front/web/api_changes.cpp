// SPDX-License-Identifier: Apache-2.0
// Each change becomes a few lines of commands, run in the user's name in a session of their own. What the last line
// came to is the answer: done, a refusal with the relay's code, or what the daemon printed. Every outcome goes to the
// audit log.
#include "api_changes.h"

#include <nlohmann/json.hpp>

#include <algorithm>

#include "api_reads.h"
#include "refusals.h"
#include "routes.h"
#include "server.h"

namespace ravo::web {

namespace {

using answers = std::vector<client::reply>;

constexpr std::size_t longest_interface = 31;
constexpr std::size_t longest_address = 64;
constexpr const char *configure = "configure terminal";
constexpr const char *trusted_command = "show ip dhcp relay information trusted-sources | json";

void log_audit(const exchange &x, const std::string &what, const std::string &came_to) {
    log_line("audit: user " + x.who.user + " from " + x.address + ": " + what + ": " + came_to);
}

void refuse(exchange &x, const std::string &what, const refusal &r) {
    log_audit(x, what, "refused, " + std::to_string(r.code));
    respond_fault(x, r.status, std::string(r.text), r.code);
}

void fail(exchange &x, const std::string &what, int status, const std::string &text) {
    log_audit(x, what, text);
    respond_fault(x, status, text);
}

void succeed(exchange &x, const std::string &what) {
    log_audit(x, what, "done");
    respond_json(x, 200, {{"done", true}});
}

// Answers with what the last line of a change came to.
void respond_change(exchange &x, const std::string &what, const answers &got) {
    const client::reply &last = got.back();
    if (!last.answered) return fail(x, what, 503, last.reason);
    const refusal r = refusal_of(last.result, last.text);
    if (r.status == 200) return succeed(x, what);
    if (r.code != 0) return refuse(x, what, r);
    // The commands for web pages say nothing of an interface that there is not.
    if (last.text.empty()) return fail(x, what, 404, "there is no interface " + segment(x, 3));
    fail(x, what, 409, last.text);
}

void change(const exchange_ptr &x, const std::string &what, std::vector<std::string> lines) {
    daemon_change(*x->owner->daemon, x->who.user, std::move(lines),
                  [x, what](const answers &got) { respond_change(*x, what, got); });
}

// The interface that the path names, as a word of a command line. Answers the request when it is none.
bool read_interface(exchange &x, std::string *name) {
    *name = segment(x, 3);
    if (is_plain_word(*name, longest_interface)) return true;
    respond_fault(x, 404, "there is no interface of that name");
    return false;
}

bool read_members(exchange &x, std::vector<body_member> *members) {
    const bool json = header_of(x, "Content-Type").starts_with("application/json");
    const fault wrong = json ? read_body(body_of(x), members) : fault{"the body must be application/json"};
    if (wrong) respond_fault(x, 400, wrong.text);
    return !wrong;
}

bool is_trusted(const std::string &text, const std::string &interface) {
    const nlohmann::json doc = nlohmann::json::parse(text, nullptr, /*allow_exceptions=*/false);
    if (!doc.is_object() || !doc.contains("trusted_sources")) return false;
    const nlohmann::json &names = doc["trusted_sources"];
    return std::any_of(names.begin(), names.end(), [&](const nlohmann::json &name) { return name == interface; });
}

}  // namespace

void add_server(const exchange_ptr &x) {
    std::string interface;
    std::vector<body_member> body = {{"address", longest_address}};
    if (!read_interface(*x, &interface) || !read_members(*x, &body)) return;
    const std::string address = body[0].text;
    const std::string what = "add server \"" + address + "\" to " + interface;
    if (!is_ipv4(address)) return refuse(*x, what, refusal_with(302020));
    // The command sets the trust too: it is set to what it is.
    daemon_document(*x->owner->daemon, trusted_command, std::chrono::milliseconds(0),
                    [x, what, interface, address](const document_ptr &doc) {
                        if (!doc->there) return respond_absent(*x, *doc);
                        change(x, what,
                               {configure, "web set dhcp relay ifsettings " + interface + " " + address +
                                               (is_trusted(doc->text, interface) ? " 1" : " 0")});
                    });
}

void remove_server(const exchange_ptr &x) {
    std::string interface;
    if (!read_interface(*x, &interface)) return;
    const std::string address = segment(*x, 5);
    const std::string what = "remove server \"" + address + "\" from " + interface;
    if (!is_ipv4(address)) return refuse(*x, what, refusal_with(302020));
    change(x, what, {configure, "interface " + interface, "no ip dhcp relay address " + address});
}

void set_trust(const exchange_ptr &x) {
    std::string interface;
    std::vector<body_member> body = {{"trusted"}};
    if (!read_interface(*x, &interface) || !read_members(*x, &body)) return;
    const bool trusted = body[0].flag;
    change(x, (trusted ? "trust " : "no longer trust ") + interface,
           {configure, "web set dhcp relay ifsettings " + interface + (trusted ? " 1" : " 0")});
}

void clear_interface(const exchange_ptr &x) {
    std::string interface;
    if (!read_interface(*x, &interface)) return;
    const std::string what = "clear servers and trust of " + interface;
    daemon_change(*x->owner->daemon, x->who.user, {configure, "web delete dhcp relay ifsettings " + interface},
                  [x, what](const answers &got) {
                      const bool ran = got.size() == 2 && got.back().answered;
                      // What it prints of an interface that is there counts the servers by option that are left.
                      if (ran && (got.back().result == 0 || !got.back().text.empty())) return succeed(*x, what);
                      respond_change(*x, what, got);
                  });
}

void save_configuration(const exchange_ptr &x) {
    change(x, "save the configuration", {"write memory"});
}

}  // namespace ravo::web

// SPDX-License-Identifier: Apache-2.0
// A look asks for the statistics, takes them into the history and sends every open page what is new. When the daemon
// does not answer, pages are sent that instead.
#include "look.h"

#include <nlohmann/json.hpp>

#include <ctime>
#include <optional>

#include "commands.h"

namespace ravo::web {

namespace {

using nlohmann::json;

json counts_json(const named_counts &counts) {
    json out = json::object();
    for (const auto &[name, count] : counts)
        if (count != 0) out[name] = count;
    return out;
}

void take_total(server &s, const counted &total) {
    s.looking = false;
    history_take(&s.past, std::time(nullptr), total);
    send_to_streams(s);
}

// A daemon that does not count types by VLAN has its eight receive counters.
void take_receive_counters(server &s, counted total, const document &doc) {
    json rest;
    if (doc.there)
        (void)each_element(
            doc.text, "interfaces", [](json &) {}, &rest);
    if (rest.contains("received") && rest["received"].is_object())
        for (const auto &[type, count] : rest["received"].items())
            total.types.emplace_back(type, count_member(rest["received"], type.c_str()));
    take_total(s, total);
}

void take_statistics(server &s, const document_ptr &doc) {
    std::optional<counted> total;
    statistics_reader reader;
    reader.total = [&](const counted &c) { total = c; };
    if (doc->there) (void)read_statistics(doc->text, reader);  // what cannot be read is no row of the history
    if (!total) {
        s.looking = false;
        send_to_streams(s);
    } else if (total->types.empty()) {
        daemon_document(*s.daemon, detail_command, fresh_enough,
                        [&s, total](const document_ptr &detail) { take_receive_counters(s, *total, *detail); });
    } else {
        take_total(s, *total);
    }
}

// Ends the streams of those who are not signed in any more. Watching counts as using the session.
void keep_streams(server &s) {
    const auto now = std::chrono::steady_clock::now();
    const std::list<exchange_ptr> open = s.streams;
    for (const exchange_ptr &x : open) {
        if (find_session(&s.sessions, x->session, now) != nullptr) continue;
        stream_end(*x);
        s.streams.remove(x);
    }
}

}  // namespace

void look_at_daemon(server &s) {
    if (s.looking) return;
    s.looking = true;
    daemon_document(*s.daemon, statistics_command, fresh_enough,
                    [&s](const document_ptr &doc) { take_statistics(s, doc); });
}

json health_json(const server &s, bool up, const std::string &reason) {
    json out = {{"status", up ? "up" : "down"}, {"version", RAVO_VERSION}};
    const client::link_state &state = daemon_state(*s.daemon);
    if (!state.daemon_version.empty()) out["daemon_version"] = state.daemon_version;
    if (!up) out["reason"] = reason;
    return out;
}

json now_json(const server &s) {
    const client::link_state &state = daemon_state(*s.daemon);
    const counted &c = s.past.last;
    return {{"row", history_newest(s.past)},
            {"received", c.received},
            {"sent", c.sent},
            {"lost", c.lost},
            {"types", counts_json(c.types)},
            {"outcomes", counts_json(c.outcomes)},
            {"daemon", health_json(s, state.connected, state.reason)}};
}

void send_to_streams(server &s) {
    keep_streams(s);
    if (s.streams.empty()) return;
    const std::string data = now_json(s).dump(-1, ' ', false, json::error_handler_t::replace);
    // A stream that ends takes itself off the list.
    const std::list<exchange_ptr> open = s.streams;
    for (const exchange_ptr &x : open)
        if (!stream_event(*x, "now", data)) s.streams.remove(x);
}

void serve_events(const exchange_ptr &x) {
    server &s = *x->owner;
    if (s.streams.size() >= most_streams) {
        respond_fault(*x, 503, "too many pages are open already");
        return;
    }
    s.streams.push_back(x);
    const std::weak_ptr<exchange> weak = x;
    x->gone = [&s, weak] { s.streams.remove(weak.lock()); };
    stream_begin(*x);
    (void)stream_event(*x, "now", now_json(s).dump(-1, ' ', false, json::error_handler_t::replace));
    look_at_daemon(s);
}

void serve_history(const exchange_ptr &x) {
    respond_json(*x, 200, history_json(x->owner->past));
}

}  // namespace ravo::web

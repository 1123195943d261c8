// SPDX-License-Identifier: Apache-2.0
// Documents are fetched one after the other and written out as they are read, family by family. Counts of interfaces
// are summed up on the way, and what the daemon's total has beyond them becomes interface "none".
#include "metrics.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <map>

#include "commands.h"
#include "server.h"
#include "statistics.h"

namespace ravo::web {

namespace {

using nlohmann::json;

constexpr std::string_view no_interface = "none";
constexpr std::string_view no_type = "none";
constexpr const char *open_type = "application/openmetrics-text; version=1.0.0; charset=utf-8";
constexpr const char *plain_type = "text/plain; version=0.0.4; charset=utf-8";

std::string number_text(double value) {
    constexpr double exact = 1e15;  // whole numbers up to here are written as such
    if (value == std::floor(value) && std::fabs(value) < exact) return std::to_string(static_cast<std::int64_t>(value));
    std::array<char, 32> text;
    const auto [end, fault] = std::to_chars(text.data(), text.data() + text.size(), value);
    return fault == std::errc{} ? std::string(text.data(), end) : "0";
}

struct writer {
    bool open_metrics = true;
    std::string out;
};

void begin_family(writer &w, std::string_view name, std::string_view kind, std::string_view help) {
    const std::string family = std::string(name) + (kind == "counter" && !w.open_metrics ? "_total" : "");
    w.out += "# HELP " + family + " " + std::string(help) + "\n# TYPE " + family + " " + std::string(kind) + "\n";
}

void add_sample(std::string &out, std::string_view name, std::string_view labels, std::string_view value) {
    out.append(name);
    if (!labels.empty()) out.append("{").append(labels).append("}");
    out.append(" ").append(value).append("\n");
}

void add_count(std::string &out, std::string_view name, std::string_view labels, std::uint64_t value) {
    add_sample(out, name, labels, std::to_string(value));
}

std::string label(std::string_view name, std::string_view value) {
    return std::string(name) + "=\"" + label_text(value) + "\"";
}

std::string upper(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::toupper(c); });
    return text;
}

void add_family(writer &w, std::string_view name, std::string_view kind, std::string_view help,
                std::string_view samples) {
    begin_family(w, name, kind, help);
    w.out += samples;
}

void add_gauge(writer &w, std::string_view name, std::string_view help, double value) {
    std::string sample;
    add_sample(sample, name, "", number_text(value));
    add_family(w, name, "gauge", help, sample);
}

void add_counter(writer &w, std::string_view name, std::string_view help, double value) {
    std::string sample;
    add_sample(sample, std::string(name) + "_total", "", number_text(value));
    add_family(w, name, "counter", help, sample);
}

// ---- What became of messages ----

struct message_samples {
    std::string messages;
    std::string outcomes;
    std::string ports;
    counted total;
    bool has_total = false;
    std::map<std::string, std::uint64_t> types_seen;     // over the interfaces
    std::map<std::string, std::uint64_t> outcomes_seen;  // over the interfaces
    std::uint64_t typed = 0;
    std::uint64_t received = 0;
};

void add_types(message_samples &to, std::string_view interface, const counted &c) {
    const std::string labels = label("interface", interface);
    std::uint64_t typed = 0;
    for (const auto &[type, count] : c.types) {
        typed += count;
        to.types_seen[type] += count;
        if (count != 0) add_count(to.messages, "ravo_messages_total", labels + "," + label("type", upper(type)), count);
    }
    // Messages without a type, and of one that is none, so that the sum is all that was received.
    if (c.received > typed)
        add_count(to.messages, "ravo_messages_total", labels + "," + label("type", no_type), c.received - typed);
}

void add_outcomes(message_samples &to, std::string_view interface, const named_counts &outcomes) {
    const std::string labels = label("interface", interface);
    for (const auto &[outcome, count] : outcomes) {
        to.outcomes_seen[outcome] += count;
        // The two of every day are there from the start, so that their growth shows from the first message on.
        if (count != 0 || outcome == "relayed" || outcome == "delivered")
            add_count(to.outcomes, "ravo_outcomes_total", labels + "," + label("outcome", outcome), count);
    }
}

// What the total has and no interface does.
void add_rest(message_samples &to) {
    counted rest;
    rest.received = to.total.received - std::min(to.received, to.total.received);
    for (const auto &[type, count] : to.total.types)
        rest.types.emplace_back(type, count - std::min(count, to.types_seen[type]));
    named_counts outcomes;
    for (const auto &[outcome, count] : to.total.outcomes)
        if (count > to.outcomes_seen[outcome]) outcomes.emplace_back(outcome, count - to.outcomes_seen[outcome]);
    add_types(to, no_interface, rest);
    add_outcomes(to, no_interface, outcomes);
}

message_samples read_messages(std::string_view statistics) {
    message_samples to;
    statistics_reader reader;
    reader.total = [&](const counted &c) {
        to.total = c;
        to.has_total = true;
    };
    reader.vlan = [&](unsigned vlan, const counted &c) {
        const std::string interface = "vlan" + std::to_string(vlan);
        to.received += c.received;
        add_types(to, interface, c);
        add_outcomes(to, interface, c.outcomes);
    };
    reader.port = [&](const std::string &port, const counted &c) {
        add_count(to.ports, "ravo_port_messages_total", label("port", port), c.received);
    };
    (void)read_statistics(statistics, reader);  // what is whole counts
    if (to.has_total) add_rest(to);
    return to;
}

void add_messages(writer &w, std::string_view statistics) {
    const message_samples from = read_messages(statistics);
    if (!from.has_total) return;
    add_family(w, "ravo_messages", "counter", "DHCP messages received, by VLAN interface and message type.",
               from.messages);
    add_family(w, "ravo_outcomes", "counter", "DHCP messages by VLAN interface and what became of them.",
               from.outcomes);
    add_family(w, "ravo_port_messages", "counter", "DHCP messages received, by port.", from.ports);
    add_counter(w, "ravo_messages_lost", "Messages that came faster than they could be read.",
                static_cast<double>(from.total.lost));
}

// ---- Servers ----

struct server_samples {
    std::string requests;
    std::string replies;
    std::string seconds;
};

// The limits that the daemon has: a histogram names all of them each time, also those that nothing counted for.
constexpr std::uint64_t limits_us[] = {500,    1000,   2500,   5000,    10000,   25000,  50000,
                                       100000, 250000, 500000, 1000000, 2500000, 5000000};

// times: {"buckets": [{"le_us", "count"}]} as the daemon shows them: not cumulated, without those of 0. What was slower
// than all limits has no "le_us".
void add_histogram(std::string &out, const std::string &labels, const json &times) {
    const auto buckets = times.find("buckets");
    if (buckets == times.end()) return;
    std::map<std::uint64_t, std::uint64_t> counts;
    for (const std::uint64_t limit : limits_us) counts[limit] = 0;
    std::uint64_t slower = 0;
    for (const json &bucket : *buckets)
        (bucket.contains("le_us") ? counts[count_member(bucket, "le_us")] : slower) += count_member(bucket, "count");
    std::uint64_t sum = 0;
    for (const auto &[limit, count] : counts) {
        sum += count;
        add_count(out, "ravo_server_response_seconds_bucket",
                  labels + "," + label("le", number_text(static_cast<double>(limit) / 1e6)), sum);
    }
    sum += slower;
    add_count(out, "ravo_server_response_seconds_bucket", labels + ",le=\"+Inf\"", sum);
    add_sample(out, "ravo_server_response_seconds_sum", labels, number_text(number_member(times, "sum_us") / 1e6));
    add_count(out, "ravo_server_response_seconds_count", labels, sum);
}

void add_servers(writer &w, std::string_view text) {
    server_samples to;
    (void)each_element(text, "servers", [&](json &row) {
        if (!row.is_object()) return;
        const std::string labels =
            label("interface", text_member(row, "interface")) + "," + label("server", text_member(row, "server"));
        add_count(to.requests, "ravo_server_requests_total", labels, count_member(row, "asked"));
        add_count(to.replies, "ravo_server_replies_total", labels, count_member(row, "answered"));
        if (row.contains("response_times") && row["response_times"].is_object())
            add_histogram(to.seconds, labels, row["response_times"]);
    });
    add_family(w, "ravo_server_requests", "counter", "Requests sent to a server.", to.requests);
    add_family(w, "ravo_server_replies", "counter", "Replies that came from a server.", to.replies);
    add_family(w, "ravo_server_response_seconds", "histogram", "Time between a request and its server's reply.",
               to.seconds);
}

// ---- The rest ----

std::size_t elements_in(std::string_view text, std::string_view list) {
    std::size_t count = 0;
    (void)each_element(text, list, [&](json &) { ++count; });
    return count;
}

void add_state(writer &w, const metrics_source &from) {
    json settings;
    if (each_element(
            from.settings, "interfaces", [](json &) {}, &settings))
        add_gauge(w, "ravo_relay_enabled", "1 while the relay is on.", flag_member(settings, "relay") ? 1 : 0);
    if (!from.transactions.empty())
        add_gauge(w, "ravo_transactions", "Transactions that are open.",
                  static_cast<double>(last_count(from.transactions, "total")));
    if (!from.advice.empty())
        add_gauge(w, "ravo_advice", "Things that the relay advises to look at.",
                  static_cast<double>(elements_in(from.advice, "advice")));
    std::string build;
    add_sample(build, "ravo_build_info", label("version", from.daemon_version), "1");
    add_family(w, "ravo_build_info", "gauge", "The daemon's version.", build);
}

void add_process(writer &w, const process_figures &p) {
    if (p.cpu_seconds) add_counter(w, "process_cpu_seconds", "Processor time of the daemon.", *p.cpu_seconds);
    if (p.start_seconds)
        add_gauge(w, "process_start_time_seconds", "When the daemon was started, since 1970.", *p.start_seconds);
    if (p.resident_bytes) add_gauge(w, "process_resident_memory_bytes", "Memory of the daemon.", *p.resident_bytes);
    if (p.virtual_bytes) add_gauge(w, "process_virtual_memory_bytes", "Address space of the daemon.", *p.virtual_bytes);
    if (p.threads) add_gauge(w, "process_threads", "Threads of the daemon.", *p.threads);
    if (p.open_descriptors) add_gauge(w, "process_open_fds", "Descriptors of the daemon.", *p.open_descriptors);
    if (p.most_descriptors)
        add_gauge(w, "process_max_fds", "Descriptors that the daemon may have.", *p.most_descriptors);
}

// ---- Serving ----

// The documents of one exposition, as they come.
struct gathering {
    exchange_ptr x;
    std::vector<document_ptr> docs;
};

constexpr std::array commands = {statistics_command, settings_command, transactions_command, servers_command,
                                 advice_command};

std::string_view text_of(const document_ptr &doc) {
    return doc->there ? std::string_view(doc->text) : std::string_view{};
}

// Its sum is at its end, which is kept also of a list that is too long.
std::string_view end_of(const document_ptr &doc) {
    return doc->there && doc->cut ? std::string_view(doc->tail) : text_of(doc);
}

void respond_metrics(const gathering &g) {
    if (g.x->request == nullptr) return;
    if (!g.docs[0]->answered) return respond_fault(*g.x, 503, g.docs[0]->reason);
    const client::link_state &state = daemon_state(*g.x->owner->daemon);
    metrics_source from{text_of(g.docs[0]),
                        text_of(g.docs[1]),
                        end_of(g.docs[2]),
                        text_of(g.docs[3]),
                        text_of(g.docs[4]),
                        state.daemon_version,
                        read_process(state.daemon_pid)};
    const bool open = header_of(*g.x, "Accept").find("application/openmetrics-text") != std::string_view::npos;
    respond(*g.x, 200, open ? open_type : plain_type, metrics_text(from, open));
}

void gather(const std::shared_ptr<gathering> &g) {
    if (g->docs.size() == commands.size() || (!g->docs.empty() && !g->docs[0]->answered)) return respond_metrics(*g);
    daemon_document(*g->x->owner->daemon, commands[g->docs.size()], fresh_enough, [g](const document_ptr &doc) {
        g->docs.push_back(doc);
        gather(g);
    });
}

}  // namespace

std::string label_text(std::string_view value) {
    std::string out;
    for (const char c : value) {
        if (c == '\\' || c == '"') out += '\\';
        if (c == '\n')
            out += "\\n";
        else
            out += c;
    }
    return out;
}

std::string metrics_text(const metrics_source &from, bool open_metrics) {
    writer w{open_metrics, {}};
    add_messages(w, from.statistics);
    add_servers(w, from.servers);
    add_state(w, from);
    add_process(w, from.process);
    w.out += "# EOF\n";
    return std::move(w.out);
}

void serve_metrics(const exchange_ptr &x) {
    gather(std::make_shared<gathering>(gathering{x, {}}));
}

}  // namespace ravo::web

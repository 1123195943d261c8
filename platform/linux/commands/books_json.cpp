// SPDX-License-Identifier: Apache-2.0
// Documents about what became of messages, and about clients. They are written from the books, never from the text that
// people get.
#include "commands/books_json.h"

#include <cstdlib>

#include "base/clock.h"
#include "base/text.h"
#include "channel/channel.h"
#include "commands/books_clients.h"
#include "commands/books_snapshot.h"
#include "commands/books_text.h"
#include "commands/commands.h"
#include "osal/send_figures.h"
#include "osal/transaction_room.h"

namespace ravo::cli {

namespace {

// The same bounds as those of the text, for the same reason: a session holds a bounded amount of unread output.
constexpr std::size_t most_clients = 10000;
constexpr std::size_t most_messages = 5000;

// Outcomes that only a switch with guards has.
bool is_a_guards(relay_outcome outcome) {
    return outcome >= OUTCOME_CORE_ASSERTION && outcome <= OUTCOME_GUARD_TRANSACTION;
}

// part: of a VLAN or a port, of which there may be thousands; what guards never did is left out there.
void add_counters(json_writer &out, const platform::book_counters &counters, bool part) {
    const auto number = [](std::uint64_t value) { return static_cast<std::int64_t>(value); };
    json_number(out, "received", number(counters.received));
    json_number(out, "sent", number(counters.sent));
    json_number(out, "rebroadcast", number(counters.rebroadcast));
    json_open(out, "outcomes", '{');
    for (int i = 0; i < OUTCOMES; ++i) {
        const auto outcome = static_cast<relay_outcome>(i);
        if (part && is_a_guards(outcome) && counters.by_outcome[outcome] == 0) continue;
        json_number(out, platform::outcome_word(outcome), number(counters.by_outcome[outcome]));
    }
    json_close(out, '}');
    // Messages without a type, or with an unknown one, are what is missing from the sum of these to "received".
    constexpr std::string_view types[platform::BOOK_TYPES] = {"",    "discover", "offer",   "request", "decline",
                                                              "ack", "nak",      "release", "inform"};
    json_open(out, "types", '{');
    for (std::size_t i = 1; i < platform::BOOK_TYPES; ++i) json_number(out, types[i], number(counters.by_type[i]));
    json_close(out, '}');
}

void add_total(json_writer &out, const book_snapshot &now) {
    json_open(out, "total", '{');
    add_counters(out, now.total, /*part=*/false);
    json_number(out, "lost", static_cast<std::int64_t>(now.lost));
    json_number(out, "restarts", now.restarts);
    json_close(out, '}');
}

void add_vlan(json_writer &out, const counted_place &vlan) {
    json_open(out, "", '{');
    json_number(out, "vlan", vlan.number);
    add_counters(out, vlan.counters, /*part=*/true);
    json_close(out, '}');
}

void add_port(json_writer &out, const counted_place &port) {
    json_open(out, "", '{');
    json_string(out, "port", port_name(port.number));
    json_number(out, "ifindex", port.number);
    add_counters(out, port.counters, /*part=*/true);
    json_close(out, '}');
}

void add_unsent(json_writer &out, std::string_view kind, const std::string &name,
                const platform::send_figures &figures) {
    json_open(out, "", '{');
    json_string(out, kind, name);
    json_number(out, "no_room", static_cast<std::int64_t>(figures.no_room));
    json_number(out, "failed", static_cast<std::int64_t>(figures.failed));
    json_close(out, '}');
}

// Copies that were dropped instead of sent, by where they were to go.
void add_all_unsent(json_writer &out) {
    json_open(out, "unsent", '[');
    for (const platform::send_row &row : platform::send_figures_servers())
        add_unsent(out, "server", platform::ipv4_text(row.destination), row.figures);
    for (const platform::send_row &row : platform::send_figures_interfaces())
        add_unsent(out, "interface", interface_name(row.destination), row.figures);
    json_close(out, ']');
}

// As the relay's log has it, and as its bytes are in the message, for those who look at captures.
void add_xid(json_writer &out, std::uint32_t xid) {
    json_string(out, "xid", xid_text(xid));
    const std::array<std::uint8_t, 4> bytes = {static_cast<std::uint8_t>(xid >> 24),
                                               static_cast<std::uint8_t>(xid >> 16),
                                               static_cast<std::uint8_t>(xid >> 8), static_cast<std::uint8_t>(xid)};
    json_string(out, "xid_bytes", hex_text(bytes));
}

// What transactions take of the memory, and what they had to go without.
void add_transactions(json_writer &out) {
    const auto number = [](std::uint64_t value) { return static_cast<std::int64_t>(value); };
    const platform::transaction_figures figures = platform::transaction_room_figures();
    json_open(out, "transactions", '{');
    json_number(out, "open", number(figures.open));
    json_number(out, "used_bytes", number(figures.used));
    json_number(out, "budget_bytes", number(figures.budget));
    json_number(out, "ended_early", number(figures.ended_early));
    json_number(out, "refused", number(figures.refused));
    json_open(out, "ports", '[');
    for (const platform::port_transactions &port : platform::transaction_room_ports()) {
        json_open(out, "", '{');
        json_string(out, "port", port_name(port.port));
        json_number(out, "open", number(port.open));
        json_number(out, "ended_early", number(port.ended_early));
        json_close(out, '}');
    }
    json_close(out, ']');
    json_close(out, '}');
}

void add_place(json_writer &out, std::uint16_t vlan, std::uint32_t port) {
    if (vlan != 0) json_number(out, "vlan", vlan);
    if (port != 0) json_string(out, "port", port_name(port));
}

// Type, outcome and time of a message.
void add_event(json_writer &out, const platform::book_entry &entry) {
    const auto outcome = static_cast<relay_outcome>(entry.outcome);
    json_string(out, "time", time_text_utc(entry.time_us));
    json_string(out, "op", entry.op == 1 ? "request" : entry.op == 2 ? "reply" : "");
    json_string(out, "type", entry.type == 0 ? "" : platform::message_type_word(entry.type));
    json_string(out, "outcome", platform::outcome_word(outcome));
    json_string(out, "reason", platform::outcome_text(outcome));
}

void add_option82(json_writer &out, const platform::book_entry &entry) {
    if (!entry.has_option82) return;
    json_open(out, "option82", '{');
    json_string(out, "bytes", hex_text(option82_kept(entry)));
    json_number(out, "length", entry.option82_length);
    if (const auto value = option82_value(entry, 1)) json_string(out, "circuit_id", hex_text(*value));
    if (const auto value = option82_value(entry, 2)) json_string(out, "remote_id", hex_text(*value));
    if (const auto own = read_relay_information(entry)) {
        json_number(out, "vlan", own->vlan);
        json_number(out, "module", own->module);
        json_number(out, "port", own->port);
        json_string(out, "mac", mac_text(own->mac));
    }
    json_close(out, '}');
}

// Of a reply: what it offers or gives, and who gave it.
void add_answer(json_writer &out, const platform::book_entry &entry) {
    constexpr std::uint8_t op_reply = 2;
    if (entry.op != op_reply) return;
    if (entry.address != 0) json_string(out, "address", platform::ipv4_text(entry.address));
    if (entry.server != 0) json_string(out, "server", platform::ipv4_text(entry.server));
}

// The state of a client.
void add_state(json_writer &out, const platform::client_view &client) {
    json_string(out, "state", client_state_word(client));
    json_string(out, "state_text", client_state_text(client));
    if (client.address != 0) json_string(out, "address", platform::ipv4_text(client.address));
    if (client.server != 0) json_string(out, "server", platform::ipv4_text(client.server));
    if (client.unanswered_us >= 0) json_number(out, "unanswered_us", client.unanswered_us);
}

void add_message(json_writer &out, const platform::book_entry &entry, bool row = false) {
    row ? json_open_row(out, "", '{') : json_open(out, "", '{');
    json_number(out, "number", static_cast<std::int64_t>(entry.number));
    add_event(out, entry);
    if (entry.has_message) add_xid(out, entry.xid);
    add_place(out, vlan_of(entry), entry.port_ifindex);
    json_open(out, "servers", '[');
    for (std::size_t i = 0; i < entry.servers_count && i < entry.servers.size(); ++i)
        json_string(out, "", platform::ipv4_text(entry.servers[i]));
    json_close(out, ']');
    json_number(out, "servers_count", entry.servers_count);
    json_bool(out, "rebroadcast", entry.rebroadcast);
    if (entry.answered_us >= 0) json_number(out, "answered_us", entry.answered_us);
    add_answer(out, entry);
    add_option82(out, entry);
    json_close(out, '}');
}

}  // namespace

std::string message_json_line(const platform::book_entry &entry) {
    json_writer out;
    add_message(out, entry, /*row=*/true);
    return out.text;
}

int statistics_json(struct cli * /*cli*/, int /*argc*/, char ** /*argv*/, json_writer &out) {
    const book_snapshot now = take_snapshot();
    json_open(out, "", '{');
    add_total(out, now);
    json_open(out, "vlans", '[');
    for (const counted_place &vlan : now.vlans) add_vlan(out, vlan);
    json_close(out, ']');
    json_open(out, "ports", '[');
    for (const counted_place &port : now.ports) add_port(out, port);
    json_close(out, ']');
    add_all_unsent(out);
    add_transactions(out);
    json_close(out, '}');
    return 0;
}

int statistics_of_vlan_json(struct cli * /*cli*/, int /*argc*/, char **argv, json_writer &out) {
    platform::books_look();
    const auto vlan = static_cast<std::uint16_t>(std::atoi(argv[0]));
    add_vlan(out, {vlan, platform::books_of_vlan(vlan)});
    return 0;
}

int statistics_of_port_json(struct cli *cli, int /*argc*/, char **argv, json_writer &out) {
    const auto port = read_port_name(argv[0]);
    if (!port) return books_refuse(cli, bad_port_line(argv[0]));
    platform::books_look();
    add_port(out, {*port, platform::books_of_port(*port)});
    return 0;
}

int clients_json(struct cli * /*cli*/, int /*argc*/, char ** /*argv*/, json_writer &out) {
    const std::vector<seen_client> clients = seen_clients();
    json_open(out, "", '{');
    json_open(out, "clients", '[');
    for (std::size_t i = 0; i < clients.size() && i < most_clients; ++i) {
        const seen_client &each = clients[i];
        json_open(out, "", '{');
        json_string(out, "client", mac_text(each.client));
        add_place(out, each.vlan, each.port_ifindex);
        if (each.view) add_state(out, *each.view);
        json_number(out, "messages", static_cast<std::int64_t>(each.messages));
        if (each.last.number != 0)
            add_event(out, each.last);
        else
            json_string(out, "time", time_text_utc(each.heard_us));
        json_close(out, '}');
    }
    json_close(out, ']');
    json_number(out, "total", static_cast<std::int64_t>(clients.size()));
    json_close(out, '}');
    return 0;
}

int client_json(struct cli *cli, int /*argc*/, char **argv, json_writer &out) {
    const auto client = read_mac(argv[0]);
    if (!client) return books_refuse(cli, bad_mac_line(argv[0]));
    const std::vector<platform::book_entry> messages = messages_of_client(*client);
    json_open(out, "", '{');
    json_string(out, "client", mac_text(*client));
    if (const auto view = platform::clients_look(*client, platform::wall_clock_us())) {
        add_place(out, view->vlan, view->port_ifindex);
        add_state(out, *view);
    }
    json_open(out, "messages", '[');
    for (std::size_t i = 0; i < messages.size() && i < most_messages; ++i) add_message(out, messages[i]);
    json_close(out, ']');
    json_number(out, "total", static_cast<std::int64_t>(messages.size()));
    json_close(out, '}');
    return 0;
}

}  // namespace ravo::cli

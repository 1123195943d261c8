// SPDX-License-Identifier: Apache-2.0
// What is known of clients is in two places: their table has the state of each, the recorder the last messages of all.
#include "commands/books_clients.h"

#include <algorithm>
#include <map>

#include "base/clock.h"
#include "base/text.h"

namespace ravo::cli {

namespace {

using platform::client_phase;
using platform::client_view;

constexpr std::int64_t second = 1000000;
constexpr std::int64_t in_vain = 3 * second;  // a server that is well answers sooner
constexpr std::uint8_t op_reply = 2;

bool asks_in_vain(const client_view &client) {
    return client.unanswered_us >= in_vain;
}

std::string from_server(const client_view &client, std::string_view word) {
    return client.server == 0 ? "" : " " + std::string(word) + " " + platform::ipv4_text(client.server);
}

std::string seconds_in_vain(const client_view &client) {
    return std::to_string(client.unanswered_us / second) + " s";
}

std::string place_text(const client_view &client) {
    std::string out = client.vlan == 0 ? "" : " in VLAN " + std::to_string(client.vlan);
    if (client.port_ifindex != 0) out += " on port " + port_name(client.port_ifindex);
    return out;
}

void add_recorded(std::vector<seen_client> &out, std::map<hardware_address, std::size_t> &places) {
    platform::books_each_recorded([&](const platform::book_entry &entry) {
        if (!entry.has_message) return;
        const auto [found, is_new] = places.try_emplace(entry.client, out.size());
        if (is_new) {
            out.emplace_back().client = entry.client;
            out.back().heard_us = entry.time_us;
        }
        seen_client &client = out[found->second];
        if (client.last.number == 0) {
            client.last = entry;
            client.heard_us = std::max(client.heard_us, entry.time_us);
        }
        ++client.messages;
        if (entry.op == op_reply || client.vlan != 0 || client.port_ifindex != 0) return;
        client.vlan = vlan_of(entry);
        client.port_ifindex = entry.port_ifindex;
    });
}

}  // namespace

std::vector<seen_client> seen_clients() {
    std::vector<seen_client> out;
    std::map<hardware_address, std::size_t> places;
    for (const client_view &view : platform::clients_all(platform::wall_clock_us())) {
        places.emplace(view.client, out.size());
        seen_client &client = out.emplace_back();
        client.client = view.client;
        client.view = view;
        client.vlan = view.vlan;
        client.port_ifindex = view.port_ifindex;
        client.heard_us = view.heard_us;
    }
    add_recorded(out, places);
    std::stable_sort(out.begin(), out.end(),
                     [](const seen_client &a, const seen_client &b) { return a.heard_us > b.heard_us; });
    return out;
}

std::vector<platform::book_entry> messages_of_client(const hardware_address &client) {
    std::vector<platform::book_entry> out;
    platform::books_each_recorded([&](const platform::book_entry &entry) {
        if (entry.client == client) out.push_back(entry);
    });
    return out;
}

std::string_view client_state_word(const client_view &client) {
    if (asks_in_vain(client)) return "no-answer";
    switch (client.phase) {
        case client_phase::asking:
            return "asking";
        case client_phase::offered:
            return "offered";
        case client_phase::bound:
            return "bound";
        case client_phase::informed:
            return "informed";
        case client_phase::refused:
            return "refused";
        case client_phase::released:
            return "released";
        case client_phase::declined:
            return "declined";
    }
    return "asking";
}

std::string client_state_text(const client_view &client) {
    if (asks_in_vain(client)) return "no answer for " + seconds_in_vain(client);
    const std::string address = client.address == 0 ? "" : " " + platform::ipv4_text(client.address);
    switch (client.phase) {
        case client_phase::asking:
            return "asking";
        case client_phase::offered:
            return "offered" + address + from_server(client, "by");
        case client_phase::bound:
            return "has" + address + from_server(client, "from");
        case client_phase::informed:
            return "informed" + from_server(client, "by");
        case client_phase::refused:
            return "refused" + from_server(client, "by");
        case client_phase::released:
            return "released" + address;
        case client_phase::declined:
            return "declined" + address;
    }
    return {};
}

std::string client_sentence(const client_view &client) {
    const std::string who = "Client " + mac_text(client.client) + place_text(client);
    if (asks_in_vain(client)) return who + " has had no answer for " + seconds_in_vain(client) + ".";
    switch (client.phase) {
        case client_phase::asking:
            return who + " is asking, and waits for an answer.";
        case client_phase::offered:
        case client_phase::informed:
        case client_phase::refused:
            return who + " was " + client_state_text(client) + ".";
        case client_phase::bound:
        case client_phase::released:
        case client_phase::declined:
            break;
    }
    return who + " " + client_state_text(client) + ".";
}

std::string age_text(std::int64_t microseconds) {
    constexpr std::int64_t minute = 60, hour = 60 * minute, day = 24 * hour;
    const std::int64_t seconds = std::max<std::int64_t>(microseconds / second, 0);
    if (seconds < minute) return std::to_string(seconds) + "s";
    if (seconds < hour) return std::to_string(seconds / minute) + "m";
    if (seconds < day) return std::to_string(seconds / hour) + "h";
    return std::to_string(seconds / day) + "d";
}

}  // namespace ravo::cli

// SPDX-License-Identifier: Apache-2.0
// The clients' table.
//
// A client's hardware address chooses a row of four places, so that nothing is searched or made for a message; a place
// is one cache line. In a row that is full the client unheard of for the longest goes. A client may use one transaction
// id from DISCOVER to ACK or a new one for each message, and a second server's answer comes late: so the two last
// transactions that were answered are remembered.
#include "books/client_book.h"

#include <algorithm>
#include <cstring>

namespace ravo::platform {

namespace {

// RFC 2132 section 9.6.
constexpr std::uint8_t type_discover = 1;
constexpr std::uint8_t type_offer = 2;
constexpr std::uint8_t type_decline = 4;
constexpr std::uint8_t type_ack = 5;
constexpr std::uint8_t type_nak = 6;
constexpr std::uint8_t type_release = 7;

constexpr std::size_t rows = 4096;  // a power of two
constexpr std::size_t places = 4;   // of a row
constexpr std::int64_t second = 1000000;
constexpr std::int64_t answered_for = 300 * second;  // as long as the relay remembers a transaction
constexpr std::int64_t tick = second / 100;          // of the times that need no microseconds

// Times in ticks fit 32 bits for more than a year from the first message on.
struct alignas(64) client_line {
    std::int64_t asked_us = 0;       // last request; 0: an empty line
    std::int64_t discover_us = 0;    // last DISCOVER, 0: none
    std::uint32_t xid = 0;           // of the last request
    std::uint32_t discover_xid = 0;  // of the last DISCOVER
    std::array<std::uint32_t, 2> answered_xid{};
    std::array<std::uint32_t, 2> answered_ticks{};  // 0: none
    std::uint32_t unanswered_ticks = 0;             // first request behind the last answer, 0: none
    std::uint32_t address = 0;
    std::uint32_t server = 0;
    client_address client{};
    std::uint16_t vlan = 0;
    std::uint16_t port = 0;  // the numbers of ports fit
    client_phase phase = client_phase::asking;
};
static_assert(sizeof(client_line) == 64);

std::array<client_line, rows * places> table;
std::int64_t first_us = 0;  // what ticks are counted from

std::uint32_t ticks_of(std::int64_t time_us) {
    if (first_us == 0) first_us = time_us - tick;
    return static_cast<std::uint32_t>(std::max<std::int64_t>((time_us - first_us) / tick, 1));
}

std::int64_t time_of(std::uint32_t ticks) {
    return first_us + ticks * tick;
}

// A client's address as one number.
std::uint64_t number_of(const client_address &client) {
    std::uint32_t head;
    std::uint16_t tail;
    std::memcpy(&head, client.data(), sizeof head);
    std::memcpy(&tail, client.data() + sizeof head, sizeof tail);
    return std::uint64_t{tail} << 32 | head;
}

client_line *row_of(const client_address &client) {
    const std::uint64_t hash = number_of(client) * 0x9E3779B97F4A7C15U;
    return &table[(hash >> 40 & (rows - 1)) * places];
}

client_line *find(const client_address &client) {
    client_line *const row = row_of(client);
    for (client_line *line = row; line != row + places; ++line)
        if (number_of(line->client) == number_of(client) && line->asked_us != 0) return line;
    return nullptr;
}

client_line &enter(const client_address &client) {
    if (client_line *known = find(client)) return *known;
    client_line *const row = row_of(client);
    client_line &line = *std::min_element(
        row, row + places, [](const client_line &a, const client_line &b) { return a.asked_us < b.asked_us; });
    line = {};
    line.client = client;
    return line;
}

bool is_recent(std::uint32_t ticks, std::int64_t now_us) {
    const std::int64_t age = now_us - time_of(ticks);
    return ticks != 0 && age <= answered_for && age >= -answered_for;
}

bool was_answered(const client_line &line, std::uint32_t xid, std::int64_t now_us) {
    for (std::size_t i = 0; i < line.answered_xid.size(); ++i)
        if (line.answered_xid[i] == xid && is_recent(line.answered_ticks[i], now_us)) return true;
    return false;
}

void note_answered(client_line &line, std::uint32_t xid, std::int64_t time_us) {
    if (line.answered_xid[0] != xid || line.answered_ticks[0] == 0) {
        line.answered_xid[1] = line.answered_xid[0];
        line.answered_ticks[1] = line.answered_ticks[0];
    }
    line.answered_xid[0] = xid;
    line.answered_ticks[0] = ticks_of(time_us);
    line.unanswered_ticks = 0;
}

client_view view_of(const client_line &line, std::int64_t now_us) {
    client_view out;
    out.client = line.client;
    out.phase = line.phase;
    out.vlan = line.vlan;
    out.port_ifindex = line.port;
    out.address = line.address;
    out.server = line.server;
    out.heard_us = line.asked_us;
    if (line.unanswered_ticks != 0)
        out.unanswered_us = std::max<std::int64_t>(now_us - time_of(line.unanswered_ticks), 0);
    return out;
}

}  // namespace

void clients_expect(const client_address &client) {
    const client_line *const row = row_of(client);
    for (const client_line *line = row; line != row + places; ++line) __builtin_prefetch(line, /*rw=*/1);
}

void clients_note_request(const client_request &request) {
    client_line &line = enter(request.client);
    line.asked_us = request.time_us;
    line.xid = request.xid;
    line.vlan = request.vlan;
    line.port = static_cast<std::uint16_t>(request.port_ifindex);
    if (request.type == type_discover) {
        line.discover_us = request.time_us;
        line.discover_xid = request.xid;
    }
    if (request.type == type_release || request.type == type_decline) {
        line.phase = request.type == type_release ? client_phase::released : client_phase::declined;
        line.unanswered_ticks = 0;  // neither is answered
        return;
    }
    line.phase = client_phase::asking;
    if (line.unanswered_ticks == 0) line.unanswered_ticks = ticks_of(request.time_us);
}

std::optional<answered_request> clients_find_request(const client_address &client, std::uint32_t xid, std::uint8_t type,
                                                     std::int64_t time_us) {
    const client_line *line = find(client);
    if (line == nullptr) return std::nullopt;
    answered_request out{line->vlan, -1, was_answered(*line, xid, time_us)};
    // An offer answers the DISCOVER, also when the client has gone on to its REQUEST.
    if (type == type_offer && line->discover_us != 0 && line->discover_xid == xid)
        out.waited_us = time_us - line->discover_us;
    else if (line->xid == xid)
        out.waited_us = time_us - line->asked_us;
    return out;
}

void clients_note_delivered(const client_reply &reply) {
    client_line *line = find(reply.client);
    if (line == nullptr) return;
    const bool current = line->xid == reply.xid;
    note_answered(*line, reply.xid, reply.time_us);
    // What another server says later changes nothing for a client that has its address.
    if (line->phase == client_phase::bound && reply.type != type_ack) return;
    if (reply.type == type_offer && (line->phase == client_phase::asking || line->phase == client_phase::offered))
        line->phase = client_phase::offered;
    else if (reply.type == type_ack && current)
        line->phase = reply.address != 0 ? client_phase::bound : client_phase::informed;
    else if (reply.type == type_nak && current)
        line->phase = client_phase::refused;
    else
        return;
    line->address = reply.type == type_nak ? 0 : reply.address;
    line->server = reply.server;
}

std::optional<client_view> clients_look(const client_address &client, std::int64_t now_us) {
    const client_line *line = find(client);
    if (line == nullptr) return std::nullopt;
    return view_of(*line, now_us);
}

std::vector<client_view> clients_all(std::int64_t now_us) {
    std::vector<client_view> out;
    for (const client_line &line : table)
        if (line.asked_us != 0) out.push_back(view_of(line, now_us));
    std::sort(out.begin(), out.end(),
              [](const client_view &a, const client_view &b) { return a.heard_us > b.heard_us; });
    return out;
}

void clients_forget() {
    table.fill({});
}

void clients_forget(const client_address &client) {
    if (client_line *line = find(client)) *line = {};
}

}  // namespace ravo::platform

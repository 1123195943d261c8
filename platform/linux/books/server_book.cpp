// SPDX-License-Identifier: Apache-2.0
// The servers' figures: a short chain a VLAN, searched from its beginning, through a table of fixed size. Memory that
// no server needs is never touched.
#include "books/server_book.h"

#include <algorithm>
#include <bit>
#include <cmath>

namespace ravo::platform {

namespace {

constexpr std::size_t vlans = 4096;
constexpr std::size_t most_servers = 32;   // of a VLAN: twelve at a time, and some that are not configured any more
constexpr std::size_t most_lines = 16384;  // four for each VLAN there can be
constexpr std::int64_t silent_after = 5 * 1000000;
constexpr unsigned first_octave = 5;  // 32 us
constexpr unsigned quarters = 4;

// All lines that there are, and for each VLAN a chain through its own, by number from 1 on; 0 ends it.
struct server_line {
    server_figures figures;
    std::uint16_t next = 0;
};
std::array<server_line, most_lines> lines;
std::array<std::uint16_t, vlans> first_of_vlan{};
std::uint16_t lines_used = 0;

// The lines of a VLAN, for a loop.
struct chain {
    struct step {
        std::uint16_t at;
        server_figures &operator*() const { return lines[at - 1].figures; }
        step &operator++() {
            at = lines[at - 1].next;
            return *this;
        }
        bool operator!=(const step &other) const { return at != other.at; }
    };
    std::uint16_t vlan;
    [[nodiscard]] step begin() const { return {first_of_vlan[vlan % vlans]}; }
    [[nodiscard]] static step end() { return {0}; }
};

server_figures *find(std::uint16_t vlan, std::uint32_t server) {
    for (server_figures &each : chain{vlan})
        if (each.server == server) return &each;
    return nullptr;
}

// Behind the VLAN's other lines. Null when there is none left.
server_figures *add_line(std::uint16_t vlan) {
    if (lines_used == most_lines) return nullptr;
    std::uint16_t *link = &first_of_vlan[vlan % vlans];
    while (*link != 0) link = &lines[*link - 1].next;
    *link = ++lines_used;
    lines[lines_used - 1] = {};
    return &lines[lines_used - 1].figures;
}

// The line of a server that was asked the longest ago, where a VLAN has many; else null.
server_figures *oldest_of_many(std::uint16_t vlan) {
    server_figures *oldest = nullptr;
    std::size_t count = 0;
    for (server_figures &each : chain{vlan}) {
        ++count;
        if (oldest == nullptr || each.last_asked_us < oldest->last_asked_us) oldest = &each;
    }
    return count >= most_servers ? oldest : nullptr;
}

server_figures *enter(std::uint16_t vlan, std::uint32_t server) {
    if (server_figures *known = find(vlan, server)) return known;
    server_figures *made = oldest_of_many(vlan);
    if (made == nullptr) made = add_line(vlan);
    if (made == nullptr) return nullptr;  // it goes uncounted
    *made = {};
    made->vlan = vlan;
    made->server = server;
    return made;
}

bool is_called(const server_figures &server, std::uint32_t address) {
    return server.server == address || server.identifier == address;
}

// Whether the client has chosen another of the servers.
bool is_for_another(std::uint16_t vlan, const server_figures &server, std::uint32_t chosen) {
    if (chosen == 0 || is_called(server, chosen)) return false;
    for (const server_figures &each : chain{vlan})
        if (is_called(each, chosen)) return true;
    return false;
}

std::size_t bucket_of(std::int64_t waited_us) {
    if (waited_us < 1 << first_octave) return 0;
    const auto time = static_cast<std::uint64_t>(waited_us);
    const auto octave = static_cast<unsigned>(std::bit_width(time)) - 1;
    const auto quarter = static_cast<unsigned>(time >> (octave - 2)) & (quarters - 1);
    return std::min<std::size_t>((octave - first_octave) * quarters + quarter, answer_buckets - 1);
}

std::int64_t bucket_begin(std::size_t bucket) {
    const std::size_t octave = bucket / quarters + first_octave;
    return (std::int64_t{1} << octave) +
           static_cast<std::int64_t>(bucket % quarters) * (std::int64_t{1} << (octave - 2));
}

}  // namespace

void servers_note_asked(std::uint16_t vlan, std::uint32_t server, std::uint32_t chosen, std::int64_t time_us) {
    server_figures *figures = enter(vlan, server);
    if (figures == nullptr || is_for_another(vlan, *figures, chosen)) return;
    ++figures->asked;
    ++figures->unanswered;
    figures->last_asked_us = time_us;
    if (figures->unanswered_us == 0) figures->unanswered_us = time_us;
}

std::uint32_t servers_who(std::uint16_t vlan, std::uint32_t source, std::uint32_t identifier) {
    const server_figures *named = nullptr;
    for (const server_figures &each : chain{vlan}) {
        if (each.server == source) return source;
        if (identifier != 0 && is_called(each, identifier)) named = &each;
    }
    return named != nullptr ? named->server : source;
}

void servers_note_answered(std::uint16_t vlan, std::uint32_t server, std::uint32_t identifier, std::int64_t waited_us) {
    server_figures *figures = find(vlan, server);
    if (figures == nullptr) return;
    ++figures->answered;
    figures->unanswered = 0;
    figures->unanswered_us = 0;
    if (identifier != 0) figures->identifier = identifier;
    if (waited_us < 0) return;
    ++figures->times[bucket_of(waited_us)];
    figures->time_sum_us += static_cast<std::uint64_t>(waited_us);
}

std::vector<server_figures> servers_all() {
    std::vector<server_figures> out;
    for (std::uint16_t vlan = 0; vlan < vlans; ++vlan)
        for (const server_figures &each : chain{vlan}) out.push_back(each);
    return out;
}

void servers_clear() {
    first_of_vlan.fill(0);
    lines_used = 0;
}

std::int64_t bucket_end(std::size_t bucket) {
    return bucket_begin(bucket + 1);
}

std::optional<std::int64_t> answer_time(const server_figures &of, double part) {
    std::uint64_t answers = 0;
    for (const std::uint32_t count : of.times) answers += count;
    if (answers == 0) return std::nullopt;
    const auto wanted =
        std::max<std::uint64_t>(static_cast<std::uint64_t>(std::ceil(part * static_cast<double>(answers))), 1);
    std::uint64_t before = 0;
    for (std::size_t bucket = 0; bucket < of.times.size(); ++bucket) {
        const std::uint64_t count = of.times[bucket];
        if (before + count >= wanted) {
            // Within a bucket the times are taken as spread evenly.
            const std::int64_t begin = bucket == 0 ? 0 : bucket_begin(bucket);
            const double share = (static_cast<double>(wanted - before) - 0.5) / static_cast<double>(count);
            return begin + static_cast<std::int64_t>(share * static_cast<double>(bucket_end(bucket) - begin));
        }
        before += count;
    }
    return std::nullopt;
}

std::optional<std::int64_t> silent_seconds(const server_figures &of, std::int64_t now_us) {
    if (of.unanswered_us == 0 || now_us - of.unanswered_us < silent_after) return std::nullopt;
    return (now_us - of.unanswered_us) / 1000000;
}

}  // namespace ravo::platform

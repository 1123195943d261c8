// SPDX-License-Identifier: Apache-2.0
// The servers: how often each was asked for an interface, how often it answered, and how fast.
#ifndef PLATFORM_LINUX_BOOKS_SERVER_BOOK_H
#define PLATFORM_LINUX_BOOKS_SERVER_BOOK_H

#include <array>
#include <cstdint>
#include <optional>
#include <vector>

namespace ravo::platform {

// Answer times are counted in buckets, each a quarter of an octave: 32 us, 40, 48, 56, 64, 80, ...
inline constexpr std::size_t answer_buckets = 84;

struct server_figures {
    std::uint16_t vlan = 0;
    std::uint32_t server = 0;        // network byte order
    std::uint32_t identifier = 0;    // what it calls itself in option 54, 0: not known
    std::uint64_t asked = 0;         // requests sent to it that it should answer
    std::uint64_t answered = 0;      // its answers
    std::int64_t unanswered_us = 0;  // first request behind its last answer, microseconds since 1970; 0: none
    std::int64_t last_asked_us = 0;
    std::uint64_t unanswered = 0;  // requests since then
    std::uint64_t time_sum_us = 0;
    std::array<std::uint32_t, answer_buckets> times{};
};

// A request was sent to a server of a VLAN's interface. chosen: the server that its option 54 names, 0: none. What a
// client sends to the server it has chosen, the others need not answer.
void servers_note_asked(std::uint16_t vlan, std::uint32_t server, std::uint32_t chosen, std::int64_t time_us);

// Which of the servers of a VLAN's interface a reply is from. source: of its packet; identifier: of its option 54, 0:
// none. The source when it is none of them.
std::uint32_t servers_who(std::uint16_t vlan, std::uint32_t source, std::uint32_t identifier);

// A server answered. waited_us: since the request, -1: not known.
void servers_note_answered(std::uint16_t vlan, std::uint32_t server, std::uint32_t identifier, std::int64_t waited_us);

// All servers that were asked, by VLAN, in the order in which they were asked first.
std::vector<server_figures> servers_all();
void servers_clear();

// The answer time that a part of the answers (0 to 1) was not slower than, in microseconds; none without answers.
std::optional<std::int64_t> answer_time(const server_figures &of, double part);
// Since how many seconds a server is silent: none when it answered its last request, or was asked less than 5 s ago.
std::optional<std::int64_t> silent_seconds(const server_figures &of, std::int64_t now_us);
// The least time, in microseconds, that does not fit a bucket any more.
std::int64_t bucket_end(std::size_t bucket);

}  // namespace ravo::platform

#endif

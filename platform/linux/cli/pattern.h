// SPDX-License-Identifier: Apache-2.0
// Patterns of output filters, matched against lines in bounded time and memory.
//
// They are POSIX extended regular expressions over bytes, with the usual escapes of GNU ("\w", "\W", "\s", "\S", "\b",
// "\B", "\<", "\>", "\`", "\'"), without back-references and repetition counts. A pattern of n characters takes a few
// kilobytes, and for each character of a line at most n steps; with anchors or edges of words, n for each of these.
#ifndef PLATFORM_LINUX_CLI_PATTERN_H
#define PLATFORM_LINUX_CLI_PATTERN_H

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "fault.h"

namespace ravo::cli {

// Most characters of a pattern, and so the most places in it that take a character of a line.
inline constexpr std::size_t pattern_limit = 128;

// A set of a pattern's places.
struct place_set {
    std::array<std::uint64_t, pattern_limit / 64> words{};

    void add(std::size_t place) { words[place / 64] |= std::uint64_t{1} << (place % 64); }
    place_set &operator|=(const place_set &other);
    place_set operator&(const place_set &other) const;
    [[nodiscard]] bool any() const;
    bool operator==(const place_set &) const = default;
};

// What a place asks of the gap between two characters instead of taking one.
enum class gap_kind { line_begin, line_end, word_begin, word_end, word_edge, no_word_edge };
inline constexpr std::size_t gap_kinds = 6;

struct pattern {
    std::array<place_set, pattern_limit> follow;  // by place: which may come behind it
    std::array<place_set, 256> takes;             // by character: which take it
    std::array<place_set, gap_kinds> holds;       // by kind of gap: which ask for it
    place_set first;                              // which may come first
    place_set last;                               // which may come last
    bool empty = false;                           // it matches where nothing is
};

// Reads a pattern. The fault says what is wrong with a text that is none; *out is null then.
fault pattern_read(std::string_view text, std::unique_ptr<pattern> *out);

// Tells whether a part of the line matches.
[[nodiscard]] bool pattern_matches(const pattern &what, std::string_view line);

}  // namespace ravo::cli

#endif

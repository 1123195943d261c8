// SPDX-License-Identifier: Apache-2.0
// Lines that repeat: the first ten of ten seconds are written, the rest is counted and reported once a minute.
#ifndef PLATFORM_LINUX_LOG_LOG_HOLD_H
#define PLATFORM_LINUX_LOG_LOG_HOLD_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace ravo::platform {

// Lines of one place about one thing.
struct held_place {
    std::uint64_t key = 0;      // 0: not used
    std::int64_t begun_ms = 0;  // of the ten seconds, or since when lines are counted for the next report
    std::int64_t used_ms = 0;   // last line
    std::uint32_t count = 0;    // lines written in the ten seconds
    std::uint64_t held = 0;     // lines since the last report
    bool holding = false;
    int level = 0;
    std::uint16_t length = 0;
    std::array<char, 200> text{};  // the beginning of the first line that was held back
};

struct log_hold {
    static constexpr std::uint32_t lines = 10;
    static constexpr std::int64_t window_ms = 10000;
    static constexpr std::int64_t report_ms = 60000;
    static constexpr std::size_t sets = 64;  // a key has its places in one of them
    static constexpr std::size_t ways = 4;
    std::array<std::array<held_place, ways>, sets> all{};
    std::size_t holding = 0;  // places that hold lines back
};

enum class hold_verdict {
    write,
    hold_first,  // it is the first that is held back: log_hold_like is to get its text
    hold,
};

// Judges a line before it is formatted. key: of its place and what it is about, not 0; now_ms: a clock that does not
// jump. A line that finds no place, because others hold there, is written. Does not allocate.
hold_verdict log_hold_judge(log_hold &hold, std::uint64_t key, std::int64_t now_ms);
void log_hold_like(log_hold &hold, std::uint64_t key, int level, std::string_view line);

// A report of lines that were held back.
struct held_report {
    std::uint64_t lines;
    std::int64_t seconds;
    int level;
    std::string_view like;  // the beginning of one of them
};

// The next report that is due; all: whatever has been held back is due. Returns false when there is none. What does not
// repeat any more is written again from then on. report->like is valid until the next call.
bool log_hold_due(log_hold &hold, bool all, std::int64_t now_ms, held_report *report);

// Milliseconds until the next report is due; negative when nothing is held back.
std::int64_t log_hold_wait(const log_hold &hold, std::int64_t now_ms);

}  // namespace ravo::platform

#endif

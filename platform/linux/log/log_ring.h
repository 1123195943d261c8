// SPDX-License-Identifier: Apache-2.0
// The last lines of the log in fixed memory.
#ifndef PLATFORM_LINUX_LOG_LOG_RING_H
#define PLATFORM_LINUX_LOG_LOG_RING_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string>
#include <string_view>
#include <vector>

namespace ravo::platform {

// A line is stored without allocation, so that it can be kept from a crash handler as well. The oldest lines make room.
struct log_ring {
    static constexpr std::size_t max_lines = 1000;
    static constexpr std::size_t text_room = 256 * 1024;
    struct kept_line {
        std::timespec when;
        std::uint32_t offset;  // of the first byte in text
        std::uint32_t length;
    };
    std::array<char, text_room> text;
    std::array<kept_line, max_lines> lines;
    std::size_t oldest = 0;         // position in lines
    std::size_t count = 0;          // lines kept
    std::uint32_t next_offset = 0;  // where the next line's text goes
};

// Keeps a line. A line longer than a quarter of the room is cut.
void log_ring_keep(log_ring &ring, std::string_view line, const std::timespec &when);
void log_ring_clear(log_ring &ring);

// The lines, oldest first, each as "YYYY-MM-DD HH:MM:SS.mmm text" in local time.
std::vector<std::string> log_ring_lines(const log_ring &ring);

// Writes "YYYY-MM-DD HH:MM:SS.mmm " in local time, NUL-terminated. Returns the length without the NUL.
inline constexpr std::size_t log_stamp_size = 32;
std::size_t log_stamp(const std::timespec &when, char (&buffer)[log_stamp_size]);

}  // namespace ravo::platform

#endif

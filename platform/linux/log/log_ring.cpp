// SPDX-License-Identifier: Apache-2.0
// Lines lie one behind the other in one block of bytes, each whole; where the block ends the next line starts again at
// its beginning. The lines whose bytes are about to be overwritten are forgotten first, oldest first.
#include "log/log_ring.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace ravo::platform {

namespace {

// An empty line takes a byte all the same: every kept line then has a place of its own.
std::uint32_t room_of(std::size_t length) {
    return static_cast<std::uint32_t>(std::max<std::size_t>(length, 1));
}

bool overlaps(const log_ring::kept_line &line, std::uint32_t offset, std::uint32_t length) {
    return line.offset < offset + length && offset < line.offset + room_of(line.length);
}

void forget_oldest(log_ring &ring) {
    ring.oldest = (ring.oldest + 1) % log_ring::max_lines;
    --ring.count;
}

// Lines are laid down in order of age, so the ones in the way are the oldest; those that lie between the end of the
// newest line and the end of the block are older than the ones at its beginning and go with them.
void make_room(log_ring &ring, std::uint32_t offset, std::uint32_t length, bool wrapped) {
    if (ring.count == log_ring::max_lines) forget_oldest(ring);
    while (wrapped && ring.count != 0 && ring.lines[ring.oldest].offset >= ring.next_offset) forget_oldest(ring);
    while (ring.count != 0 && overlaps(ring.lines[ring.oldest], offset, length)) forget_oldest(ring);
}

}  // namespace

void log_ring_keep(log_ring &ring, std::string_view line, const std::timespec &when) {
    line = line.substr(0, log_ring::text_room / 4);
    const std::uint32_t length = room_of(line.size());
    const bool wrapped = ring.next_offset + length > log_ring::text_room;
    const std::uint32_t offset = wrapped ? 0 : ring.next_offset;
    make_room(ring, offset, length, wrapped);
    std::memcpy(ring.text.data() + offset, line.data(), line.size());
    ring.lines[(ring.oldest + ring.count) % log_ring::max_lines] = {when, offset,
                                                                    static_cast<std::uint32_t>(line.size())};
    ++ring.count;
    ring.next_offset = offset + length;
}

void log_ring_clear(log_ring &ring) {
    ring.oldest = 0;
    ring.count = 0;
    ring.next_offset = 0;
}

std::vector<std::string> log_ring_lines(const log_ring &ring) {
    std::vector<std::string> out;
    out.reserve(ring.count);
    for (std::size_t i = 0; i < ring.count; ++i) {
        const log_ring::kept_line &line = ring.lines[(ring.oldest + i) % log_ring::max_lines];
        char stamp[log_stamp_size];
        std::string text(stamp, log_stamp(line.when, stamp));
        text.append(ring.text.data() + line.offset, line.length);
        out.push_back(std::move(text));
    }
    return out;
}

std::size_t log_stamp(const std::timespec &when, char (&buffer)[log_stamp_size]) {
    std::tm local{};
    localtime_r(&when.tv_sec, &local);
    const std::size_t date = std::strftime(buffer, sizeof(buffer), "%Y-%m-%d %H:%M:%S", &local);
    const int rest = std::snprintf(buffer + date, sizeof(buffer) - date, ".%03u ",
                                   static_cast<unsigned>(when.tv_nsec / 1000000) % 1000U);
    return date + static_cast<std::size_t>(rest);
}

}  // namespace ravo::platform

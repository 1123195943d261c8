// SPDX-License-Identifier: Apache-2.0
// The crash book: the messages that daemons had in hand when they died, one capture each in the state folder, and a
// line each in the file "crashes" beside them, so that later starts know of them too.
#ifndef PLATFORM_LINUX_BOOKS_CRASH_BOOK_H
#define PLATFORM_LINUX_BOOKS_CRASH_BOOK_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "books/black_box.h"
#include "fault.h"

namespace ravo::platform {

inline constexpr std::size_t crash_book_size = 16;  // crashes and captures: the newest are kept

struct kept_crash {
    std::int64_t time_us = 0;              // of the message, microseconds since 1970
    std::uint32_t port_ifindex = 0;        // 0: it came in on none
    std::uint16_t vlan = 0;                // 0: on none
    std::array<std::uint8_t, 6> client{};  // hardware address
    std::uint32_t cause = 0;               // as in black_box.h
    unsigned held_seconds = 0;             // its port was held for
    std::string capture;                   // the file's name in the folder; empty: it could not be written
};

// Reads what an earlier daemon wrote. folder: where it is kept, empty: nowhere, so that the book begins empty. A line
// that is none of ours is passed over. The fault, if any: why not all of it is known.
fault crash_book_open(const std::string &folder);

// Keeps the message of a crash as a capture, removes the oldest captures beyond those that are kept, and enters it.
// Returns the capture's path, or why there is none.
[[nodiscard]] std::string crash_book_enter(const black_box_crash &crash);

// The crashes in the book, newest first, and the folder of their captures.
const std::vector<kept_crash> &crash_book_all();
const std::string &crash_book_folder();

// Forgets all crashes and removes their captures. The fault, if any: why some are still there.
fault crash_book_clear();

}  // namespace ravo::platform

#endif

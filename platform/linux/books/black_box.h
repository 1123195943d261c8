// SPDX-License-Identifier: Apache-2.0
// The black box: what outlasts a daemon that dies in the middle of a message.
//
// The message in hand is noted in a small mapped file, without a system call. Who dies with it leaves it there, and the
// next start finds it: it is kept as a capture, and its port is held, so that whoever sends it again and again ends the
// daemon once and not always. The file belongs into a folder that a boot empties.
#ifndef PLATFORM_LINUX_BOOKS_BLACK_BOX_H
#define PLATFORM_LINUX_BOOKS_BLACK_BOX_H

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "books/books.h"

namespace ravo::platform {

inline constexpr std::size_t black_box_captures = 16;      // the newest are kept
inline constexpr unsigned black_box_first_hold = 10;       // seconds, doubled each time
inline constexpr unsigned black_box_longest_hold = 600;    // seconds; a port that behaves for so long begins anew
inline constexpr std::size_t black_box_frame_size = 4096;  // of a longer frame the first bytes
inline constexpr std::size_t black_box_ports = 64;         // of which is known how often they ended the daemon

// The message that ended a daemon.
struct black_box_crash {
    bool happened = false;
    book_entry entry{};                 // its time, client, VLAN, port and tag
    std::vector<std::uint8_t> frame{};  // as received, without the tag
    unsigned held_seconds = 0;          // its port is held for, 0: it came in on none
};

// Opens the box, and takes out what the daemon before left in it. path: the file, made when it is missing. Returns an
// empty string, or one line that says why nothing is noted.
[[nodiscard]] std::string black_box_open(const std::string &path, black_box_crash *crash);
void black_box_close();

// Notes the message in hand, and that it is done with.
void black_box_note(const book_entry &entry, std::span<const std::uint8_t> frame);
void black_box_clear();

// Whether what comes in on a port is dropped for now.
[[nodiscard]] bool black_box_holds(std::uint32_t port_ifindex);

// Keeps the message of a crash as a capture in a folder, and removes the oldest captures of crashes there beyond those
// that are kept. folder: empty when nothing is kept. Returns the file's path, or why there is none.
[[nodiscard]] std::string black_box_keep(const black_box_crash &crash, const std::string &folder);

// Whose message it was: "client 02:00:00:00:00:01 on VLAN 10, port 1/3, held for 10 s".
[[nodiscard]] std::string black_box_text(const black_box_crash &crash);

}  // namespace ravo::platform

#endif

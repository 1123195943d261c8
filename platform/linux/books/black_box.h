// SPDX-License-Identifier: Apache-2.0
// The black box: what outlasts a daemon that dies in the middle of a message.
//
// The message in hand is noted in a small mapped file, without a system call. Who dies with it leaves it there, and the
// next start finds it: it is kept as a capture (crash_book.h), and its port is held, so that whoever sends it again and
// again ends the daemon once and not always. A death that nothing in the daemon explains, such as kill -9, says nothing
// against the message that was in hand by chance: it holds no port. The file belongs into a folder that a boot empties.
#ifndef PLATFORM_LINUX_BOOKS_BLACK_BOX_H
#define PLATFORM_LINUX_BOOKS_BLACK_BOX_H

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "books/books.h"
#include "fault.h"

namespace ravo::platform {

inline constexpr unsigned black_box_first_hold = 10;       // seconds, doubled each time
inline constexpr unsigned black_box_longest_hold = 600;    // seconds; a port that behaves for so long begins anew
inline constexpr std::size_t black_box_frame_size = 4096;  // of a longer frame the first bytes
inline constexpr std::size_t black_box_ports = 64;         // of which is known how often they ended the daemon

// What ended a daemon beside the numbers of signals: it was ended from outside (kill -9, no memory, no power), or it
// ended itself (exit).
inline constexpr std::uint32_t black_box_unexplained = 0;
inline constexpr std::uint32_t black_box_exit = 256;

// The message that a daemon had in hand when it died.
struct black_box_crash {
    bool happened = false;
    std::uint32_t cause = black_box_unexplained;
    book_entry entry{};                 // its time, client, VLAN, port and tag
    std::vector<std::uint8_t> frame{};  // as received, without the tag
    unsigned held_seconds = 0;          // its port is held for, 0: it came in on none, or did not end the daemon
};

// Opens the box, and takes out what the daemon before left in it. path: the file, made when it is missing. The fault,
// if any: one line that says why nothing is noted.
fault black_box_open(const std::string &path, black_box_crash *crash);
void black_box_close();

// Notes the message in hand, and that it is done with.
void black_box_note(const book_entry &entry, std::span<const std::uint8_t> frame);
void black_box_clear();

// Notes what ends the daemon, should it have a message in hand. For handlers of signals: it does nothing but write to
// memory. signal: its number, 0: the daemon exits.
void black_box_died(int signal);

// What ended a daemon, for a person: "SIGABRT", "exit", "unknown".
[[nodiscard]] std::string black_box_cause(std::uint32_t cause);

// Whether what comes in on a port is dropped for now, and for how many seconds more. Lifts all holds.
[[nodiscard]] bool black_box_holds(std::uint32_t port_ifindex);
[[nodiscard]] unsigned black_box_seconds_left(std::uint32_t port_ifindex);
void black_box_release();

// Whose message it was: "client 02:00:00:00:00:01 on VLAN 10, port 1/3, held for 10 s".
[[nodiscard]] std::string black_box_text(const black_box_crash &crash);

}  // namespace ravo::platform

#endif

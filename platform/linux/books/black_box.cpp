// SPDX-License-Identifier: Apache-2.0
// What is in the file is written by this program alone, and read by it after it died in the middle of something: every
// number is judged before it is used. The length is written last and taken away first, so that a frame is there whole
// or not at all. Times are those of a clock that restarts do not change and that goes on while the machine sleeps.
#include "books/black_box.h"

#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>

#include "base/hardware_address.h"
#include "base/mapped_file.h"
#include "base/mapping.h"
#include "port_number.h"

namespace ravo::platform {

namespace {

constexpr std::uint64_t magic = 0x7261766F'626F7832;  // with the form's number at its end
constexpr std::uint32_t largest_signal = 64;

struct hold {
    std::uint32_t port;  // 0: nobody's
    std::uint32_t times;
    std::int64_t until;  // seconds since the boot
};

struct box {
    std::uint64_t magic;
    std::uint32_t length;  // of the frame; 0: no message in hand
    std::uint32_t port;
    std::uint32_t cause;
    std::int64_t time_us;
    std::uint16_t vlan;
    std::uint16_t tag_protocol;
    std::uint16_t tag_tci;
    std::array<std::uint8_t, 6> client;
    std::array<hold, black_box_ports> holds;
    std::array<std::uint8_t, black_box_frame_size> frame;
};

mapping room;
std::string box_path;  // of the file
bool holding = false;  // some port may be held

box *the_box() {
    return static_cast<box *>(room.get());
}

std::int64_t now() {
    timespec time{};
    clock_gettime(CLOCK_BOOTTIME, &time);
    return time.tv_sec;
}

void set_length(box &b, std::uint32_t length) {
    __atomic_store_n(&b.length, length, __ATOMIC_RELEASE);
}

// A time that no hold of this boot can have is that of another boot.
bool is_remembered(const hold &h, std::int64_t time) {
    constexpr std::int64_t longest = black_box_longest_hold;
    return h.port != 0 && h.until <= time + longest && h.until > time - longest;
}

bool remembers(const box &b) {
    const std::int64_t time = now();
    return std::any_of(b.holds.begin(), b.holds.end(), [&](const hold &h) { return is_remembered(h, time); });
}

hold &place_for(box &b, std::uint32_t port) {
    for (hold &h : b.holds)
        if (h.port == port) return h;
    return *std::min_element(b.holds.begin(), b.holds.end(),
                             [](const hold &one, const hold &other) { return one.until < other.until; });
}

// Returns for how many seconds.
unsigned hold_port(box &b, std::uint32_t port) {
    const std::int64_t time = now();
    hold &h = place_for(b, port);
    const bool again = h.port == port && is_remembered(h, time);
    h.times = again ? std::min<std::uint32_t>(h.times, 15) + 1 : 1;
    const unsigned seconds = std::min(black_box_first_hold << (h.times - 1), black_box_longest_hold);
    h.port = port;
    h.until = time + seconds;
    return seconds;
}

bool is_whole(const box &b) {
    return b.magic == magic && b.length <= black_box_frame_size;
}

bool is_cause(std::uint32_t cause) {
    return cause <= largest_signal || cause == black_box_exit;
}

black_box_crash take_out(box &b) {
    black_box_crash crash;
    if (b.length == 0) return crash;
    crash.happened = true;
    crash.cause = is_cause(b.cause) ? b.cause : black_box_unexplained;
    crash.entry.time_us = b.time_us;
    crash.entry.port_ifindex = b.port;
    crash.entry.vlan = b.vlan;
    crash.entry.tag = {.protocol = b.tag_protocol, .tci = b.tag_tci};
    crash.entry.client = b.client;
    crash.frame.assign(b.frame.begin(), b.frame.begin() + b.length);
    set_length(b, 0);
    if (b.port != 0 && crash.cause != black_box_unexplained) crash.held_seconds = hold_port(b, b.port);
    return crash;
}

}  // namespace

fault black_box_open(const std::string &path, black_box_crash *crash) {
    black_box_close();
    // What others may cut short or write is no memory.
    if (const fault wrong = map_own_file(path, sizeof(box), &room))
        return {path + ": no message that ends the daemon can be noted: " + wrong.text};
    box_path = path;
    box &b = *the_box();
    if (!is_whole(b)) {
        std::memset(room.get(), 0, sizeof(box));
        b.magic = magic;
    }
    *crash = take_out(b);
    holding = remembers(b);
    return {};
}

void black_box_close() {
    if (!room) return;
    black_box_clear();
    if (!remembers(*the_box())) (void)unlink(box_path.c_str());
    room = mapping();
    holding = false;
}

void black_box_note(const book_entry &entry, std::span<const std::uint8_t> frame) {
    if (!room || frame.empty()) return;
    box &b = *the_box();
    const std::size_t length = std::min(frame.size(), black_box_frame_size);
    set_length(b, 0);
    b.cause = black_box_unexplained;
    b.time_us = entry.time_us;
    b.port = entry.port_ifindex;
    b.vlan = entry.vlan;
    b.tag_protocol = entry.tag.protocol;
    b.tag_tci = entry.tag.tci;
    b.client = entry.client;
    // Not by memcpy: of a size that it knows to be bounded the compiler copies by itself, which begins slowly.
    std::copy_n(frame.begin(), length, b.frame.begin());
    set_length(b, static_cast<std::uint32_t>(length));
}

void black_box_clear() {
    if (room) set_length(*the_box(), 0);
}

void black_box_died(int signal) {
    if (!room || the_box()->length == 0) return;
    the_box()->cause = signal == 0 ? black_box_exit : static_cast<std::uint32_t>(signal);
}

std::string black_box_cause(std::uint32_t cause) {
    if (cause == black_box_exit) return "exit";
    const char *name = cause == black_box_unexplained ? nullptr : sigabbrev_np(static_cast<int>(cause));
    return name == nullptr ? "unknown" : std::string("SIG") + name;
}

bool black_box_holds(std::uint32_t port_ifindex) {
    if (!holding || port_ifindex == 0) [[likely]]
        return false;
    const std::int64_t time = now();
    bool some = false;
    for (const hold &h : the_box()->holds) {
        const bool held = is_remembered(h, time) && time < h.until;
        if (held && h.port == port_ifindex) return true;
        some = some || held;
    }
    holding = some;
    return false;
}

unsigned black_box_seconds_left(std::uint32_t port_ifindex) {
    if (!room || port_ifindex == 0) return 0;
    const std::int64_t time = now();
    for (const hold &h : the_box()->holds)
        if (h.port == port_ifindex && is_remembered(h, time) && time < h.until)
            return static_cast<unsigned>(h.until - time);
    return 0;
}

void black_box_release() {
    if (room) the_box()->holds = {};
    holding = false;
}

std::string black_box_text(const black_box_crash &crash) {
    char number[PORT_NUMBER_TEXT_SIZE];
    const std::uint32_t port = crash.entry.port_ifindex;
    std::string text = "client " + mac_text(crash.entry.client);
    text += crash.entry.vlan != 0 ? " on VLAN " + std::to_string(crash.entry.vlan) : " on no VLAN";
    if (port == 0) return text + ", no port";
    text += std::string(", port ") + port_number_text(port, number);
    if (crash.cause == black_box_unexplained) return text + ", not held as it was ended from outside";
    return text + ", held for " + std::to_string(crash.held_seconds) + " s";
}

}  // namespace ravo::platform

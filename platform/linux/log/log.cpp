// SPDX-License-Identifier: Apache-2.0
// Lines come from two sides: the relay's through the print service (vex_print.cpp), in pieces that carry their own line
// ends, and the platform's own, each a whole line. They go to one target (log_target.h), to live listeners, and into a
// ring of the last lines. Target and ring share a threshold, each listener has its own; the lowest of them all is
// vex_print_threshold, which callers test before they format anything. A line that repeats is judged before it is
// formatted too: in a flood that is all it costs.
//
// The crash report comes through here from a signal handler, so nothing on its way to a target allocates.
#include "log/log.h"

#include <event2/event.h>

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <list>

#include "base/loop.h"
#include "base/owners.h"
#include "log/log_hold.h"
#include "log/log_ring.h"
#include "log/log_target.h"
#include "log/log_writer.h"
#include "vex_init.h"

int vex_print_threshold = ravo::platform::log_level_warning;

namespace ravo::platform {

namespace {

struct listener_entry {
    int id;  // 0: removed, taken out of the list once no listener runs
    int threshold;
    log_listener call;
};

constexpr std::size_t pending_room = 4096;

// The line that is being put together for syslog, ring and listeners.
struct pending_line {
    std::array<char, pending_room> text;
    std::size_t length = 0;
    int level = -1;  // highest of the pieces so far, -1: none
};

int threshold_now = log_level_warning;
std::list<listener_entry> listeners;
int next_listener_id = 1;
bool in_listener = false;
void (*before_line)() = nullptr;
pending_line pending;
log_ring ring;
log_hold hold;
bool holding_back = false;
event_ptr report_timer;  // when a report is due

bool passes(int level, int threshold) {
    return level == log_level_start || level >= threshold;
}

// Start-up and crash lines outrank every other level.
int higher_level(int a, int b) {
    if (a == log_level_start || b == log_level_start) return log_level_start;
    return std::max(a, b);
}

void update_print_threshold() {
    int lowest = threshold_now;
    for (const listener_entry &entry : listeners)
        if (entry.id != 0) lowest = std::min(lowest, entry.threshold);
    vex_print_threshold = lowest;
}

void call_listeners(const log_event &event) {
    if (in_listener) return;
    in_listener = true;
    for (listener_entry &entry : listeners)
        if (entry.id != 0 && passes(event.level, entry.threshold)) entry.call(event);
    in_listener = false;
    if (std::erase_if(listeners, [](const listener_entry &entry) { return entry.id == 0; }) != 0)
        update_print_threshold();
}

// Sends a line to a target that takes lines.
void send_line(int level, std::string_view line) {
    if (line.empty()) return;
    if (target_takes_fields())
        log_send_with_fields(level, line);
    else
        target_send(level, line, {});
}

void deliver_line(int level, std::string_view line) {
    std::timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    if (passes(level, threshold_now)) {
        log_ring_keep(ring, line, now);
        if (!target_is_stream()) send_line(level, line);
    }
    if (!listeners.empty()) call_listeners({level, now, line, log_subject_now()});
}

// The line is taken out before it is delivered: a listener's own logging would otherwise run into it.
void finish_pending() {
    std::array<char, pending_room> text;
    const std::size_t length = pending.length;
    std::memcpy(text.data(), pending.text.data(), length);
    const int level = pending.level;
    pending.length = 0;
    pending.level = -1;
    deliver_line(level, {text.data(), length});
}

void assemble(int level, std::string_view text) {
    while (!text.empty()) {
        const std::size_t end = text.find('\n');
        const std::string_view piece = text.substr(0, end);
        const std::size_t taken = std::min(piece.size(), pending.text.size() - pending.length);
        std::memcpy(pending.text.data() + pending.length, piece.data(), taken);
        pending.length += taken;
        pending.level = higher_level(pending.level, level);
        if (end == std::string_view::npos) return;
        finish_pending();
        text.remove_prefix(end + 1);
    }
}

// ---- Lines that repeat ----

constexpr std::uint64_t hash_start = 0xCBF29CE484222325U;

std::uint64_t mix(std::uint64_t hash, std::uint64_t value) {
    hash = (hash ^ value) * 0x9E3779B97F4A7C15U;
    return hash ^ hash >> 29;
}

std::uint64_t mix_text(std::uint64_t hash, const char *text) {
    constexpr std::size_t most = 256;
    if (text == nullptr) return hash;
    for (std::size_t i = 0; i < most && text[i] != '\0'; ++i)
        hash = (hash ^ static_cast<unsigned char>(text[i])) * 0x100000001B3U;
    return hash;
}

// The place of a line and what it is about, as one number. The relay's lines begin with their function and source line;
// of others the format is the place, and the first text that goes into it names what it is about.
__attribute__((format(printf, 1, 0))) std::uint64_t key_of(const char *format, va_list arguments) {
    constexpr std::string_view function_and_line = "%s (%d)";
    const log_subject &about = log_subject_now();
    std::uint64_t key = mix(hash_start, reinterpret_cast<std::uintptr_t>(format));
    key = mix(key, about.vlan != 0 ? about.vlan : about.port_ifindex);
    const char *first = std::strchr(format, '%');
    if (first != nullptr && first[1] == 's') {
        va_list values;
        va_copy(values, arguments);
        key = mix_text(key, va_arg(values, const char *));
        if (std::string_view(format).starts_with(function_and_line))
            key = mix(key, static_cast<std::uint64_t>(va_arg(values, int)));
        va_end(values);
    }
    return key == 0 ? 1 : key;
}

std::int64_t now_ms() {
    std::timespec now{};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return static_cast<std::int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

void arm_report() {
    const std::int64_t wait = log_hold_wait(hold, now_ms());
    if (wait < 0 || report_timer == nullptr || evtimer_pending(report_timer.get(), nullptr) != 0) return;
    const timeval time{static_cast<time_t>(wait / 1000), static_cast<suseconds_t>(wait % 1000 * 1000)};
    evtimer_add(report_timer.get(), &time);
}

// Writes what is due. all: whatever has been held back.
void tell_held(bool all) {
    held_report report;
    while (log_hold_due(hold, all, now_ms(), &report)) {
        char line[384];
        const int length =
            std::snprintf(line, sizeof line, "%llu more lines like this one in the last %lld s: %.*s\n",
                          static_cast<unsigned long long>(report.lines), static_cast<long long>(report.seconds),
                          static_cast<int>(report.like.size()), report.like.data());
        if (length > 0 && vex_prints(report.level)) log_text(report.level, {line, static_cast<std::size_t>(length)});
    }
}

void on_report_due(evutil_socket_t /*fd*/, short /*what*/, void * /*arg*/) {
    tell_held(/*all=*/false);
    arm_report();
}

}  // namespace

fault log_open(const std::string &name, int threshold) {
    fault wrong = target_open(name);
    if (wrong) return wrong;
    tzset();  // here, so that no later line has to read the time zone
    log_set_threshold(threshold);
    return {};
}

void log_start_writer() {
    if (!target_start_writer())
        log_line(log_level_warning, "the log is written without a thread of its own: the system has none to spare");
}

void log_settle() {
    constexpr std::chrono::microseconds moment{2000};
    (void)log_writer_settle(moment);  // a writer that is stuck is nothing to wait for
}

void log_settle_last() {
    (void)log_writer_settle(std::chrono::milliseconds(200));
}

void log_crash_begins() {
    in_listener = true;
}

void log_crash_ends() {
    (void)log_writer_settle(std::chrono::seconds(1), /*patient=*/true);
}

void log_close() {
    hold = {};
    holding_back = false;
    report_timer.reset();
    target_close();
    listeners.clear();
    log_ring_clear(ring);
    pending.length = 0;
    pending.level = -1;
    log_set_threshold(log_level_warning);
}

fault log_reopen() {
    return target_reopen();
}

void log_hold_repeats() {
    holding_back = true;
    report_timer.reset(evtimer_new(loop_base(), on_report_due, nullptr));
}

void log_tell_repeats() {
    tell_held(/*all=*/true);
    holding_back = false;
    report_timer.reset();
}

void log_set_threshold(int threshold) {
    threshold_now = threshold;
    update_print_threshold();
}

int log_threshold() {
    return threshold_now;
}

int log_level_of(std::string_view word) {
    if (word == "error") return log_level_error;
    if (word == "warning") return log_level_warning;
    return word == "trace" ? log_level_trace : 0;
}

std::string_view log_word_of(int threshold) {
    if (threshold >= log_level_error) return "error";
    return threshold >= log_level_warning ? "warning" : "trace";
}

bool log_lets_through(int level, const char *format, va_list arguments, std::uint64_t *like) {
    *like = 0;
    // What continues a line, or is continued, is no whole line that could be compared with others.
    if (!holding_back || level < log_level_warning || pending.level >= 0) return true;
    const std::uint64_t key = key_of(format, arguments);
    const hold_verdict verdict = log_hold_judge(hold, key, now_ms());
    if (verdict == hold_verdict::hold_first) *like = key;
    return verdict == hold_verdict::write;
}

void log_held_like(std::uint64_t like, int level, std::string_view text) {
    log_hold_like(hold, like, level, text.substr(0, text.find('\n')));
    arm_report();
}

void log_text(int level, std::string_view text) {
    if (target_is_stream() && passes(level, threshold_now)) target_write(level, text);
    assemble(level, text);
}

void log_before_line(void (*listener)()) {
    before_line = listener;
}

// Lines of level 0 may come from a signal handler.
void log_line_comes(int level) {
    if (before_line != nullptr && level != log_level_start) before_line();
}

void log_line(int level, const char *format, ...) {
    if (!vex_prints(level)) return;
    log_line_comes(level);
    // The relay's unfinished line ends here; whatever continues it starts a line of its own.
    if (target_is_stream() && passes(level, threshold_now)) target_end_line(level);
    if (pending.level >= 0) finish_pending();
    char line[2048];
    std::uint64_t like = 0;
    va_list arguments;
    va_start(arguments, format);
    const bool written = log_lets_through(level, format, arguments, &like);
    const int formatted = written || like != 0 ? std::vsnprintf(line, sizeof(line) - 1, format, arguments) : -1;
    va_end(arguments);
    if (formatted < 0) return;
    const std::size_t length = std::min(static_cast<std::size_t>(formatted), sizeof(line) - 2);
    if (like != 0) return log_held_like(like, level, {line, length});
    line[length] = '\n';
    log_text(level, {line, length + 1});
}

int log_add_listener(int threshold, log_listener listener) {
    const int id = next_listener_id++;
    listeners.push_back({id, threshold, std::move(listener)});
    update_print_threshold();
    return id;
}

void log_remove_listener(int id) {
    for (listener_entry &entry : listeners)
        if (id != 0 && entry.id == id) entry.id = 0;
    // While listeners run the list stays as it is; call_listeners tidies up.
    if (!in_listener) std::erase_if(listeners, [](const listener_entry &entry) { return entry.id == 0; });
    update_print_threshold();
}

std::vector<std::string> log_recent() {
    return log_ring_lines(ring);
}

void log_take_event_library() {
    event_set_log_callback([](int severity, const char *text) {
        log_line(severity >= EVENT_LOG_ERR ? log_level_error : log_level_warning, "event loop: %s", text);
    });
}

}  // namespace ravo::platform

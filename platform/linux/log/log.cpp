// Lines come from two sides: the relay's through the print service (vex_print.cpp), in pieces that carry their own line
// ends, and the platform's own, each a whole line. They go to one target (standard error, syslog or a file), to live
// listeners, and into a ring of the last lines. Target and ring share a threshold, each listener has its own; the
// lowest of them all is vex_print_threshold, which callers test before they format anything.
//
// Under systemd standard error is a stream of the journal, which takes a line's severity from "<4>" at its begin.
//
// The crash report comes through here from a signal handler, so nothing on its way to a target allocates.
#include "log/log.h"

#include <event2/event.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <list>

#include "log/log_ring.h"
#include "log/log_syslog.h"
#include "vex_init.h"

int vex_print_threshold = ravo::platform::log_level_warning;

namespace ravo::platform {

namespace {

enum class target_kind { standard_error, syslog, file };

struct log_target {
    target_kind kind = target_kind::standard_error;
    int fd = STDERR_FILENO;
    std::string path;           // of the file
    bool journal = false;       // fd is a stream of the journal
    bool at_line_start = true;  // nothing of the current line has been written to fd
    bool fault_told = false;    // a failing file was reported
};

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

log_target target;
int threshold_now = log_level_warning;
std::list<listener_entry> listeners;
int next_listener_id = 1;
bool in_listener = false;
pending_line pending;
log_ring ring;

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

bool write_all(int fd, std::string_view text) {
    while (!text.empty()) {
        const ssize_t written = write(fd, text.data(), text.size());
        if (written < 0 && errno == EINTR) continue;
        if (written < 0) return false;
        text.remove_prefix(static_cast<std::size_t>(written));
    }
    return true;
}

void tell_file_fault(int error) {
    if (target.fault_told) return;
    target.fault_told = true;
    char line[512];
    const int length = std::snprintf(line, sizeof(line), "ravod: %s: cannot write the log: %s\n", target.path.c_str(),
                                     strerrordesc_np(error));
    const std::size_t shown = std::min(static_cast<std::size_t>(std::max(length, 0)), sizeof(line) - 1);
    // Standard error is the last place to turn to; when it is gone too there is nobody left to tell.
    (void)write_all(STDERR_FILENO, {line, shown});
}

// RFC 3164 section 4.1.1.
int severity_of(int level) {
    if (level == log_level_start) return LOG_NOTICE;
    if (level < log_level_warning) return LOG_DEBUG;
    return level < log_level_error ? LOG_WARNING : LOG_ERR;
}

// What stands before a line: in a file the time, in the journal the line's severity, elsewhere nothing, since whoever
// reads standard error adds the time. Returns whether it could be written.
bool write_line_start(int level) {
    char start[log_stamp_size];
    std::size_t length = 0;
    if (target.journal) {
        length = static_cast<std::size_t>(std::snprintf(start, sizeof start, "<%d>", severity_of(level)));
    } else if (target.kind == target_kind::file) {
        std::timespec now{};
        clock_gettime(CLOCK_REALTIME, &now);
        length = log_stamp(now, start);
    }
    return write_all(target.fd, {start, length});
}

void write_direct(int level, std::string_view text) {
    while (!text.empty()) {
        const std::size_t end = text.find('\n');
        const std::string_view piece = end == std::string_view::npos ? text : text.substr(0, end + 1);
        const bool good = (!target.at_line_start || write_line_start(level)) && write_all(target.fd, piece);
        // Nobody is left to tell when standard error itself fails.
        if (!good && target.kind == target_kind::file) tell_file_fault(errno);
        target.at_line_start = end != std::string_view::npos;
        text.remove_prefix(piece.size());
    }
}

void call_listeners(int level, std::string_view line) {
    if (in_listener) return;
    in_listener = true;
    for (listener_entry &entry : listeners)
        if (entry.id != 0 && passes(level, entry.threshold)) entry.call(line);
    in_listener = false;
    if (std::erase_if(listeners, [](const listener_entry &entry) { return entry.id == 0; }) != 0)
        update_print_threshold();
}

void deliver_line(int level, std::string_view line) {
    if (passes(level, threshold_now)) {
        std::timespec now{};
        clock_gettime(CLOCK_REALTIME, &now);
        log_ring_keep(ring, line, now);
        if (target.kind == target_kind::syslog && !line.empty()) syslog_send(severity_of(level), line);
    }
    if (!listeners.empty()) call_listeners(level, line);
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

int open_file(const std::string &path) {
    return open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0640);
}

std::string file_fault(const std::string &path, int error) {
    return path + ": cannot write the log there: " + strerrordesc_np(error) +
           "; name a file in an existing, writable folder, or stderr or syslog";
}

// Whether standard error is the stream that systemd says it connected to the journal: "DEVICE:INODE".
bool is_journal() {
    const char *stream = std::getenv("JOURNAL_STREAM");
    struct stat own {};
    if (stream == nullptr || fstat(STDERR_FILENO, &own) != 0) return false;
    return stream == std::to_string(own.st_dev) + ":" + std::to_string(own.st_ino);
}

void close_target() {
    if (target.kind == target_kind::syslog) syslog_close();
    if (target.kind == target_kind::file) close(target.fd);
    target = log_target{};
}

}  // namespace

std::string log_open(const std::string &name, int threshold) {
    log_target chosen;
    if (name == "syslog") {
        chosen.kind = target_kind::syslog;
        chosen.fd = -1;
    } else if (name != "stderr") {
        chosen.kind = target_kind::file;
        chosen.path = name;
        chosen.fd = open_file(name);
        if (chosen.fd < 0) return file_fault(name, errno);
    }
    chosen.journal = chosen.kind == target_kind::standard_error && is_journal();
    close_target();
    target = std::move(chosen);
    tzset();  // here, so that no later line has to read the time zone
    if (target.kind == target_kind::syslog) syslog_open();
    log_set_threshold(threshold);
    return {};
}

void log_close() {
    close_target();
    listeners.clear();
    log_ring_clear(ring);
    pending.length = 0;
    pending.level = -1;
    log_set_threshold(log_level_warning);
}

std::string log_reopen() {
    if (target.kind != target_kind::file) return {};
    const int fd = open_file(target.path);
    if (fd < 0) return file_fault(target.path, errno);
    close(target.fd);
    target.fd = fd;
    target.at_line_start = true;
    target.fault_told = false;
    return {};
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

void log_text(int level, std::string_view text) {
    if (target.fd >= 0 && passes(level, threshold_now)) write_direct(level, text);
    assemble(level, text);
}

void log_line(int level, const char *format, ...) {
    if (!vex_prints(level)) return;
    // The relay's unfinished line ends here; whatever continues it starts a line of its own.
    if (target.fd >= 0 && !target.at_line_start && passes(level, threshold_now)) write_direct(level, "\n");
    if (pending.level >= 0) finish_pending();
    char line[2048];
    va_list arguments;
    va_start(arguments, format);
    const int formatted = std::vsnprintf(line, sizeof(line) - 1, format, arguments);
    va_end(arguments);
    if (formatted < 0) return;
    const std::size_t length = std::min(static_cast<std::size_t>(formatted), sizeof(line) - 2);
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

// SPDX-License-Identifier: Apache-2.0
// A stream gets the text as it comes, each line behind what belongs before it: in a file the time, in the journal's
// stream the line's severity. The other targets get lines. When the writer's thread runs, both go into its queue; a
// line that finds no room there is lost with all its pieces, and how many they were is written before the next one.
//
// Under systemd standard error is a stream of the journal. Where the journal's own socket can be reached, lines go
// there instead, with their fields.
#include "log/log_target.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "log/log.h"
#include "log/log_journal.h"
#include "log/log_ring.h"
#include "log/log_syslog.h"
#include "log/log_writer.h"

namespace ravo::platform {

namespace {

enum class target_kind { standard_error, file, syslog, journal };

struct log_target {
    target_kind kind = target_kind::standard_error;
    int fd = STDERR_FILENO;       // of a stream, -1: the target is none
    std::string path;             // of the file
    bool severity_first = false;  // fd is a stream of the journal
    bool fault_told = false;      // a failing file was reported
};

log_target target;
log_datagram datagram;
bool at_line_start = true;  // nothing of the current line has been written to the stream
bool dropping = false;      // the queue had no room for the beginning of the current line
unsigned long lost = 0;     // lines in a row that found no room in the queue

// RFC 3164 section 4.1.1.
int severity_of(int level) {
    if (level == log_level_start) return LOG_NOTICE;
    if (level < log_level_warning) return LOG_DEBUG;
    return level < log_level_error ? LOG_WARNING : LOG_ERR;
}

int open_file(const std::string &path) {
    return open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0640);
}

fault file_fault(const std::string &path, int error) {
    return {path + ": cannot write the log there: " + strerrordesc_np(error) +
            "; name a file in an existing, writable folder, or stderr or syslog"};
}

constexpr std::size_t lost_text_room = 64;

std::string_view lost_text(char (&room)[lost_text_room], const char *end) {
    const int length = std::snprintf(room, sizeof room, "%lu lines of the log were lost here%s", lost, end);
    return {room, static_cast<std::size_t>(std::max(length, 0))};
}

// ---- Streams ----

// What is before a line. Returns its length.
std::size_t write_line_start(int level, char (&start)[log_stamp_size]) {
    if (target.severity_first)
        return static_cast<std::size_t>(std::snprintf(start, sizeof start, "<%d>", severity_of(level)));
    if (target.kind != target_kind::file) return 0;  // whoever reads standard error adds the time
    std::timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return log_stamp(now, start);
}

bool put_text(int level, std::string_view text) {
    return log_writer_put({.what = queued::text}, text, level == log_level_start);
}

// Puts a text, with what is before it, into the queue as one piece. Returns false when there is no room for it.
bool put_joined(int level, std::string_view start, std::string_view text) {
    std::array<char, queue_text_room> room;
    const std::size_t head = std::min(start.size(), room.size());
    const std::size_t length = std::min(text.size(), room.size() - head);
    std::copy_n(start.data(), head, room.data());
    std::copy_n(text.data(), length, room.data() + head);
    return put_text(level, {room.data(), head + length});
}

// Says how many lines are missing here. Returns false while the queue is full: a line that is lost for each one that
// gets in would help nobody.
bool put_lost(int level) {
    if (level != log_level_start && !log_writer_has_room()) return false;
    char start[log_stamp_size], text[lost_text_room];
    const std::string_view line = lost_text(text, "\n");
    if (!put_joined(level, {start, write_line_start(log_level_warning, start)}, line)) return false;
    lost = 0;
    return true;
}

// Hands a piece over to the writer's thread. first: it begins a line.
void queue_piece(int level, std::string_view start, std::string_view piece, bool first) {
    if (first) dropping = lost > 0 && !put_lost(level);
    if (dropping) {
        if (first) ++lost;
        return;
    }
    if (put_joined(level, start, piece)) return;
    dropping = true;
    ++lost;
    // What is there of the line already has to end; the reserve has room for that.
    if (!first) (void)put_text(log_level_start, "\n");
}

void write_piece(int level, std::string_view piece) {
    char start[log_stamp_size];
    const bool first = at_line_start;
    const std::size_t length = first ? write_line_start(level, start) : 0;
    at_line_start = piece.ends_with('\n');
    if (log_writer_running()) return queue_piece(level, {start, length}, piece, first);
    int failed = log_write_stream(target.fd, {start, length});
    if (failed == 0) failed = log_write_stream(target.fd, piece);
    // Nobody is left to tell when standard error itself fails.
    if (failed == 0 || target.kind != target_kind::file || target.fault_told) return;
    target.fault_told = true;
    log_tell_file_fault(target.path.c_str(), failed);
}

// ---- Lines as records ----

// Returns false when the queue has no room for the line.
bool put_record(int level, std::string_view line, std::string_view fields) {
    std::array<char, queue_text_room> room;
    const std::size_t length = std::min(line.size(), room.size());
    const std::size_t more = std::min(fields.size(), room.size() - length);
    std::copy_n(line.data(), length, room.data());
    std::copy_n(fields.data(), more, room.data() + length);
    const queue_entry entry{.what = queued::record,
                            .severity = static_cast<std::uint8_t>(severity_of(level)),
                            .text_length = static_cast<std::uint16_t>(length)};
    return log_writer_put(entry, {room.data(), length + more}, level == log_level_start);
}

void queue_record(int level, std::string_view line, std::string_view fields) {
    char text[lost_text_room];
    const bool room = level == log_level_start || log_writer_has_room();
    if (lost > 0 && room && put_record(log_level_warning, lost_text(text, ""), {})) lost = 0;
    if (lost > 0 || !put_record(level, line, fields)) ++lost;
}

// ---- Choosing one ----

bool is_stream_of_journal() {
    // "DEVICE:INODE" of the stream that systemd says it connected to the journal.
    const char *stream = std::getenv("JOURNAL_STREAM");
    struct stat own {};
    if (stream == nullptr || fstat(STDERR_FILENO, &own) != 0) return false;
    return stream == std::to_string(own.st_dev) + ":" + std::to_string(own.st_ino);
}

// Standard error, or what it leads to in a better way.
log_target standard_error() {
    log_target out;
    if (!is_stream_of_journal()) return out;
    struct stat own {};
    // What only looks like the journal has nobody at the journal's socket who waits for our lines.
    if (fstat(STDERR_FILENO, &own) == 0 && S_ISSOCK(own.st_mode) &&
        datagram_open(datagram, journal_format, journal_path) == 0) {
        out.kind = target_kind::journal;
        out.fd = -1;
        return out;
    }
    out.severity_first = true;
    return out;
}

writer_target for_writer() {
    writer_target out;
    out.fd = target.fd;
    out.owns_fd = target.kind == target_kind::file;
    out.path = target.path;
    out.datagram = target_is_stream() ? nullptr : &datagram;
    return out;
}

}  // namespace

fault target_open(const std::string &name) {
    int fd = -1;
    if (name != "stderr" && name != "syslog") {
        fd = open_file(name);
        if (fd < 0) return file_fault(name, errno);
    }
    target_close();
    if (name == "stderr") {
        target = standard_error();
    } else if (name == "syslog") {
        target.kind = target_kind::syslog;
        target.fd = -1;
        (void)datagram_open(datagram, syslog_format, syslog_path);  // without one the first line says so
    } else {
        target.kind = target_kind::file;
        target.fd = fd;
        target.path = name;
    }
    return {};
}

void target_close() {
    const bool with_writer = log_writer_running();
    log_writer_stop();
    if (!target_is_stream()) datagram_close(datagram);
    if (target.kind == target_kind::file && !with_writer) close(target.fd);
    target = log_target{};
    at_line_start = true;
    lost = 0;
}

fault target_reopen() {
    if (target.kind != target_kind::file) return {};
    const int fd = open_file(target.path);
    if (fd < 0) return file_fault(target.path, errno);
    if (log_writer_running()) {
        if (log_writer_put({.what = queued::new_stream, .fd = fd}, {}, /*urgent=*/true)) return {};
        close(fd);
        return {target.path + ": the log file is not opened again: what writes it is stuck"};
    }
    close(target.fd);
    target.fd = fd;
    target.fault_told = false;
    at_line_start = true;
    return {};
}

bool target_start_writer() {
    return log_writer_running() || log_writer_start(for_writer());
}

bool target_is_stream() {
    return target.kind == target_kind::standard_error || target.kind == target_kind::file;
}

void target_write(int level, std::string_view text) {
    while (!text.empty()) {
        const std::size_t end = text.find('\n');
        const std::string_view piece = end == std::string_view::npos ? text : text.substr(0, end + 1);
        write_piece(level, piece);
        text.remove_prefix(piece.size());
    }
}

void target_end_line(int level) {
    if (!at_line_start) write_piece(level, "\n");
}

void target_send(int level, std::string_view line, std::string_view fields) {
    if (log_writer_running())
        queue_record(level, line, fields);
    else
        datagram_send(datagram, {severity_of(level), line, fields});
}

bool target_takes_fields() {
    return target.kind == target_kind::journal;
}

}  // namespace ravo::platform

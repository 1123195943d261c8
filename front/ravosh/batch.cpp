// SPDX-License-Identifier: Apache-2.0
// One session runs all commands in order; one that fails does not stop the later ones. The daemon's output is read to
// the command's end before any of it is written: a reader of ours that stops reading must not make us look to the
// daemon like a client that does.
#include "batch.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>

#include "client.h"
#include "management_protocol.h"

namespace ravo::client {

namespace {

struct batch {
    const shell_options &options;
    connection_ptr daemon = nullptr;
    int status = exit_good;  // so far
    bool over = false;       // a command ended the session, or it broke
};

void complain(const std::string &line) {
    std::fprintf(stderr, "ravosh: %s\n", line.c_str());
}

// Ends as a program does whose reader has gone: by the signal, without a word.
[[noreturn]] void end_by_pipe(int status) {
    std::signal(SIGPIPE, SIG_DFL);
    (void)raise(SIGPIPE);
    std::_Exit(status);  // the signal is blocked
}

void write_out(batch &b, std::string_view text) {
    while (!text.empty()) {
        const ssize_t written = write(STDOUT_FILENO, text.data(), text.size());
        if (written < 0 && errno == EINTR) continue;
        if (written < 0) {
            if (errno == EPIPE) end_by_pipe(exit_failed);
            complain(std::string("cannot write to standard output: ") + strerrordesc_np(errno));
            b.status = exit_unreachable;
            b.over = true;
            return;
        }
        text.remove_prefix(static_cast<std::size_t>(written));
    }
}

// What came of a command that failed, and which it was when it is in a file: among all that a file's commands print
// nobody would find it.
void write_failure(batch &b, const std::string &place, const std::string &line, const std::string &text) {
    b.status = exit_failed;
    if (place.empty()) {
        write_out(b, text);
    } else {
        const std::string end = text.empty() || text.ends_with('\n') ? "" : "\n";
        std::fprintf(stderr, "%s: %s\n%s%s", place.c_str(), line.c_str(), text.c_str(), end.c_str());
    }
    b.over = b.over || b.options.stop_on_error;
}

// place: FILE:LINE, empty for a command that is in no file.
void run_line(batch &b, const std::string &line, const std::string &place) {
    std::string text;
    bool streaming = false;
    handlers to;
    // What comes as it happens is of use only at once.
    const auto take = [&](std::string_view piece) {
        text += piece;
        if (streaming && !b.over) write_out(b, std::exchange(text, {}));
    };
    to.text = take;
    to.monitor = [&](std::string_view log_line) { take(std::string(log_line) + "\n"); };
    to.streaming = [&] {
        streaming = true;
        take({});
    };
    to.cancelled = [&b] { return b.over; };
    const answer a = run(*b.daemon, {.line = line}, to);
    if (b.over) return;
    if (a.outcome != outcome::answered) {
        write_out(b, text);
        if (b.over) return;
        complain(a.reason);
        b.status = exit_unreachable;
        b.over = true;
        return;
    }
    b.over = state(*b.daemon).closed;
    if (a.result != 0)
        write_failure(b, place, line, text);
    else
        write_out(b, text);
}

// Lines of a file as they come. Of a line that is longer than the daemon would ever take only a part is kept.
struct line_source {
    int fd;
    std::string name;
    std::string read_ahead = {};
    bool begun = false;
    bool ended = false;
    bool failed = false;
};
// Longer than any that the daemon takes, so that what is cut off here is never taken for the whole line.
constexpr std::size_t longest_line = 2 * protocol::max_command_line;

void read_more(line_source &source) {
    char piece[16384];
    const ssize_t got = read(source.fd, piece, sizeof(piece));
    if (got < 0 && errno == EINTR) return;
    if (got < 0) {
        complain(source.name + ": cannot read: " + strerrordesc_np(errno));
        source.failed = true;
    }
    if (got <= 0) {
        source.ended = true;
        return;
    }
    source.read_ahead.append(piece, static_cast<std::size_t>(got));
}

// The next line without its line end; a last line needs none.
bool next_line(line_source &source, std::string *line) {
    line->clear();
    for (;;) {
        const std::size_t end = source.read_ahead.find('\n');
        const bool whole = end != std::string::npos;
        if (line->size() < longest_line) line->append(source.read_ahead, 0, end);
        if (whole) {
            source.read_ahead.erase(0, end + 1);
            break;
        }
        source.read_ahead.clear();
        if (source.ended) {
            if (line->empty()) return false;
            break;
        }
        read_more(source);
    }
    if (line->ends_with('\r')) line->pop_back();
    // Some editors begin a file with a mark that it is UTF-8, which nobody can see.
    if (!std::exchange(source.begun, true) && line->starts_with("\xEF\xBB\xBF")) line->erase(0, 3);
    return true;
}

}  // namespace

int run_batch(const shell_options &options) {
    const bool reads_lines = options.has_file || options.commands.empty();
    line_source source{STDIN_FILENO, "standard input"};
    if (options.has_file && options.file != "-") {
        source.name = options.file;
        // It is read to the end of this program.
        source.fd = ::open(options.file.c_str(), O_RDONLY | O_CLOEXEC);
        if (source.fd < 0) {
            complain(options.file + ": cannot open: " + strerrordesc_np(errno));
            return exit_unreachable;
        }
    }
    batch b{options};
    if (const fault wrong = open({.socket = options.socket}, &b.daemon)) {
        complain(wrong.text);
        return exit_unreachable;
    }
    for (std::size_t i = 0; i < options.commands.size() && !b.over; ++i) run_line(b, options.commands[i], {});
    std::string line;
    const bool named = source.fd != STDIN_FILENO;
    for (unsigned long number = 1; reads_lines && !b.over && next_line(source, &line); ++number)
        run_line(b, line, named ? source.name + ":" + std::to_string(number) : std::string());
    return source.failed ? exit_unreachable : b.status;
}

}  // namespace ravo::client

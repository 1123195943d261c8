// SPDX-License-Identifier: Apache-2.0
// The file is read whole before anything is sent to the daemon: what cannot be read to its end is no configuration.
#include "replace.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>

#include "batch.h"
#include "client.h"
#include "management_protocol.h"

namespace ravo::client {

namespace {

constexpr std::string_view last_line = ".";
constexpr std::string_view fault_mark = "% line ";  // and the line's number, a colon, and what is wrong with it

int complain(const std::string &line) {
    std::fprintf(stderr, "ravosh: %s\n", line.c_str());
    return exit_unreachable;
}

// Reads a file to its end. The fault, if any: why it cannot be read.
fault read_whole(int fd, std::string *text) {
    char piece[16384];
    for (;;) {
        const ssize_t got = read(fd, piece, sizeof piece);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return {strerrordesc_np(errno)};
        if (got == 0) return {};
        text->append(piece, static_cast<std::size_t>(got));
    }
}

fault read_file(const std::string &path, std::string *text) {
    if (path == "-") return read_whole(STDIN_FILENO, text);
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return {strerrordesc_np(errno)};
    fault wrong = read_whole(fd, text);
    close(fd);
    return wrong;
}

// Runs one line. The fault says why there is no answer any more, and no result then.
fault run_line(connection &daemon, const std::string &line, std::string *printed, int *result) {
    handlers to;
    to.text = [&](std::string_view piece) { *printed += piece; };
    const answer a = run(daemon, {.line = line}, to);
    if (a.outcome != outcome::answered) return {a.reason};
    *result = a.result;
    return {};
}

// Prints what the daemon answered: faults in lines as those of the file, everything else as it came.
void print_answer(const std::string &name, std::string_view printed) {
    while (!printed.empty()) {
        const std::string_view line = printed.substr(0, printed.find('\n'));
        printed.remove_prefix(std::min(printed.size(), line.size() + 1));
        if (line.starts_with(fault_mark))
            std::fprintf(stderr, "%s:%.*s\n", name.c_str(), static_cast<int>(line.size() - fault_mark.size()),
                         line.data() + fault_mark.size());
        else
            std::fprintf(line.starts_with('%') ? stderr : stdout, "%.*s\n", static_cast<int>(line.size()), line.data());
    }
}

// Sends the text, up to a line that the daemon refuses before it takes it for one of the text. *result: of the last
// line that was sent.
fault send(connection &daemon, std::string_view text, std::string *printed, int *result) {
    for (std::size_t number = 1; !text.empty(); ++number) {
        std::string line(text.substr(0, text.find('\n')));
        text.remove_prefix(std::min(text.size(), line.size() + 1));
        if (line == last_line) line = " .";  // no command either, and not the end
        std::string said;
        fault wrong = run_line(daemon, line, &said, result);
        const bool refused = !wrong && *result != 0;
        if (refused && said.starts_with("% "))
            said = std::string(fault_mark) + std::to_string(number) + ": " + said.substr(2) + "% Nothing was changed\n";
        *printed += said;
        if (wrong || refused) return wrong;
    }
    return run_line(daemon, std::string(last_line), printed, result);
}

// The number of the first line that is longer than the daemon takes one, 0 when there is none.
std::size_t line_too_long(std::string_view text) {
    for (std::size_t number = 1; !text.empty(); ++number) {
        const std::string_view line = text.substr(0, text.find('\n'));
        if (line.size() > protocol::max_command_line) return number;
        text.remove_prefix(std::min(text.size(), line.size() + 1));
    }
    return 0;
}

}  // namespace

int run_replace(const shell_options &options) {
    const std::string name = options.replace == "-" ? "standard input" : options.replace;
    std::string text, printed;
    if (const fault wrong = read_file(options.replace, &text)) return complain(name + ": cannot read: " + wrong.text);
    if (const std::size_t number = line_too_long(text)) {
        std::fprintf(stderr, "%s:%zu: longer than %zu bytes\n", name.c_str(), number, protocol::max_command_line);
        return exit_failed;
    }
    connection_ptr daemon;
    if (const fault wrong = open({.socket = options.socket}, &daemon)) return complain(wrong.text);
    std::string command = "configure replace terminal";
    if (options.dry_run) command += " dry-run";
    if (options.confirm != 0) command += " confirm " + std::to_string(options.confirm);
    int result = 1;
    fault lost = run_line(*daemon, command, &printed, &result);
    if (!lost && result == 0) lost = send(*daemon, text, &printed, &result);
    print_answer(name, printed);
    if (lost) return complain(lost.text);
    if (std::fflush(stdout) != 0) return complain("cannot write to standard output");
    return result == 0 ? exit_good : exit_failed;
}

}  // namespace ravo::client

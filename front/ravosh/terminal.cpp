// SPDX-License-Identifier: Apache-2.0
// Only what standard input and output are connected to; the line editor has its own ways with the terminal and has put
// it back when these are called.
#include "terminal.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace ravo::client {

namespace {

constexpr unsigned char escape = 27;
constexpr int sequence_wait_ms = 30;  // the bytes of one key come together

// Takes keys as they are typed while it lives.
struct raw_mode {
    termios before{};
    bool changed = false;
    raw_mode() {
        if (tcgetattr(STDIN_FILENO, &before) != 0) return;
        termios raw = before;
        raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO | ISIG);
        raw.c_iflag &= ~static_cast<tcflag_t>(IXON);
        raw.c_cc[VMIN] = 1;
        raw.c_cc[VTIME] = 0;
        changed = tcsetattr(STDIN_FILENO, TCSADRAIN, &raw) == 0;
    }
    raw_mode(const raw_mode &) = delete;
    raw_mode &operator=(const raw_mode &) = delete;
    ~raw_mode() {
        if (changed) tcsetattr(STDIN_FILENO, TCSADRAIN, &before);
    }
};

bool is_continuation(char c) {
    return (static_cast<unsigned char>(c) & 0xC0) == 0x80;
}

constexpr std::string_view marker_line = "% Invalid input detected at '^' marker.";

}  // namespace

terminal_size terminal_get_size() {
    winsize size{};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_row == 0 || size.ws_col == 0) return {};
    return {size.ws_row, size.ws_col};
}

int terminal_read_key(bool (*ended)()) {
    const raw_mode raw;
    unsigned char key = 0;
    ssize_t got = read(STDIN_FILENO, &key, 1);
    while (got < 0 && errno == EINTR && !ended()) got = read(STDIN_FILENO, &key, 1);
    if (got != 1) return -1;
    if (key != escape) return key;
    pollfd more{STDIN_FILENO, POLLIN, 0};
    char rest[16];
    while (poll(&more, 1, sequence_wait_ms) > 0 && read(STDIN_FILENO, rest, sizeof(rest)) > 0) continue;
    return key;
}

void terminal_write(std::string_view text) {
    while (!text.empty()) {
        const ssize_t written = write(STDOUT_FILENO, text.data(), text.size());
        if (written < 0 && errno == EINTR) continue;
        if (written < 0) return;  // the terminal has gone, which the next reading from it finds out too
        text.remove_prefix(static_cast<std::size_t>(written));
    }
}

std::string terminal_safe(std::string_view text) {
    std::string safe(text);
    for (char &c : safe) {
        const auto byte = static_cast<unsigned char>(c);
        if ((byte < ' ' && c != '\n' && c != '\t') || byte == 0x7F) c = '?';
    }
    return safe;
}

std::size_t terminal_rows_of(std::string_view line, std::size_t columns) {
    constexpr std::size_t tab = 8;
    std::size_t width = 0;
    for (const char c : line) {
        if (c == '\t') {
            width += tab - width % tab;
        } else if (!is_continuation(c)) {
            ++width;
        }
    }
    return width == 0 ? 1 : (width + columns - 1) / columns;
}

std::string shift_caret(std::string_view text, std::size_t prompt_width) {
    std::string shifted;
    while (!text.empty()) {
        const std::size_t end = std::min(text.find('\n'), text.size() - 1) + 1;
        const std::string_view line = text.substr(0, end);
        text.remove_prefix(end);
        const bool is_caret = line.ends_with("^\n") && line.find_first_not_of(' ') == line.size() - 2;
        if (is_caret && text.starts_with(marker_line)) shifted.append(prompt_width, ' ');
        shifted += line;
    }
    return shifted;
}

}  // namespace ravo::client

// SPDX-License-Identifier: Apache-2.0
// A terminal of the test's own in place of standard input and output, with a person who types ahead.
#ifndef PSEUDO_TERMINAL_H
#define PSEUDO_TERMINAL_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <string_view>

// While it lives, standard input and output are a window of this size. Nothing may be printed meanwhile but what is
// tested: no expectations.
class pseudo_terminal {
  public:
    explicit pseudo_terminal(unsigned short rows, unsigned short columns) {
        std::fflush(stdout);
        input_ = dup(STDIN_FILENO);
        output_ = dup(STDOUT_FILENO);
        termios plain{};
        cfmakeraw(&plain);
        const winsize size{rows, columns, 0, 0};
        int terminal = -1;
        if (openpty(&person_, &terminal, nullptr, &plain, &size) != 0) return;
        dup2(terminal, STDIN_FILENO);
        dup2(terminal, STDOUT_FILENO);
        close(terminal);
    }
    pseudo_terminal(const pseudo_terminal &) = delete;
    pseudo_terminal &operator=(const pseudo_terminal &) = delete;
    ~pseudo_terminal() {
        dup2(input_, STDIN_FILENO);
        dup2(output_, STDOUT_FILENO);
        close(input_);
        close(output_);
        if (person_ >= 0) close(person_);
    }

    // The person types these keys.
    void type(std::string_view keys) const { EXPECT_EQ(write(person_, keys.data(), keys.size()), std::ssize(keys)); }

    // The person goes, and the line with them.
    void hang_up() {
        close(person_);
        person_ = -1;
    }

    // What the person has seen since the last look.
    std::string seen() const {
        std::string text;
        char piece[4096];
        for (pollfd ready{person_, POLLIN, 0}; poll(&ready, 1, 0) > 0 && (ready.revents & POLLIN) != 0;) {
            const ssize_t got = read(person_, piece, sizeof piece);
            if (got <= 0) break;
            text.append(piece, static_cast<std::size_t>(got));
        }
        return text;
    }

  private:
    int person_ = -1;
    int input_ = -1;
    int output_ = -1;
};

#endif

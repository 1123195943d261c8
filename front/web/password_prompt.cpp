// SPDX-License-Identifier: Apache-2.0
// On a terminal the echo is off while a password is typed, and what was typed before the question is dropped.
#include "password_prompt.h"

#include <termios.h>
#include <unistd.h>

#include <cstdio>

#include "accounts.h"

namespace ravo::web {

namespace {

constexpr std::size_t longest_line = 4096;

// One line of standard input, without its end. Returns false at the end of the input.
bool read_input_line(std::string *line) {
    line->clear();
    for (char c = 0; read(STDIN_FILENO, &c, 1) == 1;) {
        if (c == '\n') {
            if (!line->empty() && line->back() == '\r') line->pop_back();
            return true;
        }
        if (line->size() < longest_line) line->push_back(c);
    }
    return !line->empty();
}

bool ask(const std::string &question, std::string *answer) {
    termios before{};
    std::fputs(question.c_str(), stderr);
    const bool known = tcgetattr(STDIN_FILENO, &before) == 0;
    termios hidden = before;
    hidden.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    if (known) (void)tcsetattr(STDIN_FILENO, TCSAFLUSH, &hidden);
    const bool good = read_input_line(answer);
    if (known) (void)tcsetattr(STDIN_FILENO, TCSAFLUSH, &before);
    std::fputc('\n', stderr);
    return good;
}

}  // namespace

fault ask_password(const std::string &user, std::string *password) {
    if (isatty(STDIN_FILENO) != 1) return read_input_line(password) ? fault{} : fault{"no password on standard input"};
    std::string again;
    if (!ask("Password for " + user + ": ", password) || !ask("The same again: ", &again)) return {"no password given"};
    if (*password != again) return {"the two are not the same"};
    return {};
}

}  // namespace ravo::web

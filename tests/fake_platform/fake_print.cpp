// SPDX-License-Identifier: Apache-2.0
// Lines are formatted as the daemon gave them and kept in order. A line that a death test looks for must reach the
// parent, which sees standard error only: lines of level 0 go there too.
#include "fake_print.h"

#include <cctype>
#include <cerrno>
#include <cstdarg>
#include <cstdio>

#include "fake_text.h"
#include "vex_init.h"

int vex_print_threshold = 101;

namespace fake {

std::vector<line> printed;

namespace {

bool is_name(char character) {
    return std::isalnum(static_cast<unsigned char>(character)) != 0 || character == '_';
}

bool is_digit(char character) {
    return std::isdigit(static_cast<unsigned char>(character)) != 0;
}

// "name (123)..." and "name 123..." with the number replaced by '#'; any other text unchanged.
std::string without_source_line(const std::string &text) {
    std::size_t at = 0;
    while (at < text.size() && is_name(text[at])) ++at;
    if (at == 0 || at >= text.size() || text[at] != ' ') return text;
    ++at;
    if (at < text.size() && text[at] == '(') ++at;
    std::size_t end = at;
    while (end < text.size() && is_digit(text[end])) ++end;
    if (end == at) return text;
    return text.substr(0, at) + "#" + text.substr(end);
}

}  // namespace

std::vector<line> traces() {
    std::vector<line> result;
    for (const line &entry : printed) result.push_back({entry.level, without_source_line(entry.text)});
    return result;
}

std::vector<std::string> traces(int level) {
    std::vector<std::string> result;
    for (const line &entry : printed)
        if (entry.level == level) result.push_back(without_source_line(entry.text));
    return result;
}

void print_from(int level) {
    vex_print_threshold = level;
}

void forget_printed() {
    printed.clear();
}

void reset_print() {
    vex_print_threshold = 101;
    printed.clear();
}

}  // namespace fake

int vexprintf(int destination, int reserved1, int level, int reserved2, const char *format, ...) {
    if (!vex_prints(level)) return 0;
    va_list arguments;
    va_start(arguments, format);
    std::string text = fake::format_text(format, arguments);
    va_end(arguments);
    if (destination != 32 || reserved1 != 0 || reserved2 != 0) text = "print service called wrongly: " + text;
    if (level == 0) std::fputs(text.c_str(), stderr);
    fake::printed.push_back({level, text});
    errno = EDOM;  // any service may change it
    return static_cast<int>(text.size());
}

// SPDX-License-Identifier: Apache-2.0
// The text is all here before its first page is shown, so the daemon does not wait for the person. Rows are counted as
// the window is now, which may change between two pages.
#include "pager.h"

#include <algorithm>

#include "terminal.h"

namespace ravo::client {

namespace {

constexpr std::string_view more = "--More--";
constexpr std::string_view wipe_more = "\r        \r";
constexpr int ctrl_c = 3;
constexpr int ctrl_z = 26;

enum class choice { page, line, quit };

choice ask(bool (*ended)()) {
    terminal_write(more);
    for (;;) {
        const int key = terminal_read_key(ended);
        choice chosen = choice::page;
        if (key == 'q' || key == 'Q' || key == ctrl_c || key == ctrl_z || key < 0) {
            chosen = choice::quit;
        } else if (key == '\r' || key == '\n') {
            chosen = choice::line;
        } else if (key != ' ') {
            continue;
        }
        terminal_write(wipe_more);
        return chosen;
    }
}

}  // namespace

void page_text(std::string_view text, std::size_t lines, bool (*ended)()) {
    if (lines == 0) {
        terminal_write(text);
        return;
    }
    // One row of a page is for the question.
    std::size_t left = std::max<std::size_t>(lines, 2) - 1;
    const std::size_t whole_page = left;
    bool page_empty = true;
    while (!text.empty()) {
        const std::size_t end = std::min(text.find('\n'), text.size() - 1) + 1;
        const std::size_t rows = terminal_rows_of(text.substr(0, text.find('\n')), terminal_get_size().columns);
        // A line that is longer than a page is shown nevertheless.
        if (rows > left && !page_empty) {
            const choice chosen = ask(ended);
            if (chosen == choice::quit) return;
            left = chosen == choice::line ? rows : whole_page;
        }
        terminal_write(text.substr(0, end));
        text.remove_prefix(end);
        left -= std::min(rows, left);
        page_empty = false;
    }
}

}  // namespace ravo::client

// SPDX-License-Identifier: Apache-2.0
// Output of the view-aware handlers.
//
// One handler fills a terminal, a settings view or a keyed table for programs: the session's view decides which of its
// lines are printed, and in the keyed view a value goes into the session's buffer together with its column.
#include "ravo_cli_view.h"

#include <cstdarg>
#include <cstdio>

namespace {

constexpr std::int32_t key_mark = -100;  // second word of every column's key
constexpr std::size_t line_size = 256;

// The key of a value, as the bridge reads it: host byte order.
struct column_key {
    std::int32_t column;
    std::int32_t mark;
};

static_assert(sizeof(column_key) == 8);

void print_keyed(ravo_view *view, std::int32_t column, const char *line) {
    const cli *cli = view->cli;
    const column_key key{column, key_mark};
    const int result = column == VIEW_NO_COLUMN ? cli->view_print(cli->view_buffer, nullptr, 0, "%s", line)
                                                : cli->view_print(cli->view_buffer, &key, sizeof key, "%s", line);
    if (result == CLI_BUFFER_FULL) view->result = CLI_BUFFER_FULL;
}

}  // namespace

void ravo_view_line(ravo_view *view, std::uint32_t mask, std::int32_t column, const char *format, ...) {
    const cli *cli = view->cli;
    if (cli->view_print == nullptr || view->result != 0) return;
    const bool selected = (cli->view_flags & mask) != 0;
    if (!selected && cli->view_flags != 0) return;

    char line[line_size];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);

    if ((cli->view_flags & CLI_VIEW_KEYED) != 0)
        print_keyed(view, column, line);
    else
        cli->view_print(cli->print_handle, nullptr, 0, "%s", line);
}

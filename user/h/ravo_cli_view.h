// SPDX-License-Identifier: Apache-2.0
// Output of the view-aware handlers: each line says which views it belongs to.
#ifndef RAVO_CLI_VIEW_H
#define RAVO_CLI_VIEW_H

#include <cstdint>

#include "cli.h"

// Views that a line belongs to.
inline constexpr std::uint32_t VIEW_TERMINAL = CLI_VIEW_TERMINAL;
inline constexpr std::uint32_t VIEW_DISPLAY = CLI_VIEW_TERMINAL | CLI_VIEW_SETTINGS;
inline constexpr std::uint32_t VIEW_ALL = CLI_VIEW_TERMINAL | CLI_VIEW_SETTINGS | CLI_VIEW_KEYED;
inline constexpr std::uint32_t VIEW_VALUE = CLI_VIEW_KEYED;

inline constexpr std::int32_t VIEW_NO_COLUMN = 0;

// The output of one handler. A full keyed buffer is remembered: nothing is printed after it.
struct ravo_view {
    struct cli *cli;
    int result;  // 0, or CLI_BUFFER_FULL: what the handler returns
};

// Prints a line when the session's view is one of mask (VIEW_...), or when the session asked for no view. In the keyed
// view the line goes with the key of column, unless that is VIEW_NO_COLUMN. format: as printf, the line holds at most
// 255 characters.
void ravo_view_line(ravo_view *view, std::uint32_t mask, std::int32_t column, const char *format, ...)
    __attribute__((format(printf, 4, 5)));

#endif

// SPDX-License-Identifier: Apache-2.0
// The terminal of the interactive shell: its size, single keys, and text that is safe to show on it.
#ifndef FRONT_RAVOSH_TERMINAL_H
#define FRONT_RAVOSH_TERMINAL_H

#include <cstddef>
#include <string>
#include <string_view>

namespace ravo::client {

struct terminal_size {
    std::size_t rows = 24;
    std::size_t columns = 80;
};

// The window's size now; 24 x 80 when the terminal does not tell.
terminal_size terminal_get_size();

// Waits for one key, without Enter, echo or signals from the keyboard. ended: asked whenever another signal came, such
// as that of a resized window; true: wait no longer. Returns the key as a byte (an escape sequence counts as one key
// and is returned as ESC), or -1 when there is no more input.
int terminal_read_key(bool (*ended)());

// Writes to the terminal at once.
void terminal_write(std::string_view text);

// The text with everything but printable characters, tabs and line ends replaced by "?": what others wrote into a log
// or a description must not steer this terminal.
std::string terminal_safe(std::string_view text);

// Rows that a line of text takes on a terminal of this width, at least 1.
std::size_t terminal_rows_of(std::string_view line, std::size_t columns);

// Moves the caret of "% Invalid input detected at '^' marker." to the right: the daemon counts from the command's first
// column, on the terminal it is behind the prompt.
std::string shift_caret(std::string_view text, std::size_t prompt_width);

}  // namespace ravo::client

#endif

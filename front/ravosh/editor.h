// SPDX-License-Identifier: Apache-2.0
// The line editor of the interactive shell.
#ifndef FRONT_RAVOSH_EDITOR_H
#define FRONT_RAVOSH_EDITOR_H

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace ravo::client {

// What the editor asks of the shell while a line is typed.
struct editor_host {
    std::function<std::string()> prompt;
    // Text of the help for what is before the cursor, whole lines.
    std::function<std::string(std::string_view line)> help;
    // Whole words that continue the last word of the line.
    std::function<std::vector<std::string>(std::string_view line)> complete;
    // A descriptor to watch beside the keyboard, -1 for none, and what to do when it is readable or a second has
    // passed.
    std::function<int()> watched;
    std::function<void()> attend;
};

enum class typed {
    line,     // Enter
    dropped,  // Ctrl-C
    end,      // Ctrl-Z
    leave,    // Ctrl-D on an empty line, or the terminal has gone
};

struct editor;
struct editor_delete {
    void operator()(editor *e) const;
};
using editor_ptr = std::unique_ptr<editor, editor_delete>;

// Opens the editor on standard input and output. Returns NULL when the terminal cannot be used. There is one at a time.
editor_ptr editor_open(editor_host host);

// Lets the person type a line. line: what was typed, without its end.
typed editor_read(editor &e, std::string *line);

// Adds a line to the history that the arrow keys walk.
void editor_remember(editor &e, const std::string &line);

// Shows whole lines above the line being typed, which is drawn again beneath them. For the host's functions,
// which are called while a line is typed.
void editor_show_above(editor &e, std::string_view text);

// Tells whether Ctrl-C came since it was last asked, while no line was being typed.
bool editor_take_interrupt();

}  // namespace ravo::client

#endif

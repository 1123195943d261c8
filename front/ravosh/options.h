// SPDX-License-Identifier: Apache-2.0
// The options of ravosh.
#ifndef FRONT_RAVOSH_OPTIONS_H
#define FRONT_RAVOSH_OPTIONS_H

#include <string>
#include <vector>

#include "fault.h"

namespace ravo::client {

struct shell_options {
    std::string socket;                 // path of the management socket
    std::vector<std::string> commands;  // of -c, in order
    bool has_file = false;
    std::string file;            // commands one a line; "-": standard input
    bool stop_on_error = false;  // the first command that fails is the last
    bool has_replace = false;
    std::string replace;  // a file whose text becomes the running configuration; "-": standard input
    bool dry_run = false;
    int confirm = 0;  // minutes until the old one is in force again unless this one is confirmed, 0: it stays
    bool version = false;
    bool help = false;
};

// Reads the words of the command line, without the program's name. The fault, if any: one line with what is
// wrong.
fault parse_options(const std::vector<std::string> &words, shell_options *out);

// The text of --help.
const char *help_text();

}  // namespace ravo::client

#endif

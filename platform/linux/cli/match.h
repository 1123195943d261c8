// SPDX-License-Identifier: Apache-2.0
// Which command a typed line is.
#ifndef PLATFORM_LINUX_CLI_MATCH_H
#define PLATFORM_LINUX_CLI_MATCH_H

#include <cstddef>
#include <string>
#include <vector>

#include "cli/tree.h"
#include "cli/words.h"

namespace ravo::cli {

enum class match_result {
    complete,
    incomplete,  // a command begins like this
    ambiguous,   // the word abbreviates several keywords
    invalid,     // no command has this word here
};

struct match {
    match_result result = match_result::invalid;
    const command *what = nullptr;       // the command of a complete line
    std::vector<std::string> arguments;  // what its handler gets
    std::size_t word = 0;                // the word that is ambiguous or invalid
    std::size_t rest = 0;                // column of what LINE stands for, 0 when there is none
};

// Who gives a line: the commands it may be.
struct caller {
    int privilege = program_privilege;
    audience who = audience::operators;
};

// Compares a line's words with the commands that a caller may give in a mode: those of the mode, and those of other
// modes that only look. line: the text that the words were split from; LINE takes its rest.
match match_line(const cli_tree &tree, int mode, const caller &by, const std::vector<word> &words,
                 std::string_view line);

// The tokens that may follow the words. Returns them for commands that are listed to people, each text once, in the
// daemon's own words where it has such a command; *ends tells whether a command may end after the words. words: all
// whole; when they fit no command, nothing is returned.
std::vector<const token *> next_tokens(const cli_tree &tree, int mode, const caller &by, const std::vector<word> &words,
                                       bool *ends);

}  // namespace ravo::cli

#endif

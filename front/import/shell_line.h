// SPDX-License-Identifier: Apache-2.0
// Lines as a shell reads them: words, quotes and comments, nothing more. No variable and no command is put in.
#ifndef FRONT_IMPORT_SHELL_LINE_H
#define FRONT_IMPORT_SHELL_LINE_H

#include <string>
#include <string_view>
#include <vector>

#include "fault.h"

namespace ravo::moving {

// Appends the words of text to words. Blanks and line ends part words, quotes of both kinds and backslashes are taken
// away, "#" at the beginning of a word hides the rest of its line. The fault, if any: what is wrong.
fault split_words(std::string_view text, std::vector<std::string> *words);

}  // namespace ravo::moving

#endif

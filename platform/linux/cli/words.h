// SPDX-License-Identifier: Apache-2.0
// The words of a typed line.
#ifndef PLATFORM_LINUX_CLI_WORDS_H
#define PLATFORM_LINUX_CLI_WORDS_H

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace ravo::cli {

struct word {
    std::string text;         // with quotes and backslashes resolved
    std::size_t column = 0;   // where it begins in the line, in bytes
    std::size_t end = 0;      // behind its last byte
    bool quoted = false;      // it had a quote or a backslash: it is a WORD, never a keyword or number
    bool malformed = false;   // it holds a control character, or a quote or backslash that nothing follows
    bool open_quote = false;  // its quote is not closed
};

struct split_line {
    std::vector<word> words;
    std::size_t pipe = std::string_view::npos;  // column of the "|" that begins an output filter, npos for none
};

// Splits a line at blanks and tabs. "..." keeps blanks together, a backslash makes the next character an ordinary
// one, also inside quotes. A "|" at the beginning of a word ends the words.
split_line split(std::string_view line);

// The text as one word of a line: as it is when that is read back unchanged, else in quotes.
std::string quote_word(std::string_view text);

// Whether a keyword begins with a text, and whether it is that text; letters of either case are the same.
bool begins_with(std::string_view keyword, std::string_view text);
bool is_keyword_text(std::string_view keyword, std::string_view text);

// The text without blanks, tabs and line ends at both its ends.
std::string_view trim(std::string_view text);

// The number of columns that the first bytes of a line take on a terminal: a character of several bytes takes one.
std::size_t display_columns(std::string_view line, std::size_t bytes);

}  // namespace ravo::cli

#endif

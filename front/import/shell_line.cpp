// SPDX-License-Identifier: Apache-2.0
// One pass over the characters. What a shell would put in for a variable or a command is not known here, so these stay
// as they are, for the caller to refuse.
#include "shell_line.h"

namespace ravo::moving {

namespace {

constexpr std::string_view blanks = " \t\r\n";

// Takes what is between quotes, from behind the first on; *at is then behind the last. False: there is no last.
bool take_quoted(std::string_view text, char quote, std::size_t *at, std::string *word) {
    for (; *at < text.size(); ++*at) {
        if (text[*at] == quote) return ++*at, true;
        if (quote == '"' && text[*at] == '\\' && *at + 1 < text.size()) ++*at;
        *word += text[*at];
    }
    return false;
}

// Takes one word that begins at *at.
fault take_word(std::string_view text, std::size_t *at, std::string *word) {
    while (*at < text.size() && blanks.find(text[*at]) == blanks.npos) {
        const char c = text[(*at)++];
        if (c == '\'' || c == '"') {
            if (!take_quoted(text, c, at, word)) return {std::string("a quote (") + c + ") without its end"};
        } else if (c == '\\' && *at < text.size()) {
            if (text[*at] != '\n') *word += text[*at];  // a line that goes on below
            ++*at;
        } else {
            *word += c;
        }
    }
    return {};
}

}  // namespace

fault split_words(std::string_view text, std::vector<std::string> *words) {
    std::size_t at = 0;
    while ((at = text.find_first_not_of(blanks, at)) != text.npos) {
        if (text[at] == '#') {
            at = text.find('\n', at);
            if (at == text.npos) break;
            continue;
        }
        if (text.substr(at, 2) == "\\\n") {  // nothing but a line that goes on
            at += 2;
            continue;
        }
        std::string word;
        if (const fault wrong = take_word(text, &at, &word)) return wrong;
        words->push_back(std::move(word));
    }
    return {};
}

}  // namespace ravo::moving

// SPDX-License-Identifier: Apache-2.0
// Texts for terminals 80 columns wide, and UTF-8 by the table of RFC 3629.
#include "base/text.h"

#include <algorithm>

namespace ravo::platform {

std::string wrapped_text(std::string_view head, std::string_view text, std::size_t column) {
    constexpr std::size_t width = 80;
    std::string out, line(head);
    bool fresh = true;  // no word of the text is in the line yet
    while (!text.empty()) {
        const std::string_view word = text.substr(0, text.find(' '));
        text.remove_prefix(std::min(text.size(), word.size() + 1));
        if (!fresh && line.size() + 1 + word.size() > width) {
            out += line + "\n";
            line.assign(column, ' ');
            fresh = true;
        }
        if (!fresh) line += ' ';
        line += word;
        fresh = false;
    }
    return out + line + "\n";
}

namespace {

// A character of UTF-8 by its first byte (RFC 3629 section 4): how many bytes follow, and what the first of them may
// be.
struct utf8_row {
    unsigned char first, last;
    unsigned char more;
    unsigned char low, high;
};

constexpr utf8_row utf8_rows[] = {
    {0x00, 0x7F, 0, 0x80, 0xBF}, {0xC2, 0xDF, 1, 0x80, 0xBF}, {0xE0, 0xE0, 2, 0xA0, 0xBF},
    {0xE1, 0xEC, 2, 0x80, 0xBF}, {0xED, 0xED, 2, 0x80, 0x9F}, {0xEE, 0xEF, 2, 0x80, 0xBF},
    {0xF0, 0xF0, 3, 0x90, 0xBF}, {0xF1, 0xF3, 3, 0x80, 0xBF}, {0xF4, 0xF4, 3, 0x80, 0x8F},
};

// The bytes of the character with which the text begins, 0 when that is none.
std::size_t utf8_character(std::string_view text) {
    const auto at = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    for (const utf8_row &row : utf8_rows) {
        if (at(0) < row.first || at(0) > row.last) continue;
        if (text.size() <= row.more || (row.more > 0 && (at(1) < row.low || at(1) > row.high))) return 0;
        for (std::size_t i = 2; i <= row.more; ++i)
            if ((at(i) & 0xC0U) != 0x80) return 0;
        return row.more + 1U;
    }
    return 0;
}

}  // namespace

std::size_t utf8_length(std::string_view text) {
    std::size_t length = 0;
    while (length < text.size()) {
        const std::size_t next = utf8_character(text.substr(length));
        if (next == 0) break;
        length += next;
    }
    return length;
}

}  // namespace ravo::platform

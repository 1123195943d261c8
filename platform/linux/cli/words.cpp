// SPDX-License-Identifier: Apache-2.0
// Lines become words here, and words of the running configuration become text that reads back the same.
//
// A word may hold anything but control characters: between quotes blanks are part of it, and a backslash takes away
// what the next character means. What cannot be a word is kept as a malformed one, so that the matcher refuses it at
// its place like any other word that fits nowhere.
#include "cli/words.h"

#include <algorithm>

namespace ravo::cli {

namespace {

bool is_blank(char c) {
    return c == ' ' || c == '\t';
}

// Keywords are ASCII; what locale the daemon runs in must not matter to them.
char lower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool is_control(char c) {
    const auto byte = static_cast<unsigned char>(c);
    return (byte < 0x20 && c != '\t') || byte == 0x7F;  // a tab that is no blank was quoted
}

word read_word(std::string_view line, std::size_t at) {
    word out;
    out.column = at;
    bool inside = false;
    for (; at < line.size(); ++at) {
        char c = line[at];
        if (!inside && is_blank(c)) break;
        if (c == '"') {
            inside = !inside;
            out.quoted = true;
            continue;
        }
        if (c == '\\') {
            out.quoted = true;
            if (++at == line.size()) {
                out.malformed = true;
                break;
            }
            c = line[at];
        }
        out.malformed = out.malformed || is_control(c);
        out.text += c;
    }
    out.open_quote = inside;
    out.malformed = out.malformed || inside;
    out.end = at;
    return out;
}

}  // namespace

split_line split(std::string_view line) {
    split_line out;
    for (std::size_t at = 0; at < line.size();) {
        if (is_blank(line[at])) {
            ++at;
            continue;
        }
        if (line[at] == '|') {
            out.pipe = at;
            break;
        }
        out.words.push_back(read_word(line, at));
        at = out.words.back().end;
    }
    return out;
}

std::string quote_word(std::string_view text) {
    constexpr std::string_view special = " \t\"\\!?|";
    if (!text.empty() && text.find_first_of(special) == std::string_view::npos) return std::string(text);
    std::string out = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\') out += '\\';
        out += c;
    }
    return out + "\"";
}

bool begins_with(std::string_view keyword, std::string_view text) {
    return text.size() <= keyword.size() &&
           std::equal(text.begin(), text.end(), keyword.begin(), [](char a, char b) { return lower(a) == lower(b); });
}

bool is_keyword_text(std::string_view keyword, std::string_view text) {
    return keyword.size() == text.size() && begins_with(keyword, text);
}

std::string_view trim(std::string_view text) {
    constexpr std::string_view blanks = " \t\r\n";
    const std::size_t first = text.find_first_not_of(blanks);
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

std::size_t display_columns(std::string_view line, std::size_t bytes) {
    const std::string_view part = line.substr(0, bytes);
    return static_cast<std::size_t>(
        std::count_if(part.begin(), part.end(), [](char c) { return (static_cast<unsigned char>(c) & 0xC0) != 0x80; }));
}

}  // namespace ravo::cli

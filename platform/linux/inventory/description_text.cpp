// SPDX-License-Identifier: Apache-2.0
// Quotes are followed as TOML has them, to find the comments. Where they are wrong the parser says so.
#include "inventory/description_text.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>

#include "base/text.h"

namespace ravo::platform {

namespace {

constexpr std::string_view byte_order_mark = "\xEF\xBB\xBF";

bool is_ascii(char c) {
    return static_cast<unsigned char>(c) < 0x80;
}

// Whether a byte goes on with a character of UTF-8 (RFC 3629 section 3).
bool goes_on(char c) {
    return (static_cast<unsigned char>(c) & 0xC0U) == 0x80;
}

// Behind the text in three quotes that begins here; it may end in quotes of its own, two at most.
std::size_t behind_long_text(std::string_view text, std::size_t at) {
    const std::string quotes(3, text[at]);
    const bool escapes = text[at] == '"';
    at += quotes.size();
    while (at < text.size() && !text.substr(at).starts_with(quotes)) at = escapes && text[at] == '\\' ? at + 2 : at + 1;
    at += quotes.size();
    for (int own = 0; own < 2 && at < text.size() && text[at] == quotes[0]; ++own) ++at;
    return at;
}

// Behind the text in quotes that begins here, or at the end of its line.
std::size_t behind_quotes(std::string_view text, std::size_t at) {
    const char quote = text[at];
    if (text.substr(at).starts_with(std::string(3, quote))) return behind_long_text(text, at);
    ++at;
    while (at < text.size() && text[at] != '\n') {
        if (text[at] == quote) return at + 1;
        const bool escaped = quote == '"' && text[at] == '\\' && at + 1 < text.size() && text[at + 1] != '\n';
        at += escaped ? 2 : 1;
    }
    return at;
}

// The character that begins here, as "\u00FC".
std::string escape_of(std::string_view text) {
    const auto first = static_cast<unsigned char>(text[0]);
    std::uint32_t code = first < 0xE0 ? first & 0x1FU : first < 0xF0 ? first & 0x0FU : first & 0x07U;
    for (std::size_t i = 1; i < text.size() && goes_on(text[i]); ++i)
        code = code << 6 | (static_cast<unsigned char>(text[i]) & 0x3FU);
    std::array<char, 16> out{};
    std::snprintf(out.data(), out.size(), code > 0xFFFF ? "\\U%08X" : "\\u%04X", code);
    return out.data();
}

// Behind what begins here and is no comment: a text in quotes, or one byte of anything else.
std::size_t behind_next(std::string_view text, std::size_t at) {
    return text[at] == '"' || text[at] == '\'' ? std::min(behind_quotes(text, at), text.size()) : at + 1;
}

// A comment with "?" for each character that is not ASCII.
std::string plain_comment(std::string_view comment) {
    std::string out;
    for (const char c : comment)
        if (!goes_on(c)) out += is_ascii(c) ? c : '?';
    return out;
}

// Appends a text in double quotes with the characters that are not ASCII escaped. Returns where one is that is escaped
// already, which is no way to write it; the part's size when there is none.
std::size_t escape_quoted(std::string_view part, std::string *ascii) {
    bool escaped = false;
    for (std::size_t at = 0; at < part.size(); ++at) {
        const char c = part[at];
        if (!is_ascii(c) && escaped) return at;
        if (is_ascii(c))
            *ascii += c;
        else if (!goes_on(c))
            *ascii += escape_of(part.substr(at));
        escaped = c == '\\' && !escaped;
    }
    return part.size();
}

// Appends what is no comment. Returns where the first character is that cannot be written there, the part's size when
// there is none.
std::size_t ascii_of_part(std::string_view part, std::string *ascii) {
    if (part.front() == '"') return escape_quoted(part, ascii);
    *ascii += part;
    return static_cast<std::size_t>(std::find_if_not(part.begin(), part.end(), is_ascii) - part.begin());
}

}  // namespace

std::optional<text_fault> ascii_of_description(std::string_view text, std::string *ascii) {
    const std::size_t good = utf8_length(text);
    ascii->clear();
    std::size_t at = text.starts_with(byte_order_mark) ? byte_order_mark.size() : 0;
    while (at < good) {
        const bool comment = text[at] == '#';
        const std::size_t end = std::min(comment ? text.find('\n', at) : behind_next(text, at), good);
        const std::string_view part = text.substr(at, end - at);
        if (comment)
            *ascii += plain_comment(part);
        else if (const std::size_t bad = ascii_of_part(part, ascii); bad < part.size())
            return text_fault{at + bad, "this character can only be written in double quotes, there also as " +
                                            escape_of(text.substr(at + bad))};
        at = end;
    }
    if (good < text.size()) return text_fault{good, "what stands here is not UTF-8"};
    return std::nullopt;
}

}  // namespace ravo::platform

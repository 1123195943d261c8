// SPDX-License-Identifier: Apache-2.0
// Quotes are followed as TOML has them. Where they are wrong the parser ends before it comes to what stands behind.
#include "inventory/description_text.h"

#include <algorithm>
#include <string>

#include "base/text.h"

namespace ravo::platform {

namespace {

constexpr std::string_view byte_order_mark = "\xEF\xBB\xBF";

// Behind the backslash and what it stands before; a line end is not passed over.
std::size_t behind_escape(std::string_view text, std::size_t at) {
    return at + 1 < text.size() && text[at + 1] == '\n' ? at + 1 : at + 2;
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
        at = quote == '"' && text[at] == '\\' ? behind_escape(text, at) : at + 1;
    }
    return at;
}

// Whether quotes can begin a text behind this character, blanks aside.
bool leads_to_quotes(char before) {
    return std::string_view("\n=,.[{").find(before) != std::string_view::npos;
}

// Where the first byte stands that is not ASCII, outside quotes and comments; the text's size when there is none. At
// quotes where none can be the parser ends, but not without having looked at the rest of the line.
std::size_t find_bare(std::string_view text, std::size_t at) {
    char before = '\n';
    bool odd_line = false;
    while (at < text.size()) {
        const char c = text[at];
        const bool quotes = c == '"' || c == '\'';
        if (static_cast<unsigned char>(c) > 0x7F) return at;
        odd_line = c != '\n' && (odd_line || (quotes && !leads_to_quotes(before)));
        if (c == '#' && !odd_line)
            at = std::min(text.find('\n', at), text.size());
        else
            at = quotes && !odd_line ? behind_quotes(text, at) : at + 1;
        if (c != ' ' && c != '\t') before = c;
    }
    return text.size();
}

}  // namespace

std::optional<text_fault> find_text_fault(std::string_view text) {
    const std::size_t good = utf8_length(text);
    const std::size_t bare = find_bare(text, text.starts_with(byte_order_mark) ? byte_order_mark.size() : 0);
    if (bare < good) return text_fault{bare, "a character like this one can only stand in quotes or in a comment"};
    if (good < text.size()) return text_fault{good, "what stands here is not UTF-8"};
    return std::nullopt;
}

}  // namespace ravo::platform

// SPDX-License-Identifier: Apache-2.0
// Command definitions are text for people ("no ip dhcp relay address [A.B.C.D]"); here they become items, and typed
// words are compared with them.
//
// A command is a row of items. Most hold one token; a group in brackets holds several and may be left out; a choice
// holds keywords of which one is typed. Walking the row with optional items skipped gives the tokens that may come
// next, which is all that matching, help and completion need.
#include "cli/grammar.h"

#include <arpa/inet.h>

#include <algorithm>

#include "if_utl.h"
#include "inventory/inventory.h"
#include "inventory/inventory_names.h"

namespace ravo::cli {

namespace {

bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

bool is_keyword(std::string_view text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) {
        return (c >= 'a' && c <= 'z') || is_digit(c) || c == '-' || c == '_';
    });
}

bool is_capitals(std::string_view text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) { return c >= 'A' && c <= 'Z'; });
}

// Reads a whole text of decimal digits that does not exceed high.
bool read_number(std::string_view text, std::uint32_t high, std::uint32_t *out) {
    if (text.empty() || !std::all_of(text.begin(), text.end(), is_digit)) return false;
    std::uint64_t value = 0;
    for (const char c : text) {
        value = value * 10 + static_cast<std::uint64_t>(c - '0');
        if (value > high) return false;
    }
    *out = static_cast<std::uint32_t>(value);
    return true;
}

bool read_range(std::string_view text, token *out) {
    if (!text.starts_with('<') || !text.ends_with('>')) return false;
    text = text.substr(1, text.size() - 2);
    const std::size_t dash = text.find('-');
    if (dash == std::string_view::npos) return false;
    return read_number(text.substr(0, dash), UINT32_MAX, &out->low) &&
           read_number(text.substr(dash + 1), UINT32_MAX, &out->high) && out->low <= out->high;
}

bool read_token(std::string_view text, token *out) {
    out->text = text;
    out->argument = true;
    if (is_keyword(text)) {
        out->kind = token_kind::keyword;
        out->argument = false;
    } else if (text == "A.B.C.D") {
        out->kind = token_kind::address;
    } else if (text == "IFNAME") {
        out->kind = token_kind::ifname;
    } else if (text == "LINE") {
        out->kind = token_kind::line;
    } else if (is_capitals(text)) {
        out->kind = token_kind::any;
    } else if (read_range(text, out)) {
        out->kind = token_kind::number;
    } else {
        return false;
    }
    return true;
}

// Reads the tokens of one item, which are separated by separator.
fault read_tokens(std::string_view text, char separator, item *out) {
    for (std::size_t at = 0; at <= text.size();) {
        const std::size_t end = std::min(text.find(separator, at), text.size());
        const std::string_view part = trim(text.substr(at, end - at));
        at = end + 1;
        if (part.empty() && separator == ' ') continue;
        token read;
        if (!read_token(part, &read)) return {"\"" + std::string(part) + "\" is no word of a command"};
        if (separator == '|' && read.kind != token_kind::keyword)
            return {"\"" + std::string(part) + "\" cannot be chosen: only keywords can"};
        // Without their keywords a handler could not tell which of the groups and choices were typed.
        read.argument = read.argument || out->optional || out->choice;
        out->tokens.push_back(std::move(read));
    }
    return {out->tokens.empty() ? "an empty group" : ""};
}

// Reads the item at the beginning of the text and removes it there.
fault read_item(std::string_view *text, item *out) {
    const char open = text->front();
    const bool group = open == '[' || open == '{';
    const std::size_t end = group ? text->find(open == '[' ? ']' : '}') : text->find_first_of(" [{");
    if (group && end == std::string_view::npos) return {std::string("a \"") + open + "\" that is not closed"};
    const std::string_view part = group ? text->substr(1, end - 1) : text->substr(0, end);
    text->remove_prefix(group ? end + 1 : std::min(end, text->size()));
    out->optional = open == '[';
    out->choice = group && part.find('|') != std::string_view::npos;
    return read_tokens(part, out->choice ? '|' : ' ', out);
}

void set_help(const char *const *help, grammar *out) {
    for (item &part : out->items) {
        for (token &each : part.tokens) {
            if (help == nullptr || *help == nullptr) return;
            each.help = *help++;
        }
    }
}

position behind(const item &part, position at) {
    if (part.choice || at.token + 1 == part.tokens.size()) return {at.item + 1, 0};
    return {at.item, at.token + 1};
}

// Numbers are passed as typed, but room for them is bounded: leading zeros that no number needs are left out.
std::string bounded_number(const std::string &typed) {
    constexpr std::size_t enough = 10;
    if (typed.size() <= enough) return typed;
    const std::size_t first = typed.find_first_not_of('0');
    return first == std::string::npos ? "0" : typed.substr(first);
}

}  // namespace

fault compile(const char *text, const char *const *help, grammar *out) {
    grammar read;
    std::string_view rest = trim(text == nullptr ? "" : text);
    for (; !rest.empty(); rest = trim(rest)) {
        item part;
        if (fault wrong = read_item(&rest, &part)) return wrong;
        read.items.push_back(std::move(part));
    }
    if (read.items.empty()) return {"no words"};
    if (read.items.front().optional) return {"it begins with an optional group"};
    set_help(help, &read);
    *out = std::move(read);
    return {};
}

bool next_steps(const grammar &command, position at, std::vector<step> *out) {
    if (at.token > 0) {  // inside a group: its next token, nothing else
        const item &part = command.items[at.item];
        out->push_back({&part.tokens[at.token], behind(part, at)});
        return false;
    }
    for (; at.item < command.items.size(); ++at.item) {
        const item &part = command.items[at.item];
        const std::size_t open = part.choice ? part.tokens.size() : 1;
        for (std::size_t i = 0; i < open; ++i) out->push_back({&part.tokens[i], behind(part, at)});
        if (!part.optional) return false;
    }
    return true;
}

fit fits(const token &what, const word &typed) {
    if (typed.malformed) return fit::none;
    if (what.kind == token_kind::any || what.kind == token_kind::line) return fit::any;
    if (typed.quoted) return fit::none;
    std::uint32_t number = 0;
    in_addr address;
    switch (what.kind) {
        case token_kind::keyword:
            if (is_keyword_text(what.text, typed.text)) return fit::exact;
            return begins_with(what.text, typed.text) ? fit::abbreviated : fit::none;
        case token_kind::number:
            return read_number(typed.text, what.high, &number) && number >= what.low ? fit::value : fit::none;
        case token_kind::address:
            return inet_pton(AF_INET, typed.text.c_str(), &address) == 1 ? fit::value : fit::none;
        case token_kind::ifname:
            return vlan_of_ifname(typed.text) != 0 ? fit::value : fit::none;
        default:
            return fit::none;
    }
}

std::string argument_of(const token &what, const word &typed) {
    switch (what.kind) {
        case token_kind::keyword:
            return what.text;
        case token_kind::number:
            return bounded_number(typed.text);
        case token_kind::ifname:
            return "vlan" + std::to_string(vlan_of_ifname(typed.text));
        default:
            return typed.text;
    }
}

std::uint16_t vlan_of_ifname(std::string_view text) {
    // The interface service takes the same names, but makes an object of what it is asked for, which half-typed lines
    // must not.
    const std::string prefix = "vlan";
    if (text.empty() || text.size() >= IF_UTL_NAME_SIZE) return 0;
    const bool number = std::all_of(text.begin(), text.end(), is_digit);
    if (number) return platform::vlan_of_name(prefix + std::string(text));
    if (const std::uint16_t vlan = platform::vlan_of_name(text); vlan != 0) return vlan;
    // A device's name is taken as it is; "Vlan10" is nobody's name but for people.
    if (const std::uint16_t vlan = platform::inventory_vlan_of_device(std::string(text)); vlan != 0) return vlan;
    if (!is_keyword_text(prefix, text.substr(0, prefix.size()))) return 0;
    return platform::vlan_of_name(prefix + std::string(text.substr(prefix.size())));
}

}  // namespace ravo::cli

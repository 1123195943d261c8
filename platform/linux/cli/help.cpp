// SPDX-License-Identifier: Apache-2.0
// Help and completion: what may come next in a half-typed line. Both ask the matcher for the tokens that may follow the
// whole words, and keep those that the half-typed one could become.
#include <algorithm>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "cli/session.h"
#include "cli/tree.h"
#include "inventory/inventory.h"
#include "nsm.h"

namespace ravo::cli {

namespace {

// A half-typed line: its whole words, and the beginning of the one that is being typed.
struct half_line {
    int mode;
    std::vector<word> words;
    word prefix;  // empty text between words
    bool between = true;
    bool in_filter = false;
    std::string_view filter;  // what is behind the "|"
};

half_line read_half(const session &s, std::string_view line) {
    const split_line parts = split(line);
    half_line out{s.mode, parts.words, {}, true, false, {}};
    if (parts.pipe != std::string_view::npos) {
        out.in_filter = true;
        out.filter = line.substr(parts.pipe + 1);
        return out;
    }
    if (!out.words.empty() && out.words.back().end == line.size()) {
        out.prefix = out.words.back();
        out.between = false;
        out.words.pop_back();
    }
    if (s.mode != CLI_MODE_EXEC && !out.words.empty() && is_keyword_text("do", out.words.front().text)) {
        out.mode = CLI_MODE_EXEC;
        out.words.erase(out.words.begin());
    }
    return out;
}

bool only_of(std::string_view text, std::string_view characters) {
    return text.find_first_not_of(characters) == std::string_view::npos;
}

// Whether the half-typed word can become this token.
bool can_become(const word &prefix, const token &what) {
    if (what.kind == token_kind::any || what.kind == token_kind::line) return true;
    if (prefix.quoted) return false;
    switch (what.kind) {
        case token_kind::keyword:
            return begins_with(what.text, prefix.text);
        case token_kind::number:
            return only_of(prefix.text, "0123456789");
        case token_kind::address:
            return only_of(prefix.text, "0123456789.");
        default:
            return true;
    }
}

struct next_words {
    std::vector<const token *> tokens;
    bool ends = false;
};

next_words next_in_mode(const session &s, const half_line &half, int mode) {
    next_words out;
    out.tokens = next_tokens(library_tree(), mode, caller_of(s), half.words, &out.ends);
    std::erase_if(out.tokens, [&](const token *each) { return !can_become(half.prefix, *each); });
    out.ends = out.ends && half.between;
    return out;
}

next_words next_of(const session &s, const half_line &half) {
    next_words out = next_in_mode(s, half, half.mode);
    // As when the line is run: what is nothing on an interface may be a command of the global mode.
    if (out.tokens.empty() && !out.ends && half.mode == CLI_MODE_INTERFACE)
        out = next_in_mode(s, half, CLI_MODE_CONFIGURATION);
    return out;
}

// ---- Behind "|" ----

std::vector<help_row> filter_help(std::string_view row_of_filters) {
    const std::string_view text = filter_last(row_of_filters);
    const bool is_first = text.size() == row_of_filters.size();
    const split_line parts = split(text);
    std::vector<help_row> out;
    const bool naming = parts.words.empty() || parts.words.front().end == text.size();
    const std::string prefix = parts.words.empty() ? "" : parts.words.front().text;
    for (const filter_row &row : filter_rows()) {
        if (!begins_with(row.name, prefix) || (row.kind == filter_kind::json && !is_first)) continue;
        if (naming) {
            out.push_back({std::string(row.name), std::string(row.help)});
        } else if (out.empty()) {
            const bool pattern_typed = !trim(text.substr(parts.words.front().end)).empty();
            if (row.pattern != pattern_use::none)
                out.push_back({"REGEX", "A regular expression, up to the end of the line"});
            if (row.pattern != pattern_use::required || pattern_typed) out.push_back({"<cr>", ""});
        }
    }
    return out;
}

void add_interface_names(std::string_view prefix, std::vector<std::string> *out) {
    for (const struct interface *each = ifg_first(); each != nullptr; each = ifg_next(each))
        if (begins_with(each->name, prefix)) out->emplace_back(each->name);
}

// Ids of the VLAN interfaces that are there.
void add_vlan_ids(std::string_view prefix, std::vector<std::string> *out) {
    constexpr std::string_view vlan = "vlan";
    for (const struct interface *each = ifg_first(); each != nullptr; each = ifg_next(each)) {
        const std::string_view name = each->name;
        const std::string_view id = name.substr(std::min(name.size(), vlan.size()));
        if (name.starts_with(vlan) && id.starts_with(prefix)) out->emplace_back(id);
    }
}

// Ports as they are numbered, and their devices' names.
void add_ports(std::string_view prefix, std::vector<std::string> *out) {
    constexpr std::string_view before = "port ";
    for (const platform::inventory_row &row : platform::inventory_rows()) {
        if (row.kind != platform::inventory_row::what::port || row.ifindex == 0) continue;
        const std::string number = row.name.starts_with(before) ? row.name.substr(before.size()) : row.name;
        if (number.starts_with(prefix)) out->push_back(number);
        if (row.device.starts_with(prefix)) out->push_back(row.device);
    }
}

std::map<std::string, value_offer> &offers() {
    static std::map<std::string, value_offer> known;
    return known;
}

// Values that a word which stands for one may be completed to.
void add_values(const token &what, std::string_view prefix, std::vector<std::string> *out) {
    const bool is_any = what.text == "NAME";  // of interfaces and ports
    if (is_any || what.kind == token_kind::ifname) add_interface_names(prefix, out);
    if (what.text == "<1-4094>") add_vlan_ids(prefix, out);
    if (is_any || what.text == "PORT") add_ports(prefix, out);
    if (const auto known = offers().find(what.text); known != offers().end()) known->second(prefix, out);
}

bool takes_a_filter(const half_line &half) {
    return !half.words.empty() &&
           (begins_with("show", half.words.front().text) || begins_with("monitor", half.words.front().text));
}

}  // namespace

void offer_values(const std::string &token, value_offer offer) {
    offers()[token] = std::move(offer);
}

std::vector<help_row> session_help(session &s, std::string_view line) {
    const half_line half = read_half(s, line);
    if (half.in_filter) return filter_help(half.filter);
    const next_words next = next_of(s, half);
    std::vector<help_row> out;
    for (const token *each : next.tokens) out.push_back({each->text, each->help});
    std::sort(out.begin(), out.end(), [](const help_row &a, const help_row &b) { return a.word < b.word; });
    if (next.ends && takes_a_filter(half)) out.push_back({"|", "Filter the output"});
    if (next.ends) out.push_back({"<cr>", ""});
    return out;
}

std::vector<std::string> session_complete(session &s, std::string_view line) {
    const half_line half = read_half(s, line);
    std::vector<std::string> out;
    if (half.in_filter) {
        for (const help_row &row : filter_help(half.filter))
            if (row.word != "REGEX" && row.word != "<cr>") out.push_back(row.word);
        return out;
    }
    for (const token *each : next_of(s, half).tokens) {
        if (each->kind == token_kind::keyword) out.push_back(each->text);
        add_values(*each, half.prefix.text, &out);
    }
    std::sort(out.begin(), out.end());
    out.erase(std::unique(out.begin(), out.end()), out.end());
    return out;
}

}  // namespace ravo::cli

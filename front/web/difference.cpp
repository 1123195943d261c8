// SPDX-License-Identifier: Apache-2.0
// Configurations are sections: each begins with its "interface" line and goes up to "!", "exit" or the next one; lines
// outside of these are a section without a first line. Sections are compared by their first line, lines within one by
// whether the other text has them too. That is exact for configurations, where a line is there once in its section, and
// takes time in proportion to their size.
#include "difference.h"

#include <algorithm>
#include <map>
#include <utility>

namespace ravo::web {

namespace {

struct section {
    std::string head;  // empty: lines outside of sections
    std::vector<std::string> lines;
};

bool counts(std::string_view line) {
    const std::size_t first = line.find_first_not_of(" \t\r");
    return first != std::string_view::npos && line[first] != '!' && line != "end";
}

bool opens_section(std::string_view line) {
    return line.starts_with("interface ");
}

std::vector<section> sections_of(std::string_view text) {
    std::vector<section> out{{}};
    while (!text.empty()) {
        const std::size_t end = std::min(text.find('\n'), text.size());
        std::string_view line = text.substr(0, end);
        text.remove_prefix(std::min(end + 1, text.size()));
        if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
        if (line == "!" || line == "exit") {
            if (!out.back().head.empty()) out.push_back({});
        } else if (counts(line)) {
            if (opens_section(line))
                out.push_back({std::string(line), {}});
            else
                out.back().lines.emplace_back(line);
        }
    }
    return out;
}

// All lines of the sections with the same head, in order.
std::map<std::string, std::vector<std::string>> by_head(const std::vector<section> &sections) {
    std::map<std::string, std::vector<std::string>> out;
    for (const section &s : sections) {
        auto &lines = out[s.head];
        lines.insert(lines.end(), s.lines.begin(), s.lines.end());
    }
    return out;
}

void add_missing(const std::vector<std::string> &from, const std::vector<std::string> &in, char mark,
                 std::vector<std::string> *out) {
    std::vector<std::string> known = in;
    std::sort(known.begin(), known.end());
    for (const std::string &line : from)
        if (!std::binary_search(known.begin(), known.end(), line)) out->push_back(mark + line);
}

}  // namespace

std::vector<std::string> difference(std::string_view before, std::string_view after) {
    const std::vector<section> new_sections = sections_of(after);
    std::vector<section> heads = new_sections;
    for (section &s : sections_of(before)) heads.push_back(std::move(s));
    const auto old_lines = by_head(sections_of(before));
    const auto new_lines = by_head(new_sections);
    std::map<std::string, bool> seen;
    std::vector<std::string> out;
    for (const section &s : heads) {
        if (std::exchange(seen[s.head], true)) continue;
        const auto old_found = old_lines.find(s.head);
        const auto new_found = new_lines.find(s.head);
        std::vector<std::string> changed;
        add_missing(old_found == old_lines.end() ? std::vector<std::string>{} : old_found->second,
                    new_found == new_lines.end() ? std::vector<std::string>{} : new_found->second, '-', &changed);
        add_missing(new_found == new_lines.end() ? std::vector<std::string>{} : new_found->second,
                    old_found == old_lines.end() ? std::vector<std::string>{} : old_found->second, '+', &changed);
        if (changed.empty()) continue;
        if (!s.head.empty()) out.push_back(' ' + s.head);
        out.insert(out.end(), changed.begin(), changed.end());
    }
    return out;
}

}  // namespace ravo::web

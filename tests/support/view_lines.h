// SPDX-License-Identifier: Apache-2.0
// What a view-aware handler must print: its lines with their views, and what becomes of them in a session.
#ifndef VIEW_LINES_H
#define VIEW_LINES_H

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fake_platform.h"

// A line of a handler. mask: 1 terminal, 2 settings, 4 keyed; column: of its key, 0 for none.
struct view_line {
    std::uint32_t mask;
    std::string text;
    std::int32_t column = 0;
};

// The key of a column: two 32-bit words in host order.
inline fake::bytes column_key(std::int32_t column) {
    const std::int32_t words[2] = {column, -100};
    return fake::copy_bytes(words, sizeof words);
}

// Joins neighbours that went to the same place without a key: how a line is cut into calls does not matter there.
inline std::vector<fake::output> joined(const std::vector<fake::output> &outputs) {
    std::vector<fake::output> result;
    for (const fake::output &entry : outputs) {
        const bool follows = !result.empty() && entry.key.empty() && result.back().key.empty() &&
                             entry.where == result.back().where && entry.where != fake::target::row;
        if (follows)
            result.back().text += entry.text;
        else
            result.push_back(entry);
    }
    return result;
}

// Where the lines go in a session with these view flags.
inline std::vector<fake::output> in_view(const std::vector<view_line> &lines, std::uint32_t view_flags) {
    std::vector<fake::output> outputs;
    for (const view_line &line : lines) {
        if ((view_flags & line.mask) != 0 && (view_flags & 4) != 0)
            outputs.push_back(
                {fake::target::buffer, line.column == 0 ? fake::bytes{} : column_key(line.column), line.text});
        else if ((view_flags & line.mask) != 0 || view_flags == 0)
            outputs.push_back({fake::target::terminal, {}, line.text});
    }
    return joined(outputs);
}

namespace fake {

// How gtest shows a piece of output.
inline void PrintTo(const output &entry, std::ostream *out) {
    static const char *const names[] = {"plain", "terminal", "buffer", "row", "late", "wrong"};
    *out << names[static_cast<int>(entry.where)] << " [";
    for (const std::uint8_t byte : entry.key) *out << " " << static_cast<int>(byte);
    *out << " ] " << testing::PrintToString(entry.text);
}

}  // namespace fake

#endif

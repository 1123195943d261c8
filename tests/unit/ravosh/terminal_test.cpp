// SPDX-License-Identifier: Apache-2.0
// The shell's terminal: its size, single keys, and text that is safe and fits.
#include "terminal.h"

#include <gtest/gtest.h>

#include <csignal>
#include <string>
#include <utility>
#include <vector>

#include "pseudo_terminal.h"

namespace {

using namespace ravo::client;

TEST(Terminal, HasTheSizeOfItsWindow) {
    const terminal_size found = [] {
        const pseudo_terminal window(40, 132);
        return terminal_get_size();
    }();
    EXPECT_EQ(found.rows, 40U);
    EXPECT_EQ(found.columns, 132U);
}

TEST(Terminal, HasAnOrdinarySizeWhenItDoesNotTell) {
    const terminal_size found = [] {
        const pseudo_terminal window(0, 0);
        return terminal_get_size();
    }();
    EXPECT_EQ(found.rows, 24U);
    EXPECT_EQ(found.columns, 80U);
}

bool never() {
    return false;
}

TEST(Terminal, KeysComeOneByOneAndASequenceAsOne) {
    std::vector<int> keys;
    std::string echo;
    {
        const pseudo_terminal window(24, 80);
        window.type("a\x03\r");
        for (int i = 0; i < 3; ++i) keys.push_back(terminal_read_key(never));
        window.type("\x1b[A");
        keys.push_back(terminal_read_key(never));
        window.type("z");
        keys.push_back(terminal_read_key(never));
        echo = window.seen();
    }
    EXPECT_EQ(keys, (std::vector<int>{'a', 3, '\r', 27, 'z'}));
    EXPECT_EQ(echo, "");
}

TEST(Terminal, NoKeyComesOfATerminalThatHasGone) {
    std::signal(SIGHUP, SIG_IGN);
    const int key = [] {
        pseudo_terminal window(24, 80);
        window.hang_up();
        terminal_write("to nobody\n");
        return terminal_read_key(never);
    }();
    EXPECT_EQ(key, -1);
}

TEST(Terminal, TextOfOthersCannotSteerIt) {
    EXPECT_EQ(terminal_safe("plain\ttext\n"), "plain\ttext\n");
    EXPECT_EQ(terminal_safe("\x1b[2J\r\a\x7f\x01"), "?[2J????");
    EXPECT_EQ(terminal_safe("Z\xc3\xbcrich"), "Z\xc3\xbcrich");
    EXPECT_EQ(terminal_safe(std::string("a\0b", 3)), "a?b");
}

TEST(Terminal, LinesTakeTheRowsTheyNeed) {
    const std::vector<std::pair<std::string, std::size_t>> rows = {
        {"", 1},
        {"a", 1},
        {std::string(10, 'x'), 1},
        {std::string(11, 'x'), 2},
        {std::string(20, 'x'), 2},
        {std::string(21, 'x'), 3},
        {"1234567\tab", 1},   // a tab goes to column 8
        {"12345678\tab", 2},  // and from there to column 16
        {"\xc3\xbc\xc3\xbc\xc3\xbc\xc3\xbc\xc3\xbc\xc3\xbc", 1},
    };
    for (const auto &[line, expected] : rows) EXPECT_EQ(terminal_rows_of(line, 10), expected) << line;
}

TEST(Terminal, CaretStandsBehindThePrompt) {
    const std::string marker = "% Invalid input detected at '^' marker.\n";
    EXPECT_EQ(shift_caret("  ^\n" + marker, 5), "       ^\n" + marker);
    EXPECT_EQ(shift_caret("^\n" + marker + "more\n", 2), "  ^\n" + marker + "more\n");
    // A caret of anything else stays where it is.
    EXPECT_EQ(shift_caret("  ^\nother\n", 5), "  ^\nother\n");
    EXPECT_EQ(shift_caret("a ^\n" + marker, 5), "a ^\n" + marker);
    EXPECT_EQ(shift_caret("no end", 5), "no end");
    EXPECT_EQ(shift_caret("", 5), "");
}

}  // namespace

// SPDX-License-Identifier: Apache-2.0
// Patterns of filters: held against the C library's own, which knows no bounds, and within theirs.
#include "cli/pattern.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <regex.h>

#include <ctime>
#include <random>
#include <regex>
#include <string>

namespace {

using ravo::cli::pattern;
using ravo::cli::pattern_limit;
using ravo::cli::pattern_matches;
using ravo::cli::pattern_read;

bool found(const std::string &text, const std::string &line) {
    std::unique_ptr<pattern> read;
    EXPECT_EQ(pattern_read(text, &read).text, "") << text;
    return read != nullptr && pattern_matches(*read, line);
}

std::string fault_of(const std::string &text) {
    std::unique_ptr<pattern> read;
    std::string why = pattern_read(text, &read).text;
    EXPECT_EQ(read, nullptr) << text;
    return why;
}

TEST(Pattern, FindsWhatItSays) {
    EXPECT_TRUE(found("lan", "vlan10"));
    EXPECT_FALSE(found("lan ", "vlan10"));
    EXPECT_TRUE(found("^v.*0$", "vlan10"));
    EXPECT_FALSE(found("^lan", "vlan10"));
    EXPECT_TRUE(found("a|b|", "x")) << "an empty alternative is everywhere";
    EXPECT_TRUE(found("", "x"));
    EXPECT_TRUE(found("", ""));
    EXPECT_TRUE(found("^$", ""));
    EXPECT_FALSE(found("^$", "x"));
    EXPECT_TRUE(found("(ab)+c", "xababc"));
    EXPECT_FALSE(found("^(ab)+c", "xababc"));
    EXPECT_TRUE(found("[[:digit:]]+", "port 17"));
    EXPECT_TRUE(found("10\\.0", "10.0.0.1"));
    EXPECT_FALSE(found("10\\.0", "1000"));
    EXPECT_TRUE(found("\\bvlan1\\b", "vlan1 vlan10"));
    EXPECT_FALSE(found("\\bvlan1\\b", "vlan10"));
    EXPECT_TRUE(found("\\<up\\>", "is up"));
    EXPECT_TRUE(found("[]x]", "]"));
    EXPECT_TRUE(found("[^]x]", "a"));
    EXPECT_FALSE(found("^[^]x]+$", "a]"));
    EXPECT_TRUE(found("[a-]", "-"));
    EXPECT_TRUE(found("\xC3\xA4", "\xC3\xA4"));
    EXPECT_TRUE(found("a)", "(a)")) << "a bracket that closes nothing is a character";
}

TEST(Pattern, SaysWhatIsWrong) {
    EXPECT_EQ(fault_of("("), "Unmatched ( or \\(");
    EXPECT_EQ(fault_of("(a|(b)"), "Unmatched ( or \\(");
    EXPECT_EQ(fault_of("[a"), "Unmatched [, [^, [:, [., or [=");
    EXPECT_EQ(fault_of("[[:alpha:"), "Unmatched [, [^, [:, [., or [=");
    EXPECT_EQ(fault_of("[[:alp:]]"), "Invalid character class name");
    EXPECT_EQ(fault_of("[b-a]"), "Invalid range end");
    EXPECT_EQ(fault_of("[[.ab.]]"), "Invalid collation character");
    EXPECT_EQ(fault_of("a\\"), "Trailing backslash");
    EXPECT_EQ(fault_of("*a"), "Invalid preceding regular expression");
    EXPECT_EQ(fault_of("a|+"), "Invalid preceding regular expression");
    EXPECT_EQ(fault_of("^*"), "Invalid preceding regular expression");
    EXPECT_EQ(fault_of("a{2}"), "repetition counts are not supported; write \\{ for the character");
    EXPECT_EQ(fault_of("(a)\\1"), "back-references are not supported");
    EXPECT_EQ(fault_of(std::string("a\0b", 3)), "it holds a NUL character");
    EXPECT_EQ(fault_of(std::string(pattern_limit + 1, 'x')), "longer than 128 characters");
}

TEST(Pattern, AnyTextIsReadOrRefused) {
    std::mt19937 random(11);
    for (int i = 0; i < 20000; ++i) {
        std::string text;
        for (std::size_t left = random() % (pattern_limit + 2); left > 0; --left)
            text += static_cast<char>(random() % 256);
        std::unique_ptr<pattern> read;
        const ravo::fault wrong = pattern_read(text, &read);
        EXPECT_EQ(read == nullptr, static_cast<bool>(wrong));
        if (read != nullptr) (void)pattern_matches(*read, text);
    }
}

TEST(Pattern, IsTheOneOfTheCLibrary) {
    static const char *const pieces[] = {
        "a",   "b",     "_",     "1",     " ",  ".",    "*",         "+",           "?",    "(",
        ")",   "|",     "^",     "$",     "ab", "[ab]", "[^a]",      "[a-b]",       "[]a]", "[[:alpha:]]",
        "\\b", "\\<",   "\\>",   "\\B",   "[",  "\\w",  "\\W",       "\\s",         "\\S",  "\\.",
        "]",   "(a|b)", "[b-a]", "[a-]",  "\\", "\\\\", "[[.a.]]",   "[[=b=]]",     "\\`",  "\\'",
        "-",   "()",    "(|a)",  "[^ _]", "a*", "b+",   "[[:foo:]]", "[^[:space:]]"};
    std::mt19937 random(7);
    const auto pick = [&](std::size_t below) { return static_cast<std::size_t>(random() % below); };
    const std::regex back_reference("\\\\[0-9]");
    int compared = 0;
    for (int i = 0; i < 40000; ++i) {
        std::string text;
        for (std::size_t left = 1 + pick(7); left > 0; --left) text += pieces[pick(std::size(pieces))];
        if (std::regex_search(text, back_reference)) continue;  // refused here
        regex_t theirs;
        const bool good = regcomp(&theirs, text.c_str(), REG_EXTENDED | REG_NOSUB) == 0;
        std::unique_ptr<pattern> ours;
        const ravo::fault wrong = pattern_read(text, &ours);
        ASSERT_EQ(ours != nullptr, good) << text << ": " << wrong.text;
        for (int t = 0; good && t < 8; ++t, ++compared) {
            std::string line;
            for (std::size_t left = pick(8); left > 0; --left) line += "ab_1 .-"[pick(7)];
            EXPECT_EQ(pattern_matches(*ours, line), regexec(&theirs, line.c_str(), 0, nullptr, 0) == 0)
                << "pattern " << text << " line \"" << line << "\"";
        }
        if (good) regfree(&theirs);
    }
    EXPECT_GT(compared, 100000);
}

// What takes others seconds and gigabytes: the work is bounded by pattern and line.
TEST(Pattern, TakesItsTimeWhateverItIs) {
    const std::string line(4096, 'a');
    for (const std::string &text :
         {std::string("(a|aa)*(a*)*b"), std::string("((((a*)*)*)*)*b"),
          std::string("(.*.*.*.*.*.*.*.*.*.*.*.*.*.*.*.*)*b"),
          std::string("(a?a?a?a?a?a?a?a?a?a?a?a?a?a?a?a?a?a?a?a?)+b"), std::string(64, '(') + std::string(64, ')'),
          std::string("a") + std::string(127, '+')}) {
        std::unique_ptr<pattern> read;
        ASSERT_EQ(pattern_read(text, &read).text, "") << text;
        // The processor's time, which other programs do not lengthen: milliseconds, where others take hours.
        const std::clock_t begin = std::clock();
        for (int i = 0; i < 10; ++i) (void)pattern_matches(*read, line);
        EXPECT_LT(std::clock() - begin, 10 * CLOCKS_PER_SEC) << text;
    }
    static_assert(sizeof(pattern) < 16384);
}

}  // namespace

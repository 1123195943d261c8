// SPDX-License-Identifier: Apache-2.0
// Texts on a terminal of 80 columns.
#include "base/text.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using ravo::platform::wrapped_text;

TEST(WrappedText, OfOneLineStandsBehindItsHead) {
    EXPECT_EQ(wrapped_text("head  ", "some words", 6), "head  some words\n");
    EXPECT_EQ(wrapped_text("", "", 4), "\n");
    const std::string exactly = std::string(39, 'a') + " " + std::string(40, 'b');
    EXPECT_EQ(wrapped_text("", exactly, 4), exactly + "\n");
}

TEST(WrappedText, GoesOnInItsColumn) {
    const std::string a(39, 'a'), b(41, 'b'), c(40, 'c');
    EXPECT_EQ(wrapped_text("", a + " " + b, 4), a + "\n    " + b + "\n");
    EXPECT_EQ(wrapped_text("1234", c + " " + c + " " + c, 2), "1234" + c + "\n  " + c + "\n  " + c + "\n");
}

TEST(WrappedText, AWordThatIsTooLongStandsAlone) {
    const std::string longest(100, 'x');
    EXPECT_EQ(wrapped_text("", "a " + longest + " b", 2), "a\n  " + longest + "\n  b\n");
}

TEST(PrintableText, ShowsNothingThatATerminalWouldObey) {
    EXPECT_EQ(ravo::platform::printable_text("a\033[2Jb\n\xC3"), "a?[2Jb??");
    EXPECT_EQ(ravo::platform::printable_text("abcdef", 3), "abc...");
}

TEST(Text, Utf8IsKnownFromWhatLooksLikeIt) {
    using ravo::platform::utf8_length;
    for (const std::string good : {"", "plain", "\xC3\xBC", "\xE2\x82\xAC", "\xED\x9F\xBF", "\xEE\x80\x80",
                                   "\xF0\x90\x80\x80", "\xF4\x8F\xBF\xBF"})
        EXPECT_EQ(utf8_length("a" + good + "b"), good.size() + 2);
    for (const std::string bad : {"\x80", "\xC0\x80", "\xC1\xBF", "\xE0\x9F\xBF", "\xED\xA0\x80", "\xF0\x8F\xBF\xBF",
                                  "\xF4\x90\x80\x80", "\xF5\x80\x80\x80", "\xFF", "\xE2\x82", "\xE2\x82 ", "\xC3"})
        EXPECT_EQ(utf8_length("a" + bad), 1U);
}

}  // namespace

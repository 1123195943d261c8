// SPDX-License-Identifier: Apache-2.0
// Long output, page by page, and what the person chooses between two pages.
#include "pager.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>

#include "pseudo_terminal.h"

namespace {

using ravo::client::page_text;

const std::string more = "--More--\r        \r";

bool never() {
    return false;
}

// What a person sees who types these keys, in a window of 10 columns.
std::string paged(std::string_view text, std::size_t lines, std::string_view keys) {
    const pseudo_terminal window(24, 10);
    window.type(keys);
    page_text(text, lines, never);
    return window.seen();
}

TEST(Pager, ShowsAllAtOnceWithoutAPage) {
    EXPECT_EQ(paged("1\n2\n3\n4\n5\n", 0, ""), "1\n2\n3\n4\n5\n");
}

TEST(Pager, AsksOnlyWhenThereIsMore) {
    EXPECT_EQ(paged("1\n2\n", 3, ""), "1\n2\n");
    EXPECT_EQ(paged("1\n2\n3", 3, " "), "1\n2\n" + more + "3");
    EXPECT_EQ(paged("", 3, ""), "");
}

TEST(Pager, BlankIsAPageAndEnterALine) {
    EXPECT_EQ(paged("1\n2\n3\n4\n5\n", 3, "  "), "1\n2\n" + more + "3\n4\n" + more + "5\n");
    EXPECT_EQ(paged("1\n2\n3\n4\n5\n", 3, "\r\n\r"), "1\n2\n" + more + "3\n" + more + "4\n" + more + "5\n");
}

TEST(Pager, EndsWhenThePersonHasSeenEnough) {
    for (const std::string key : {"q", "Q", "\x03", "\x1a"})
        EXPECT_EQ(paged("1\n2\n3\n", 3, key), "1\n2\n" + more) << int{key[0]};
}

TEST(Pager, OtherKeysAreNoChoice) {
    EXPECT_EQ(paged("1\n2\n3\n", 3, "xyz "), "1\n2\n" + more + "3\n");
}

TEST(Pager, LongLinesTakeTheirRows) {
    const std::string wide(25, 'w');  // three rows
    EXPECT_EQ(paged("1\n" + wide + "\n2\n", 4, " q"), "1\n" + more + wide + "\n" + more);
    EXPECT_EQ(paged(wide + "\n2\n", 2, " "), wide + "\n" + more + "2\n");
}

TEST(Pager, SmallestPageIsALine) {
    EXPECT_EQ(paged("1\n2\n", 1, " "), "1\n" + more + "2\n");
}

}  // namespace

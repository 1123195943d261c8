// SPDX-License-Identifier: Apache-2.0
// What the parser of a switch description is shown of its text.
#include "inventory/description_text.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

namespace {

using ravo::platform::ascii_of_description;

// What the parser is shown; "BYTE: FAULT" where there is one.
std::string shown(const std::string &text) {
    std::string ascii = "left from before";
    const auto fault = ascii_of_description(text, &ascii);
    return fault ? std::to_string(fault->at) + ": " + fault->what : ascii;
}

// Where the fault is, -1 for none.
long fault_at(const std::string &text) {
    std::string ascii;
    const auto fault = ascii_of_description(text, &ascii);
    return fault ? static_cast<long>(fault->at) : -1;
}

TEST(DescriptionText, AsciiIsShownAsItIs) {
    for (const std::string text : {"", "a = 1\n# b\n", "a = \"#\" # b", "a = '\\'", "\"", "'", "\"\"\"", "'''", "\"\\",
                                   "\"\"\"\\", "\"\"\"\"", "#", "\"\"\"x\"\"", "a = 1'#'\n"})
        EXPECT_EQ(shown(text), text);
}

TEST(DescriptionText, CommentsKeepTheirColumns) {
    EXPECT_EQ(shown("a = 1 # f\u00FCr \u20AC \U0001F600.\nb"), "a = 1 # f?r ? ?.\nb");
    EXPECT_EQ(shown("# \u00FC"), "# ?");
    EXPECT_EQ(shown("a = '\\' # \u00FC"), "a = '\\' # ?");
    EXPECT_EQ(shown("a = \"\\\"\" # \u00FC"), "a = \"\\\"\" # ?");
    EXPECT_EQ(shown("a = \"\"\"\nx\"\"\"\"\" # \u00FC"), "a = \"\"\"\nx\"\"\"\"\" # ?");
    EXPECT_EQ(shown("a = '''\n#'\n''' # \u00FC"), "a = '''\n#'\n''' # ?");
}

TEST(DescriptionText, AMarkOfTheByteOrderIsLeftOutAtTheBeginning) {
    EXPECT_EQ(shown("\uFEFFa = 1"), "a = 1");
    EXPECT_EQ(fault_at("a\uFEFF"), 1);
}

TEST(DescriptionText, DoubleQuotesHaveThemEscaped) {
    EXPECT_EQ(shown("\"\u00FC\" = \"x\u20AC\U0001F600.\" # \u00FC"), "\"\\u00FC\" = \"x\\u20AC\\U0001F600.\" # ?");
    EXPECT_EQ(shown("a = \"\"\"\n#\u00FC\"\"\""), "a = \"\"\"\n#\\u00FC\"\"\"");
    EXPECT_EQ(shown("a = \"\\\\\u00FC\""), "a = \"\\\\\\u00FC\"");
    EXPECT_EQ(fault_at("a = \"\\\u00FC\""), 6);
}

TEST(DescriptionText, NowhereElseTheyCanBeWritten) {
    EXPECT_EQ(shown("\U0001F600"), "0: this character can only be written in double quotes, there also as \\U0001F600");
    EXPECT_EQ(shown("a = '\u20ACx'"), "5: this character can only be written in double quotes, there also as \\u20AC");
    EXPECT_EQ(fault_at("a = '#\u00FC"), 6);
    EXPECT_EQ(fault_at("a = 1\n\u00A0b = 2 # x"), 6);
    EXPECT_EQ(fault_at("a = \"open\n\u00FC"), 10);
    EXPECT_EQ(fault_at("# \u00FC\n\u00FC"), 5);
}

TEST(DescriptionText, WhatIsNotUtf8IsAFaultAnywhere) {
    EXPECT_EQ(shown("# \xFC"), "2: what stands here is not UTF-8");
    EXPECT_EQ(shown("a = \"\xFF"), "5: what stands here is not UTF-8");
    EXPECT_EQ(shown("\xE0\xCD"), "0: what stands here is not UTF-8");
    EXPECT_EQ(fault_at("\u00FC \xFF"), 0);
    EXPECT_EQ(fault_at("# \u00FC\xFF"), 4);
}

}  // namespace

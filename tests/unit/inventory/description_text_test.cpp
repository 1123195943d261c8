// SPDX-License-Identifier: Apache-2.0
// What the parser of a switch description is not shown.
#include "inventory/description_text.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

namespace {

using ravo::platform::find_text_fault;

// Where the fault stands, -1 for none.
long fault_at(const std::string &text) {
    const auto fault = find_text_fault(text);
    return fault ? static_cast<long>(fault->at) : -1;
}

TEST(DescriptionText, OtherCharactersStandInQuotesAndComments) {
    for (const std::string text : {"", "a = 1 # \u00FC", "\"\u00FC\" = 'a\u00FC'", "a = \"\"\"\n\u00FC\n\"\"\"",
                                   "a = '''\n\u00FC'\n'''", "a = \"\\\"\u00FC\"", "a = '\\' # \u00FC", "\uFEFFa = 1",
                                   "a = \"\"\"x\"\"\"\"\" # \u00FC", "a = \"#\u00FC\""})
        EXPECT_EQ(fault_at(text), -1) << text;
}

TEST(DescriptionText, NowhereElse) {
    EXPECT_EQ(fault_at("\u00A0"), 0);
    EXPECT_EQ(fault_at("a = 1\n \u00FC = 2"), 7);
    EXPECT_EQ(fault_at("a = \"x\" \u0499"), 8);
    EXPECT_EQ(fault_at("a = '\\'\u00FC"), 7);
    EXPECT_EQ(fault_at("# \u00FC\n\u00FC"), 5);
    EXPECT_EQ(fault_at("a = \"open\n\u00FC"), 10);
    EXPECT_EQ(fault_at("a = \"open\\\n\u00FC"), 11);
    EXPECT_EQ(fault_at("a = \"\"\"x\"\"\"\u00FC"), 11);
    EXPECT_EQ(fault_at("a\uFEFF"), 1);
    EXPECT_STREQ(find_text_fault("\u00FC")->what, "a character like this one can only stand in quotes or in a comment");
}

TEST(DescriptionText, NorInQuotesWhereNoneCanBe) {
    EXPECT_EQ(fault_at("a = 1'\u00FC'"), 6);
    EXPECT_EQ(fault_at("a = 1'='\u00FC'"), 8);
    EXPECT_EQ(fault_at("a = \"x\" '\u00FC'"), 9);
    EXPECT_EQ(fault_at("a = 1' # \u00FC"), 9);
    EXPECT_EQ(fault_at("a = 1'\nb = '\u00FC'"), -1);
    EXPECT_EQ(fault_at("[ '\u00FC' . \"\u00FC\" ]\n'\u00FC' = { \"\u00FC\" = [ '\u00FC' , '\u00FC' ] }"), -1);
}

TEST(DescriptionText, TheFirstFaultIsTold) {
    EXPECT_EQ(fault_at("a = \"\xFF\" \u00FC"), 5);
    EXPECT_STREQ(find_text_fault("a = \"\xFF\" \u00FC")->what, "what stands here is not UTF-8");
    EXPECT_EQ(fault_at("\u00FC \xFF"), 0);
    EXPECT_EQ(fault_at("# \xC3"), 2);
}

TEST(DescriptionText, QuotesThatNeverEndAreNoWayOut) {
    for (const std::string text : {"\"", "'", "\"\"\"", "'''", "\"\\", "\"\"\"\\", "\"\"\"\"", "#", "\"\"\"x\"\""})
        EXPECT_EQ(fault_at(text), -1) << text;
}

}  // namespace

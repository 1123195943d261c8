// SPDX-License-Identifier: Apache-2.0
// What stands behind the bar: lines that are kept, and what is wrong with a filter.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "cli_box.h"

namespace {

using cli_box::calls;
using cli_box::invalid_at;
using cli_box::shell;
using ravo::cli::session_closed;
using ravo::cli::session_complete;
using ravo::cli::session_help;
using ravo::cli::session_privilege;
using ravo::cli::session_prompt;
using testing::Contains;
using testing::ElementsAre;
using testing::IsSupersetOf;
using testing::Not;

struct filter_shell : shell {
    filter_shell() { cli_box::handler_prints = "vlan10 up\nvlan20 down\n\nvlan30 up"; }
    std::string through(const std::string &filter) { return print("show ip dhcp relay | " + filter); }
};

TEST(Filter, KeepsTheLinesItShould) {
    filter_shell s;
    EXPECT_EQ(s.through("include up"), "vlan10 up\nvlan30 up\n");
    EXPECT_EQ(s.through("inc ^vlan[23]"), "vlan20 down\nvlan30 up\n");
    EXPECT_EQ(s.through("exclude up"), "vlan20 down\n\n");
    EXPECT_EQ(s.through("begin 20"), "vlan20 down\n\nvlan30 up\n");
    EXPECT_EQ(s.through("count"), "4\n");
    EXPECT_EQ(s.through("count up$"), "2\n");
    EXPECT_EQ(s.through("include 10 up|20"), "vlan10 up\nvlan20 down\n");
    EXPECT_EQ(s.through("include \"n30 up\""), "vlan30 up\n");
    EXPECT_EQ(s.through("include none"), "");
    EXPECT_EQ(s.print("show ip dhcp relay|count"), invalid_at(13)) << "a | within a word is part of it";
}

TEST(Filter, SeveralInARowWorkOnEachOthersLines) {
    filter_shell s;
    EXPECT_EQ(s.through("include vlan | exclude down"), "vlan10 up\nvlan30 up\n");
    EXPECT_EQ(s.through("include vlan | exclude down | count"), "2\n");
    EXPECT_EQ(s.through("begin 20 | include vlan"), "vlan20 down\nvlan30 up\n");
    EXPECT_EQ(s.through("count up | include 2"), "2\n");
    EXPECT_EQ(s.through("count up | include 3"), "");
    EXPECT_EQ(s.through("count | count"), "1\n");
    EXPECT_EQ(s.through("include 10|20 | include up|x"), "vlan10 up\n") << "a | within a word is part of the pattern";
    EXPECT_EQ(s.through("include \"p | x\""), "") << "and one within quotes";
    EXPECT_EQ(s.through("include p\\| | count"), "0\n");
    EXPECT_EQ(s.through("include up | "), "% Incomplete command.\n");
    EXPECT_EQ(s.through("include up | frob"), invalid_at(34));
    EXPECT_EQ(s.through("include up | | count"), invalid_at(34));
    EXPECT_EQ(s.through("include up | json"), invalid_at(34)) << "a document is not made of lines";
    EXPECT_EQ(s.through("include up | include ("), "% Invalid pattern: Unmatched ( or \\(\n");
}

TEST(Filter, ASectionIsALineWithWhatIsIndentedBelowIt) {
    filter_shell s;
    cli_box::handler_prints =
        "hops 7\n!\ninterface vlan10\n address 1\n\ttrusted\n!\ninterface vlan20\n address 2\n!\nend\n";
    EXPECT_EQ(s.through("section vlan10"), "interface vlan10\n address 1\n\ttrusted\n");
    EXPECT_EQ(s.through("section ^interface"),
              "interface vlan10\n address 1\n\ttrusted\ninterface vlan20\n address 2\n");
    EXPECT_EQ(s.through("section address"), "") << "what is indented begins none";
    EXPECT_EQ(s.through("section vlan | include address"), " address 1\n address 2\n");
    EXPECT_EQ(s.through("section"), "% Incomplete command.\n");
}

TEST(Filter, LeavesTheResultAlone) {
    filter_shell s;
    cli_box::handler_returns = 4;
    EXPECT_EQ(s.run("show ip dhcp relay | count"), 4);
}

TEST(Filter, SaysWhatIsWrongWithIt) {
    filter_shell s;
    EXPECT_EQ(s.through(""), "% Incomplete command.\n");
    EXPECT_EQ(s.through("include"), "% Incomplete command.\n");
    EXPECT_EQ(s.through("frobnicate x"), invalid_at(21));
    EXPECT_EQ(s.through("| x"), invalid_at(21));
    EXPECT_EQ(s.print("| count"), invalid_at(0));
    EXPECT_EQ(s.print("show frob | count"), invalid_at(5));
    EXPECT_EQ(s.through("include (").substr(0, 19), "% Invalid pattern: ");
    EXPECT_EQ(s.through("include a{9999}"),
              "% Invalid pattern: repetition counts are not supported; write \\{ for the character\n");
    // However repetitions are piled up, a pattern is no larger than its text.
    for (const std::string &pattern :
         {"r" + std::string(100, '+'), "r" + std::string(50, '+') + "(a|b)*",
          std::string("(((((((((((((r+)+)+)+)+)+)+)+)+)+)+)+)+)+"), std::string("[[:alpha:]+]++++++++++++++++"),
          std::string("\\\\++++++++++++++++++"), std::string("[]+]+[^]+]+")})
        EXPECT_EQ(s.print("show version | count " + pattern).find('%'), std::string::npos) << pattern;
    EXPECT_EQ(s.through("include (a)\\1"), "% Invalid pattern: back-references are not supported\n");
    EXPECT_EQ(s.through("include " + std::string(129, 'x')), "% Invalid pattern: longer than 128 characters\n");
    EXPECT_EQ(s.run("show ip dhcp relay | include ("), 1);
    EXPECT_TRUE(calls.empty());
    EXPECT_EQ(s.through("include down"), "vlan20 down\n") << "a bad filter leaves nothing behind";
}

TEST(Filter, IsQuickOnPatternsThatWouldBacktrack) {
    filter_shell s;
    cli_box::handler_prints.clear();
    for (int i = 0; i < 200; ++i) cli_box::handler_prints += std::string(5000, 'a') + "\n";
    EXPECT_EQ(s.through("count (a|aa)*(a*)*b"), "0\n");
    EXPECT_EQ(s.through("count ^(a+)+$"), "200\n");
}
}  // namespace

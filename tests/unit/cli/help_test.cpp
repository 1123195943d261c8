// SPDX-License-Identifier: Apache-2.0
// What "?" and Tab show, and where show commands can be given.
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

// ---- Show commands in every mode ----

TEST(Looking, IsPossibleFromEveryMode) {
    shell s;
    for (const int mode : {CLI_MODE_EXEC, CLI_MODE_CONFIGURATION, CLI_MODE_INTERFACE}) {
        s.enter(mode);
        calls.clear();
        EXPECT_EQ(s.print("show privilege"), "Current privilege level is 31\n");
        EXPECT_EQ(s.run("sh ip dhcp relay"), 0);
        EXPECT_EQ(s.run("show ip dhcp relay xid-port-mapping"), 0) << "a command of the global mode";
        EXPECT_EQ(s.run("sh ip dhcp relay det"), 0);
        EXPECT_EQ(calls.size(), 3u);
        EXPECT_EQ(s.mode(), mode) << "who looks stays where they are";
        EXPECT_EQ(s.run("show history | count history"), 0);
        (void)s.run("end");
    }
}

TEST(Looking, ChangesAreNotPossibleFromEveryMode) {
    shell s;
    EXPECT_EQ(s.print("ip dhcp relay hops 7"), invalid_at(0));
    s.configure();
    EXPECT_EQ(s.print("reset relay"), invalid_at(0));
    EXPECT_EQ(s.print("clear ip dhcp relay detail counter"), invalid_at(0));
    EXPECT_EQ(s.print("dhcp rely get basic settings"), invalid_at(0)) << "programs know where they are";
    EXPECT_TRUE(calls.empty());
}

TEST(Looking, IsExplainedInEveryMode) {
    shell s;
    s.configure("vlan10");
    const std::vector<ravo::cli::help_row> rows = session_help(*s.session, "show ip dhcp relay ");
    std::vector<std::string> words;
    for (const ravo::cli::help_row &row : rows) words.push_back(row.word);
    EXPECT_THAT(words, testing::IsSupersetOf({"client", "detail", "statistics", "xid-port-mapping", "|", "<cr>"}));
}

// ---- Help ----

std::vector<std::string> words_of(shell &s, std::string_view line) {
    std::vector<std::string> out;
    for (const ravo::cli::help_row &row : session_help(*s.session, line)) out.push_back(row.word);
    return out;
}

TEST(Help, ListsWhatMayComeNext) {
    shell s;
    const std::vector<std::string> behind_relay = words_of(s, "show ip dhcp relay ");
    EXPECT_THAT(behind_relay, IsSupersetOf({"detail", "information", "option"}));
    ASSERT_GE(behind_relay.size(), 2u);
    EXPECT_TRUE(std::is_sorted(behind_relay.begin(), behind_relay.end() - 2));
    EXPECT_EQ(behind_relay.end()[-2], "|");
    EXPECT_EQ(behind_relay.back(), "<cr>");
    EXPECT_THAT(words_of(s, "show ip dhcp relay information "), ElementsAre("trusted-sources"));
    EXPECT_THAT(words_of(s, "show ip dhcp relay"), ElementsAre("relay"));
    EXPECT_THAT(words_of(s, "sh ip dhcp relay option 6"), ElementsAre("60", "61"));
    EXPECT_THAT(words_of(s, "show v"), ElementsAre("version"));
    EXPECT_TRUE(words_of(s, "frobnicate ").empty());
    EXPECT_TRUE(words_of(s, "c ").empty()) << "of an ambiguous word nothing can follow";
    s.configure();
    EXPECT_THAT(words_of(s, "interface "), ElementsAre("IFNAME", "range", "vlan"));
    EXPECT_THAT(words_of(s, "interface vlan "), ElementsAre("<1-4094>"));
    EXPECT_THAT(words_of(s, "interface vlan x"), ElementsAre());
    EXPECT_THAT(words_of(s, "ip dhcp relay hops 4"), ElementsAre("<1-16>"));
    EXPECT_THAT(words_of(s, "ip dhcp relay hops 4 "), ElementsAre("<cr>"));
    EXPECT_THAT(words_of(s, "do show ip dhcp relay option "), ElementsAre("60", "61", "|", "<cr>"));
    s.configure("vlan10");
    EXPECT_THAT(words_of(s, "no ip dhcp relay option60 "),
                ElementsAre("address", "exact-match", "partial-match", "string", "<cr>"));
    EXPECT_THAT(words_of(s, "no ip dhcp relay option60 string "), ElementsAre("WORD"));
    EXPECT_THAT(words_of(s, "no ip dhcp relay option60 string \"a b"), ElementsAre("WORD"));
    EXPECT_THAT(words_of(s, "ip dhcp relay address 10."), ElementsAre("A.B.C.D"));
    EXPECT_THAT(words_of(s, "ip dhcp relay ho"), ElementsAre("hops")) << "of the global mode";
}

TEST(Help, CarriesTheTexts) {
    shell s;
    const std::vector<ravo::cli::help_row> rows = session_help(*s.session, "terminal ");
    ASSERT_EQ(rows.size(), 3u);
    EXPECT_EQ(rows[0].word, "length");
    EXPECT_EQ(rows[0].text, "Lines of a page");
}

TEST(Help, NeverListsCommandsOfPrograms) {
    shell s(31);
    EXPECT_THAT(words_of(s, ""), Not(Contains("dhcp")));
    EXPECT_THAT(words_of(s, "show ip dhcp relay "), Not(Contains("addr_tbl")));
    EXPECT_TRUE(words_of(s, "dhcp rely ").empty());
    EXPECT_TRUE(words_of(s, "dhcp rely get basic settings ").empty());
    EXPECT_TRUE(session_complete(*s.session, "dh").empty());
    s.configure();
    EXPECT_THAT(words_of(s, ""), Not(Contains("web")));
}

TEST(Help, ListsOnlyWhatTheSessionMayUse) {
    shell s(2);
    const std::vector<std::string> behind_relay = words_of(s, "show ip dhcp relay ");
    EXPECT_THAT(behind_relay, IsSupersetOf({"information", "|", "<cr>"}));
    EXPECT_THAT(behind_relay, Not(Contains(testing::AnyOf("detail", "option"))));
    EXPECT_THAT(words_of(s, ""), Not(Contains("configure")));
}

TEST(Help, ForFilters) {
    shell s;
    EXPECT_THAT(words_of(s, "show version | "), ElementsAre("begin", "count", "exclude", "include", "json", "section"));
    EXPECT_THAT(words_of(s, "show version | include a | "),
                ElementsAre("begin", "count", "exclude", "include", "section"));
    EXPECT_THAT(words_of(s, "show version | json | i"), ElementsAre("include"));
    EXPECT_THAT(words_of(s, "show version | include \"a | i"), ElementsAre("REGEX", "<cr>")) << "within quotes";
    EXPECT_THAT(words_of(s, "show version | ex"), ElementsAre("exclude"));
    EXPECT_THAT(words_of(s, "show version | include "), ElementsAre("REGEX"));
    EXPECT_THAT(words_of(s, "show version | count "), ElementsAre("REGEX", "<cr>"));
    EXPECT_THAT(words_of(s, "show version | json "), ElementsAre("<cr>"));
    EXPECT_THAT(words_of(s, "show version | include a "), ElementsAre("REGEX", "<cr>"));
}

TEST(Completion, GivesWholeWords) {
    shell s;
    EXPECT_THAT(session_complete(*s.session, "sh"), ElementsAre("show"));
    EXPECT_THAT(session_complete(*s.session, "co"), ElementsAre("configure", "copy"));
    EXPECT_THAT(session_complete(*s.session, "show version | i"), ElementsAre("include"));
    EXPECT_TRUE(session_complete(*s.session, "show version ").empty());
    (void)ifg_get_by_name("vlan77");
    (void)ifg_get_by_name("vlan78");
    s.configure();
    EXPECT_THAT(session_complete(*s.session, "interface vlan7"), IsSupersetOf({"vlan77", "vlan78"}));
    EXPECT_THAT(session_complete(*s.session, "interface vlan 7"), IsSupersetOf({"77", "78"}));
    EXPECT_THAT(session_complete(*s.session, "interface r"), ElementsAre("range"));
    EXPECT_THAT(session_complete(*s.session, "ip dhcp relay hops "), ElementsAre());
}
}  // namespace

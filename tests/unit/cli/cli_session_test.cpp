// SPDX-License-Identifier: Apache-2.0
// Sessions: modes, ranges of interfaces, output, filters, help and completion.
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

// ---- Modes ----

TEST(Mode, GoesDownAndUpAgain) {
    shell s;
    EXPECT_EQ(s.mode(), CLI_MODE_EXEC);
    EXPECT_EQ(session_prompt(*s.session), "#");
    EXPECT_EQ(s.run("configure terminal"), 0);
    EXPECT_EQ(s.mode(), CLI_MODE_CONFIGURATION);
    EXPECT_EQ(session_prompt(*s.session), "(config)#");
    EXPECT_EQ(s.run("interface vlan10"), 0);
    EXPECT_EQ(s.mode(), CLI_MODE_INTERFACE);
    EXPECT_EQ(session_prompt(*s.session), "(config-if)#");
    EXPECT_EQ(s.run("exit"), 0);
    EXPECT_EQ(s.mode(), CLI_MODE_CONFIGURATION);
    EXPECT_EQ(s.run("exit"), 0);
    EXPECT_EQ(s.mode(), CLI_MODE_EXEC);
    EXPECT_FALSE(session_closed(*s.session));
    EXPECT_EQ(s.run("exit"), 0);
    EXPECT_TRUE(session_closed(*s.session));
    EXPECT_EQ(s.text, "");
}

TEST(Mode, EndLeavesAllOfConfiguration) {
    shell s;
    s.configure("vlan10");
    EXPECT_EQ(s.run("end"), 0);
    EXPECT_EQ(s.mode(), CLI_MODE_EXEC);
    EXPECT_EQ(s.print("end"), invalid_at(0));
}

TEST(Mode, CommandsOfExecutionModeNeedDo) {
    shell s;
    s.configure();
    EXPECT_EQ(s.print("clear ip dhcp relay detail counter"), invalid_at(0));
    EXPECT_EQ(s.print("do clear ip dhcp relay detail counter"), "");
    EXPECT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls.back().mode, CLI_MODE_EXEC);
    EXPECT_EQ(s.mode(), CLI_MODE_CONFIGURATION);
}

TEST(Mode, DoKeepsTheInterface) {
    shell s;
    s.configure("vlan10");
    EXPECT_EQ(s.print("do show ip dhcp relay option 60"), "");
    EXPECT_EQ(s.print("do show history | count"), "4\n");
    EXPECT_EQ(s.mode(), CLI_MODE_INTERFACE);
    EXPECT_EQ(s.print("ip dhcp relay information trusted"), "");
    EXPECT_EQ(calls.back().interface, "vlan10");
}

TEST(Mode, DoPassesTheResultAndTheFault) {
    shell s;
    s.configure();
    cli_box::handler_returns = 3;
    EXPECT_EQ(s.run("do show ip dhcp relay"), 3);
    EXPECT_EQ(s.print("do show frobnicate"), invalid_at(8));
    EXPECT_EQ(s.print(" do  show ip dhcp relay option 62"), invalid_at(31));
    EXPECT_EQ(s.print("do c"), "% Ambiguous command: \"c\"\n");
    EXPECT_EQ(s.print("do show"), "% Incomplete command.\n");
    EXPECT_EQ(s.run("do show"), 1);
}

TEST(Mode, GlobalCommandsWorkInInterfaceModeAndLeaveIt) {
    shell s;
    s.configure("vlan10");
    EXPECT_EQ(s.print("ip dhcp relay hops 8"), "");
    EXPECT_EQ(s.mode(), CLI_MODE_CONFIGURATION);
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls.back().interface, "");
    EXPECT_EQ(s.print("interface vlan10"), "");
    EXPECT_EQ(s.print("interface vlan20"), "");
    EXPECT_EQ(s.print("ip dhcp relay address 10.0.0.1"), "");
    EXPECT_EQ(calls.back().interface, "vlan20");
    EXPECT_EQ(s.print("ip dhcp relay"), "");
    EXPECT_EQ(s.mode(), CLI_MODE_CONFIGURATION);
}

TEST(Mode, ACommandOfBothModesIsTheInterfacesOwn) {
    shell s;
    s.configure("vlan10");
    EXPECT_EQ(s.print("no ip dhcp relay information t"), "");  // "trusted" here, though "trust-all" exists above
    EXPECT_EQ(s.mode(), CLI_MODE_INTERFACE);
    EXPECT_THAT(calls.back().interface, "vlan10");
    EXPECT_EQ(std::string(cli_box::relay_commands()[calls.back().command].text),
              "no ip dhcp relay information trusted");
}

TEST(Mode, EachSessionHasItsOwn) {
    shell a;
    shell b;
    a.configure("vlan10");
    b.configure("vlan20");
    (void)a.run("ip dhcp relay information trusted");
    EXPECT_EQ(calls.back().interface, "vlan10");
    (void)b.run("ip dhcp relay information trusted");
    EXPECT_EQ(calls.back().interface, "vlan20");
    (void)b.run("end");
    EXPECT_EQ(a.mode(), CLI_MODE_INTERFACE);
    EXPECT_EQ(b.mode(), CLI_MODE_EXEC);
}

TEST(Mode, PrivilegeIsGivenUpAndTakenBack) {
    shell s(20);
    EXPECT_EQ(session_privilege(*s.session), 20);
    EXPECT_EQ(s.run("disable"), 0);
    EXPECT_EQ(session_privilege(*s.session), 1);
    const std::string not_allowed = "% Not allowed at privilege level 1; \"enable\" gives back that of the session\n";
    EXPECT_EQ(s.print("show ip dhcp relay"), not_allowed);
    EXPECT_EQ(s.print("configure terminal"), not_allowed);
    EXPECT_EQ(s.print("show nothing"), invalid_at(5)) << "what is no command is none for anybody";
    EXPECT_EQ(s.run("enable"), 0);
    EXPECT_EQ(session_privilege(*s.session), 20);
    s.configure();
    EXPECT_EQ(s.run("do disable"), 0);
    EXPECT_EQ(session_privilege(*s.session), 1);
}

// ---- Ranges of interfaces ----

std::vector<std::string> interfaces_called() {
    std::vector<std::string> out;
    for (const cli_box::call &each : calls) out.push_back(each.interface);
    return out;
}

TEST(Range, AppliesEachCommandToEachInterface) {
    shell s;
    s.configure();
    EXPECT_EQ(s.print("interface range vlan 10,20-22"), "");
    EXPECT_EQ(s.mode(), CLI_MODE_INTERFACE);
    EXPECT_EQ(s.print("ip dhcp relay address 10.0.0.1"), "");
    EXPECT_THAT(interfaces_called(), ElementsAre("vlan10", "vlan20", "vlan21", "vlan22"));
    calls.clear();
    EXPECT_EQ(s.print("do show ip dhcp relay"), "");
    EXPECT_EQ(calls.size(), 1u);
    calls.clear();
    EXPECT_EQ(s.print("ip dhcp relay information trusted"), "");
    EXPECT_EQ(calls.size(), 4u);
}

TEST(Range, FailsWhenItFailsForOne) {
    shell s;
    s.configure();
    (void)s.run("interface range vlan 1-3");
    cli_box::handler_prints = "% no\n";
    cli_box::handler_returns = 1;
    EXPECT_EQ(s.print("ip dhcp relay information trusted"), "% no\n% no\n% no\n");
    EXPECT_EQ(s.run("ip dhcp relay information trusted"), 1);
}

TEST(Range, EndsWithItsMode) {
    shell s;
    s.configure();
    for (const char *leave : {"exit", "interface vlan5", "ip dhcp relay hops 3"}) {
        (void)s.run("interface range vlan 1-3");
        (void)s.run(leave);
        (void)s.run("interface vlan5");
        calls.clear();
        (void)s.run("ip dhcp relay information trusted");
        EXPECT_THAT(interfaces_called(), ElementsAre("vlan5")) << leave;
    }
}

TEST(Range, NamesWhatIsWrongWithItsList) {
    shell s;
    s.configure();
    EXPECT_EQ(s.print("interface range vlan 10,5000"),
              "% Invalid VLAN list: \"5000\" is neither a VLAN id from 1 to 4094 nor a range of them such as 20-30\n");
    EXPECT_EQ(s.mode(), CLI_MODE_CONFIGURATION);
}

// ---- Output ----

TEST(Output, HandlersPrintAsMuchAsTheyLike) {
    shell s;
    for (const std::size_t length : {0u, 1u, 511u, 512u, 513u, 100000u}) {
        cli_box::handler_prints = std::string(length, 'x');
        EXPECT_EQ(s.print("show ip dhcp relay"), cli_box::handler_prints);
    }
}

TEST(Output, ASessionThatIsGoneIsTold) {
    shell s;
    int pieces = 0;
    ravo::cli::session_output output;
    output.text = [&](std::string_view) {
        ++pieces;
        return -1;
    };
    const ravo::cli::session_ptr gone = ravo::cli::session_open(std::move(output), 31, "gone");
    cli_box::handler_prints = "text\n";
    EXPECT_EQ(ravo::cli::session_run(*gone, "show ip dhcp relay"), 0);
    EXPECT_EQ(ravo::cli::session_run(*gone, "show ip dhcp relay"), 0);
    EXPECT_EQ(pieces, 1);
}

TEST(Output, ResultsOfHandlersArePassedOn) {
    shell s;
    for (const int result : {0, 1, 4, 302021}) {
        cli_box::handler_returns = result;
        EXPECT_EQ(s.run("show ip dhcp relay"), result);
    }
}

// A command that prints through the views as the relay's show commands do.
int print_views(struct cli *cli, int /*argc*/, char ** /*argv*/) {
    const std::uint32_t key[2] = {3, 0xFFFFFF9C};
    if ((cli->view_flags & CLI_VIEW_KEYED) != 0) return cli->view_print(cli->view_buffer, key, sizeof key, "%d", 7);
    cli->print(cli->print_handle, "flags %u all %u\n", cli->view_flags, cli->show_all);
    return cli->view_print(cli->print_handle, key, sizeof key, "%s\n", "line");
}

struct view_shell {
    std::string text;
    std::vector<std::string> values;  // key bytes in hex, then the text
    int value_result = 0;
    ravo::cli::session_ptr session;

    view_shell() {
        static cli_element element{"test views", print_views, nullptr, {}};
        static const int installed = cli_install_gen(ravo::cli::library_globals()->tree, CLI_MODE_EXEC, 1, 0, &element);
        EXPECT_EQ(installed, 0);
        ravo::cli::session_output output;
        output.text = [this](std::string_view piece) {
            text += piece;
            return 0;
        };
        output.value = [this](std::span<const std::uint8_t> key, std::string_view value) {
            std::string entry;
            for (const std::uint8_t byte : key) entry += std::to_string(byte) + ".";
            values.push_back(entry + std::string(value));
            return value_result;
        };
        session = ravo::cli::session_open(std::move(output), 31, "views");
    }
    view_shell(const view_shell &) = delete;
    view_shell &operator=(const view_shell &) = delete;
};

TEST(View, FlagsReachTheHandler) {
    view_shell s;
    EXPECT_EQ(ravo::cli::session_run(*s.session, "test views"), 0);
    EXPECT_EQ(s.text, "flags 0 all 0\nline\n");
    s.text.clear();
    ravo::cli::session_set_view(*s.session, CLI_VIEW_TERMINAL | CLI_VIEW_SETTINGS, 1);
    EXPECT_EQ(ravo::cli::session_run(*s.session, "test views"), 0);
    EXPECT_EQ(s.text, "flags 3 all 1\nline\n");
    EXPECT_TRUE(s.values.empty());
}

TEST(View, KeyedLinesGoToTheirOwnOutput) {
    view_shell s;
    ravo::cli::session_set_view(*s.session, CLI_VIEW_KEYED, 0);
    EXPECT_EQ(ravo::cli::session_run(*s.session, "test views"), 0);
    EXPECT_THAT(s.values, ElementsAre("3.0.0.0.156.255.255.255.7"));
    EXPECT_EQ(s.text, "");
    s.value_result = CLI_BUFFER_FULL;
    EXPECT_EQ(ravo::cli::session_run(*s.session, "test views"), CLI_BUFFER_FULL);
}

// ---- Filters ----

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

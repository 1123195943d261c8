// SPDX-License-Identifier: Apache-2.0
// Sessions: modes, ranges of interfaces, output.
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
}  // namespace

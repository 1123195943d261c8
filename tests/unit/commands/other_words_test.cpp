// SPDX-License-Identifier: Apache-2.0
// Other words for commands of the relay's: each gives that command, and is recorded as that.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "cli_box.h"

namespace {

using cli_box::calls;
using cli_box::shell;
using testing::ElementsAre;
using testing::HasSubstr;
using words = std::vector<std::string>;

std::string text_of(const cli_box::call &call) {
    std::string out = cli_box::relay_commands().at(call.command).text;
    for (const std::string &each : call.arguments) out += " <" + each + ">";
    return out + (call.interface.empty() ? "" : " on " + call.interface);
}

words given() {
    words out;
    for (const cli_box::call &call : calls) out.push_back(text_of(call));
    return out;
}

TEST(OtherWords, SettingsGoBackToWhatTheyWere) {
    shell s;
    s.configure();
    EXPECT_EQ(s.run("no ip dhcp relay hops"), 0);
    EXPECT_EQ(s.run("no ip dhcp relay information policy"), 0);
    EXPECT_THAT(given(), ElementsAre("ip dhcp relay hops <1-16> <4>",
                                     "ip dhcp relay information policy {keep|drop|replace} <replace>"));
}

TEST(OtherWords, AHelperIsAServer) {
    shell s;
    s.configure("vlan7");
    EXPECT_EQ(s.run("ip helper-address 192.0.2.1"), 0);
    EXPECT_EQ(s.run("no ip helper-address 192.0.2.1"), 0);
    EXPECT_EQ(s.run("no ip helper-address"), 0);
    EXPECT_THAT(given(), ElementsAre("ip dhcp relay address A.B.C.D <192.0.2.1> on vlan7",
                                     "no ip dhcp relay address [A.B.C.D] <192.0.2.1> on vlan7",
                                     "no ip dhcp relay address [A.B.C.D] on vlan7"));
    EXPECT_EQ(s.mode(), CLI_MODE_INTERFACE);
    EXPECT_EQ(s.print("ip helper-address 192.0.2.400"), cli_box::invalid_at(18));
}

TEST(OtherWords, OfARangeEachInterfaceHasItOnce) {
    shell s;
    s.configure();
    (void)s.run("interface range vlan 7-9");
    EXPECT_EQ(s.run("ip helper-address 192.0.2.1"), 0);
    EXPECT_THAT(given(), ElementsAre("ip dhcp relay address A.B.C.D <192.0.2.1> on vlan7",
                                     "ip dhcp relay address A.B.C.D <192.0.2.1> on vlan8",
                                     "ip dhcp relay address A.B.C.D <192.0.2.1> on vlan9"));
}

TEST(OtherWords, WhatTheCommandReturnsIsReturned) {
    shell s;
    s.configure("vlan7");
    cli_box::handler_returns = 3;
    cli_box::handler_prints = "no room\n";
    EXPECT_EQ(s.run("ip helper-address 192.0.2.1"), 3);
    EXPECT_EQ(s.text.substr(s.text.size() - 8), "no room\n");
}

TEST(OtherWords, QuitLeavesAsExitDoes) {
    shell s;
    s.configure("vlan7");
    (void)s.run("quit");
    EXPECT_EQ(s.mode(), CLI_MODE_CONFIGURATION);
    (void)s.run("quit");
    EXPECT_EQ(s.mode(), CLI_MODE_EXEC);
    (void)s.run("quit");
    EXPECT_TRUE(ravo::cli::session_closed(*s.session));
}

TEST(OtherWords, HelpIsThereInEveryMode) {
    shell s;
    for (const int mode : {CLI_MODE_EXEC, CLI_MODE_CONFIGURATION, CLI_MODE_INTERFACE}) {
        s.enter(mode);
        EXPECT_THAT(s.print("help"), HasSubstr("completes the word")) << mode;
    }
}

TEST(OtherWords, SupportIsToldEverything) {
    shell s;
    cli_box::handler_prints = "of the relay\n";
    const std::string text = s.print("show tech-support");
    for (const char *line :
         {"show version", "show running-config", "show ip dhcp relay detail", "show ip dhcp relay server",
          "show ip dhcp relay client", "show ip dhcp relay xid-port-mapping", "show ip dhcp relay crashes",
          "show ip dhcp relay advice", "show configuration differences", "show configuration history", "show logging"})
        EXPECT_THAT(text, HasSubstr("\n------ " + std::string(line) + " ------\n\n"));
    EXPECT_THAT(text, HasSubstr("\n------ show ip dhcp relay detail ------\n\nof the relay\n"));
    EXPECT_THAT(text, testing::Not(HasSubstr("Invalid input")));
    EXPECT_EQ(s.print("show tech-support | include DHCPv4"), "ravo " RAVO_VERSION ", DHCPv4 relay agent\n");
}

TEST(OtherWords, WhatIsChangedIsRecordedAsTheCommand) {
    std::vector<std::string> record;
    ravo::cli::session_output output;
    output.text = [](std::string_view) { return 0; };
    output.changed = [&](std::string_view place, std::string_view line, int result) {
        record.push_back(std::string(place) + "|" + std::string(line) + "|" + std::to_string(result));
    };
    ASSERT_TRUE(cli_box::have_commands());
    cli_box::handler_prints.clear();
    cli_box::handler_returns = 0;
    const auto s = ravo::cli::session_open(std::move(output), 31, "tester");
    for (const char *line : {"configure terminal", "interface vlan 7", "ip helper-address 192.0.2.1", "show version",
                             "interface range vlan 7-9", "  ip dhcp relay address 192.0.2.2", "no ip dhcp relay hops",
                             "nonsense", "end", "clear ip dhcp relay statistics"})
        (void)ravo::cli::session_run(*s, line);
    cli_box::handler_returns = 5;
    (void)ravo::cli::session_run(*s, "clear ip dhcp relay detail counter");
    EXPECT_THAT(record, ElementsAre("vlan7|ip dhcp relay address 192.0.2.1|0",
                                    "vlan7 and 2 more|ip dhcp relay address 192.0.2.2|0", "|ip dhcp relay hops 4|0",
                                    "|clear ip dhcp relay statistics|0", "|clear ip dhcp relay detail counter|5"));
}

TEST(OtherWords, TheRelaysMessagesAreExplained) {
    shell s(2);
    const std::string text = s.print("show ip dhcp relay help");
    EXPECT_THAT(text, testing::StartsWith(
                          "RAVO Err Unhandle errno N\n    After servers were removed: that worked, and N servers"));
    EXPECT_THAT(text, HasSubstr("\nSet the same configuration current configuration\n"
                                "    What was asked for is in force already; nothing was changed.\n"));
    for (const std::string &page : {text, s.print("help")})
        for (std::size_t at = 0; at < page.size(); at = page.find('\n', at) + 1)
            EXPECT_LE(page.find('\n', at) - at, 80U) << page.substr(at, 100);
}

}  // namespace

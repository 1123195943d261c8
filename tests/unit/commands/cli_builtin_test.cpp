// SPDX-License-Identifier: Apache-2.0
// The platform's own commands about the session, the log and the daemon.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <regex>
#include <set>

#include "cli/tree.h"
#include "cli_box.h"
#include "log/log.h"
#include "sysinf_lib.h"

namespace {

using cli_box::shell;
using testing::ElementsAre;

struct asking_shell {
    std::string text;
    std::vector<std::string> log_lines;
    std::vector<int> lengths;
    std::vector<std::string> questions;
    bool answer = false;
    ravo::cli::session_ptr session;

    asking_shell() {
        ravo::cli::session_output output;
        output.text = [this](std::string_view piece) {
            text += piece;
            return 0;
        };
        output.monitor = [this](std::string_view line) { log_lines.emplace_back(line); };
        output.terminal_length = [this](int lines) { lengths.push_back(lines); };
        EXPECT_TRUE(cli_box::have_commands());
        output.confirm = [this](std::string_view question) {
            questions.emplace_back(question);
            return answer;
        };
        session = ravo::cli::session_open(std::move(output), 31, "asker");
    }
    asking_shell(const asking_shell &) = delete;
    asking_shell &operator=(const asking_shell &) = delete;
    int run(std::string_view line) { return ravo::cli::session_run(*session, line); }
};

class Log : public testing::Test {
  protected:
    void TearDown() override { ravo::platform::log_close(); }
};

TEST(Builtin, ShowVersion) {
    shell s;
    const std::string text = s.print("show version");
    EXPECT_TRUE(std::regex_match(
        text, std::regex("ravo [0-9.]+, DHCPv4 relay agent\nUptime: 0 days, [0-9]{2}:[0-9]{2}:[0-9]{2}\n")))
        << text;
}

TEST(Builtin, ShowHistory) {
    shell s;
    (void)s.run("  show version  ");
    (void)s.run("! comment");
    (void)s.run("");
    (void)s.run("frobnicate\n");
    EXPECT_EQ(s.print("show history"), "  show version\n  frobnicate\n  show history\n");
    for (int i = 0; i < 200; ++i) (void)s.run("show privilege");
    EXPECT_EQ(s.print("show history | count"), "100\n");
}

TEST(Builtin, ShowPrivilege) {
    shell s(15);
    EXPECT_EQ(s.print("show privilege"), "Current privilege level is 15\n");
    (void)s.run("disable");
    EXPECT_EQ(s.print("show privilege"), "Current privilege level is 1\n");
}

TEST(Builtin, ShowServiceStatus) {
    shell s;
    EXPECT_EQ(s.print("show service status"), "No service has reported yet\n");
    SYSINF_LIB_Proto_Status_Set(28, 1, "");
    EXPECT_EQ(s.print("show service status"), "DHCP relay on\n");
}

TEST(Builtin, ShowInterfacesBriefHasItsHeading) {
    shell s;
    EXPECT_EQ(s.print("show interfaces brief"),
              "Interface  Number  State  Address             Device           Index\n"
              "\nPort        Number  State  PVID  VLANs           Device           Numbered by\n");
}

TEST(Builtin, TerminalLength) {
    asking_shell s;
    EXPECT_EQ(s.run("terminal length 0"), 0);
    EXPECT_EQ(s.run("terminal length 512"), 0);
    EXPECT_EQ(s.run("terminal length 513"), 1);
    EXPECT_THAT(s.lengths, ElementsAre(0, 512));
}

TEST_F(Log, LevelIsSetAndShown) {
    shell s;
    EXPECT_EQ(s.run("logging level error"), 0);
    EXPECT_EQ(ravo::platform::log_threshold(), ravo::platform::log_level_error);
    EXPECT_EQ(s.run("logging level tr"), 0);
    EXPECT_EQ(ravo::platform::log_threshold(), ravo::platform::log_level_trace);
    EXPECT_EQ(s.print("show logging | include ^Log"), "Log level trace, to stderr\n");
    s.configure();
    EXPECT_EQ(s.run("logging level warning"), 0);
    EXPECT_EQ(ravo::platform::log_threshold(), ravo::platform::log_level_warning);
}

TEST_F(Log, LastLinesAreShown) {
    shell s;
    ravo::platform::log_line(ravo::platform::log_level_error, "something %d", 17);
    EXPECT_THAT(s.print("show logging"), testing::EndsWith("something 17\n"));
}

int resets = 0;
int reset_result = 0;
int reset() {
    ++resets;
    return reset_result;
}

TEST_F(Log, ResetAsksFirst) {
    asking_shell s;
    EXPECT_EQ(ravo::cli::run_reset(), 1) << "nothing is installed yet";
    ASSERT_EQ(cli_install_reset(ravo::cli::library_globals()->tree, reset), 0);
    EXPECT_EQ(s.run("reset relay"), 1);
    EXPECT_EQ(resets, 0);
    EXPECT_EQ(s.text, "");
    EXPECT_THAT(s.questions, ElementsAre("Reset the relay to its state after start-up, without any settings?"));
    s.answer = true;
    EXPECT_EQ(s.run("reset relay"), 0);
    EXPECT_EQ(resets, 1);
    shell nobody_to_ask;
    EXPECT_EQ(nobody_to_ask.run("reset relay"), 0);
    reset_result = 5;
    EXPECT_EQ(nobody_to_ask.print("reset relay"), "% The relay could not be reset (5)\n");
    EXPECT_EQ(nobody_to_ask.run("reset relay"), 1);
}

TEST(Builtin, EraseAsksFirst) {
    asking_shell s;
    EXPECT_EQ(s.run("write erase"), 1);
    EXPECT_THAT(s.questions, ElementsAre("Erase the startup configuration?"));
}

// ---- The table ----

TEST(Table, HasEveryCommandOfThePlatform) {
    shell s;
    std::set<std::pair<int, std::string>> installed;
    for (const auto &each : ravo::cli::installed_commands()) {
        EXPECT_TRUE(installed.emplace(each.mode, each.text).second) << each.text << " is installed twice";
    }
    for (const char *text : {"configure terminal",
                             "exit",
                             "enable",
                             "disable",
                             "terminal length <0-512>",
                             "terminal monitor [error|warning|trace] [interface NAME]",
                             "terminal no monitor",
                             "logging level {error|warning|trace}",
                             "reset relay",
                             "show version",
                             "show history",
                             "show privilege",
                             "show interfaces brief",
                             "show logging",
                             "show service status",
                             "show running-config",
                             "show startup-config",
                             "copy running-config startup-config",
                             "copy startup-config running-config",
                             "write",
                             "write memory",
                             "write erase"})
        EXPECT_EQ(installed.count({CLI_MODE_EXEC, text}), 1u) << text;
    for (const int mode : {CLI_MODE_CONFIGURATION, CLI_MODE_INTERFACE})
        for (const char *text : {"exit", "end", "do LINE", "ip dhcp local-relay", "no ip dhcp local-relay"})
            EXPECT_EQ(installed.count({mode, text}), 1u) << text << " in mode " << mode;
    EXPECT_EQ(installed.count({CLI_MODE_CONFIGURATION, "interface range vlan LIST"}), 1u);
}

}  // namespace

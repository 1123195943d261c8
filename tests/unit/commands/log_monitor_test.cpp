// SPDX-License-Identifier: Apache-2.0
// "terminal monitor": the log at a terminal, with time and level, as much of it as was asked for.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "cli/command_line.h"
#include "cli_box.h"
#include "log/log.h"

namespace {

using cli_box::shell;
using ravo::platform::log_level_error;
using ravo::platform::log_level_start;
using ravo::platform::log_level_trace;
using ravo::platform::log_level_warning;
using ravo::platform::log_line;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;

// A session at a terminal that may be slow.
struct watching_shell {
    std::string text;
    std::vector<std::string> log_lines;
    bool full = false;
    ravo::cli::session_ptr session;

    watching_shell() {
        ravo::cli::session_output output;
        output.text = [this](std::string_view piece) {
            text += piece;
            return 0;
        };
        output.monitor = [this](std::string_view line) { log_lines.emplace_back(line); };
        output.full = [this] { return full; };
        EXPECT_TRUE(cli_box::have_commands());
        session = ravo::cli::session_open(std::move(output), 31, "watcher");
    }
    watching_shell(const watching_shell &) = delete;
    watching_shell &operator=(const watching_shell &) = delete;
    int run(std::string_view line) { return ravo::cli::session_run(*session, line); }
};

class LogMonitor : public testing::Test {
  protected:
    void TearDown() override { ravo::platform::log_close(); }
};

TEST_F(LogMonitor, ShowsLinesUntilItIsTurnedOff) {
    watching_shell s;
    EXPECT_EQ(s.run("terminal monitor"), 0);
    EXPECT_EQ(s.run("terminal monitor"), 0);
    ravo::platform::log_text(ravo::platform::log_level_trace, "a trace\n");
    EXPECT_THAT(s.log_lines, ElementsAre(MatchesRegex("[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} trace: a trace")));
    EXPECT_EQ(s.run("terminal no monitor"), 0);
    EXPECT_EQ(s.run("terminal no monitor"), 0);
    ravo::platform::log_text(ravo::platform::log_level_trace, "another\n");
    EXPECT_EQ(s.log_lines.size(), 1u);
}

TEST_F(LogMonitor, EndsWithItsSession) {
    std::vector<std::string> lines;
    {
        ravo::cli::session_output output;
        output.monitor = [&](std::string_view line) { lines.emplace_back(line); };
        EXPECT_TRUE(cli_box::have_commands());
        const ravo::cli::session_ptr s = ravo::cli::session_open(std::move(output), 31, "short");
        EXPECT_EQ(ravo::cli::session_run(*s, "terminal monitor"), 0);
    }
    ravo::platform::log_text(ravo::platform::log_level_trace, "late\n");
    EXPECT_TRUE(lines.empty());
}

TEST_F(LogMonitor, NeedsASessionThatCanShowIt) {
    shell s;
    EXPECT_EQ(s.print("terminal monitor"), "% This session cannot show log lines\n");
    EXPECT_EQ(s.run("terminal monitor"), 1);
}

TEST_F(LogMonitor, TellsTheLevelOfEachLine) {
    watching_shell s;
    EXPECT_EQ(s.run("terminal monitor"), 0);
    log_line(log_level_start, "one");
    log_line(log_level_warning, "two");
    log_line(log_level_error, "three");
    EXPECT_THAT(s.log_lines,
                ElementsAre(EndsWith(" notice: one"), EndsWith(" warning: two"), EndsWith(" error: three")));
}

TEST_F(LogMonitor, ShowsALevelAndThoseAboveIt) {
    watching_shell s;
    EXPECT_EQ(s.run("terminal monitor warning"), 0);
    log_line(log_level_trace, "a trace");
    log_line(log_level_warning, "a warning");
    EXPECT_EQ(s.run("terminal monitor err"), 0) << "in place of what was asked for before";
    log_line(log_level_warning, "another warning");
    log_line(log_level_error, "a failure");
    EXPECT_THAT(s.log_lines, ElementsAre(EndsWith("a warning"), EndsWith("a failure")));
}

TEST_F(LogMonitor, ShowsLinesOfOneInterface) {
    watching_shell s;
    EXPECT_EQ(s.run("terminal monitor interface vlan20"), 0);
    log_line(log_level_warning, "interface vlan20: gone");
    log_line(log_level_warning, "interface vlan201: gone");
    log_line(log_level_warning, "xvlan20, vlan20.5 and vlan20/1 are others");
    ravo::platform::log_subject about;
    about.vlan = 20;
    ravo::platform::log_subject_begin(about);
    log_line(log_level_warning, "a message of it");
    ravo::platform::log_subject_end("");
    about.vlan = 21;
    ravo::platform::log_subject_begin(about);
    log_line(log_level_warning, "a message of another");
    ravo::platform::log_subject_end("");
    log_line(log_level_warning, "the end of vlan20.");
    EXPECT_THAT(s.log_lines, ElementsAre(EndsWith("interface vlan20: gone"), EndsWith("a message of it"),
                                         EndsWith("the end of vlan20.")));
}

TEST_F(LogMonitor, ShowsLinesOfOnePortAndLevel) {
    watching_shell s;
    EXPECT_EQ(s.run("terminal monitor warning interface 1/7"), 0);
    ravo::platform::log_subject about;
    about.port_ifindex = 5127;
    ravo::platform::log_subject_begin(about);
    log_line(log_level_trace, "a trace of it");
    log_line(log_level_warning, "a message of it");
    ravo::platform::log_subject_end("");
    log_line(log_level_warning, "port 1/7 is held");
    log_line(log_level_warning, "port 11/7 is held");
    EXPECT_THAT(s.log_lines, ElementsAre(EndsWith("a message of it"), EndsWith("port 1/7 is held")));
}

TEST_F(LogMonitor, KnowsWhatIsNoInterface) {
    watching_shell s;
    EXPECT_EQ(s.run("terminal monitor interface nosuch"), 1);
    EXPECT_EQ(s.text, "% \"nosuch\" is no interface and no port\n");
    log_line(log_level_warning, "a line");
    EXPECT_THAT(s.log_lines, IsEmpty());
}

TEST_F(LogMonitor, ASlowTerminalMissesLinesAndIsToldHowMany) {
    watching_shell s;
    EXPECT_EQ(s.run("terminal monitor"), 0);
    s.full = true;
    for (int i = 0; i < 3; ++i) log_line(log_level_warning, "missed");
    EXPECT_THAT(s.log_lines, IsEmpty());
    s.full = false;
    log_line(log_level_warning, "shown");
    log_line(log_level_warning, "shown too");
    EXPECT_THAT(s.log_lines, ElementsAre("3 lines came faster than they could be shown", EndsWith(" shown"),
                                         EndsWith(" shown too")));
}

}  // namespace

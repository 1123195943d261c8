// SPDX-License-Identifier: Apache-2.0
// Configurations: replayed from files, and saved in them.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "base/files.h"
#include "cli_box.h"
#include "configuration/configuration.h"
#include "configuration_box.h"
#include "interfaces/nsm_feed.h"
#include "log/log.h"
#include "nsm.h"
#include "process/frame.h"
#include "process/relay_data.h"
#include "relay_access.h"

namespace {

namespace fs = std::filesystem;

using cli_box::calls;
using cli_box::relay_commands;
using cli_box::shell;
using configuration_box::Configuration;
using ravo::cli::erase_file;
using ravo::cli::replay_file;
using ravo::cli::running_configuration;
using ravo::cli::save_file;
using ravo::platform::read_file;
using testing::ElementsAre;
using testing::IsEmpty;

// ---- Replay ----

TEST_F(Configuration, AFileIsReplayedFromTheGlobalMode) {
    EXPECT_TRUE(replay("ip dhcp relay\n!\nip dhcp relay hops 8\n!\n!\ninterface vlan10\n"
                       " ip dhcp relay information trusted\n ip dhcp relay address 10.0.0.1\n!\ninterface vlan 20\n"
                       " ip dhcp relay address 10.0.0.2\nip dhcp relay information option\nend\n")
                    .empty());
    EXPECT_EQ(result_, 0);
    EXPECT_THAT(lines_called(),
                ElementsAre("ip dhcp relay", "ip dhcp relay hops <1-16> (8)", "interface IFNAME (vlan10)",
                            "vlan10: ip dhcp relay information trusted",
                            "vlan10: ip dhcp relay address A.B.C.D (10.0.0.1)", "interface vlan <1-4094> (20)",
                            "vlan20: ip dhcp relay address A.B.C.D (10.0.0.2)", "ip dhcp relay information option"));
}

TEST_F(Configuration, AMarkOfUtf8AtTheBeginningIsNoPartOfTheFirstLine) {
    EXPECT_THAT(replay("\xEF\xBB\xBFip dhcp relay hops 7\r\n"), IsEmpty());
    EXPECT_THAT(lines_called(), ElementsAre("ip dhcp relay hops <1-16> (7)"));
    calls.clear();
    EXPECT_THAT(replay("\xEF\xBB\xBF"), IsEmpty());
    EXPECT_THAT(replay("\n\xEF\xBB\xBFip dhcp relay\n"),
                ElementsAre("2: invalid input at \"\xEF\xBB\xBFip\", column 1: \xEF\xBB\xBFip dhcp relay"));
    EXPECT_THAT(calls, IsEmpty());
}

TEST_F(Configuration, EachLineThatFailsIsNamedAndTheRestCounts) {
    EXPECT_THAT(replay("ip dhcp relay hops 99\nfrobnicate\nip dhcp relay hops\r\n\n! comment\n"
                       "interface vlan10\n ip dhcp relay inf\n e\n ip dhcp relay address 10.0.0.1\n"
                       " ip dhcp relay address \"10.0.0.2\n" +
                       std::string(40000, 'x') + "\nlast\x1b[0m line"),
                ElementsAre("1: invalid input at \"99\", column 20: ip dhcp relay hops 99",
                            "2: invalid input at \"frobnicate\", column 1: frobnicate",
                            "3: incomplete command: ip dhcp relay hops", "7: incomplete command: ip dhcp relay inf",
                            "8: ambiguous command, write \"e\" in full: e",
                            "10: invalid input at \"\"10.0.0.2\", column 24: ip dhcp relay address \"10.0.0.2",
                            "11: line of 40000 bytes, at most 32768 can be read: " + std::string(120, 'x') + "...",
                            "12: invalid input at \"last?[0m\", column 1: last?[0m line"));
    EXPECT_EQ(result_, 8);
    EXPECT_THAT(lines_called(),
                ElementsAre("interface IFNAME (vlan10)", "vlan10: ip dhcp relay address A.B.C.D (10.0.0.1)"));
}

TEST_F(Configuration, WhatAHandlerSaysIsTheReason) {
    cli_box::handler_returns = 1;
    cli_box::handler_prints = "% Set the same configuration current configuration\n";
    EXPECT_THAT(replay("ip dhcp relay hops 4\n"),
                ElementsAre("1: Set the same configuration current configuration: ip dhcp relay hops 4"));
    cli_box::handler_prints = "% Can not set it \n% please set IP address first\n";
    EXPECT_THAT(replay("ip dhcp relay\n"),
                ElementsAre("1: Can not set it; please set IP address first: ip dhcp relay"));
    cli_box::handler_prints.clear();
    cli_box::handler_returns = 302021;
    EXPECT_THAT(replay("ip dhcp relay\n"), ElementsAre("1: the command failed (302021): ip dhcp relay"));
}

TEST_F(Configuration, CheckingHasTheRelayJudgeItsLinesWithoutSockets) {
    const int level = ravo::platform::log_threshold();
    EXPECT_THAT(replay("ip dhcp relay\ninterface vlan10\n ip dhcp relay address 10.0.0.1\n ip dhcp relay address x\n"
                       "exit\ndo reset relay\nip dhcp relay hops 17\ninterface range vlan 1-2\n"
                       " ip dhcp relay information trusted\ndo logging level error\nno ip dhcp relay\n",
                       /*check_only=*/true),
                ElementsAre("4: invalid input at \"x\", column 24: ip dhcp relay address x",
                            "7: invalid input at \"17\", column 20: ip dhcp relay hops 17"));
    EXPECT_THAT(lines_called(),
                ElementsAre("interface IFNAME (vlan10)", "vlan10: ip dhcp relay address A.B.C.D (10.0.0.1)",
                            "vlan1: ip dhcp relay information trusted", "vlan2: ip dhcp relay information trusted",
                            "no ip dhcp relay"));
    EXPECT_EQ(ravo::platform::log_threshold(), level);
    for (const bool check_only : {false, true})
        EXPECT_THAT(replay("do disable\nip dhcp relay hops 9\ndo enable\nip dhcp relay hops 8\n", check_only),
                    ElementsAre("2: not allowed at privilege level 1; \"enable\" gives back that of the session: "
                                "ip dhcp relay hops 9"));
    cli_box::handler_returns = 1;
    cli_box::handler_prints = "% No such thing\n";
    for (const bool check_only : {false, true})
        EXPECT_THAT(replay("ip dhcp relay hops 9\n", check_only),
                    ElementsAre("1: No such thing: ip dhcp relay hops 9"));
}

TEST_F(Configuration, ALineMayListAllVlans) {
    std::string list = "1";
    for (int vlan = 2; vlan <= 4094; ++vlan) list += "," + std::to_string(vlan);
    EXPECT_TRUE(replay("interface range vlan " + list + "\n").empty());
}

TEST_F(Configuration, CommandsOfExecutionModeFollowEnd) {
    EXPECT_TRUE(replay("interface vlan10\nend\nclear ip dhcp relay detail counter\nip dhcp relay hops 3\nexit\nexit\n"
                       "ip dhcp relay\n")
                    .empty());
    EXPECT_EQ(calls.size(), 4u);
    EXPECT_EQ(calls.back().mode, CLI_MODE_CONFIGURATION);
}

TEST_F(Configuration, ALineOfNeitherModeLeavesTheFileWhereItIs) {
    EXPECT_THAT(replay("end\nnonsense\nclear ip dhcp relay detail counter\nip dhcp relay hops 17\nip dhcp relay\n"),
                ElementsAre("2: invalid input at \"nonsense\", column 1: nonsense",
                            "4: invalid input at \"17\", column 20: ip dhcp relay hops 17"));
    EXPECT_THAT(lines_called(), ElementsAre("clear ip dhcp relay detail counter", "ip dhcp relay"));
}

TEST_F(Configuration, AFileNeitherReplaysNorReplacesItself) {
    const std::string refused = "Not possible while a configuration is replayed";
    const std::string text =
        "do copy startup-config running-config\nip dhcp relay hops 3\nend\nwrite memory\nwrite\nwrite erase\n"
        "copy running-config startup-config\nip dhcp relay hops 4\n";
    for (const bool check_only : {false, true}) {
        EXPECT_THAT(
            replay(text, check_only),
            ElementsAre("1: " + refused + ": do copy startup-config running-config", "4: " + refused + ": write memory",
                        "5: " + refused + ": write", "6: " + refused + ": write erase",
                        "7: " + refused + ": copy running-config startup-config"));
        EXPECT_EQ(read(path_), text);
        EXPECT_EQ(calls.size(), 2u);
        calls.clear();
    }
}

TEST_F(Configuration, LinesWithACommandAreCounted) {
    std::ofstream(path_) << "! a remark\n\nip dhcp relay hops 3\n  \n ip dhcp relay nonsense\n!\nip dhcp relay hops 4";
    std::size_t commands = 0;
    EXPECT_EQ(replay_file(
                  path_, /*optional=*/false, false, [](const std::string & /*line*/) {}, &commands),
              1);
    EXPECT_EQ(commands, 3u);
}

TEST_F(Configuration, FilesThatCannotBeRead) {
    std::vector<std::string> reports;
    const auto report = [&](const std::string &line) { reports.push_back(line); };
    EXPECT_EQ(replay_file(path_, /*optional=*/true, false, report), 0);
    EXPECT_TRUE(reports.empty());
    EXPECT_EQ(replay_file(path_, /*optional=*/false, false, report), -1);
    EXPECT_EQ(replay_file(folder_, /*optional=*/true, false, report), -1);
    EXPECT_EQ(replay_file("/dev/zero", /*optional=*/true, false, report), -1);
    EXPECT_THAT(reports, ElementsAre(path_ + ": cannot be read: No such file or directory",
                                     folder_ + ": cannot be read: Is a directory",
                                     "/dev/zero: cannot be read: Invalid argument"));
    std::string text;
    write(std::string(1000, 'x'));
    EXPECT_EQ(read_file(path_, 999, &text), EFBIG);
    EXPECT_EQ(read_file(path_, 1000, &text), 0);
}

// ---- Saving ----

TEST_F(Configuration, ASavedFileReplacesAndKeepsTheOldOne) {
    EXPECT_EQ(save_file(path_, "one\n").text, "");
    EXPECT_EQ(read(path_), "one\n");
    EXPECT_FALSE(fs::exists(path_ + ".1"));
    EXPECT_EQ(save_file(path_, "two\n").text, "");
    EXPECT_EQ(save_file(path_, "three\n").text, "");
    EXPECT_EQ(read(path_), "three\n");
    EXPECT_EQ(read(path_ + ".1"), "two\n");
    for (const std::string &path : {path_, path_ + ".1"}) {
        struct stat status;
        ASSERT_EQ(stat(path.c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 07777, 0600u) << path;
    }
    EXPECT_EQ(std::distance(fs::directory_iterator(folder_), fs::directory_iterator()), 2);
}

TEST_F(Configuration, WhatASaveLeftBehindIsTakenOver) {
    std::ofstream(path_ + ".new") << "half";
    EXPECT_EQ(save_file(path_, "whole\n").text, "");
    EXPECT_EQ(read(path_), "whole\n");
    EXPECT_FALSE(fs::exists(path_ + ".new"));
}

TEST_F(Configuration, ALinkStaysAndTheFileBehindItIsReplaced) {
    const std::string disk = folder_ + "/disk";
    fs::create_directory(disk);
    fs::create_symlink("disk/link", path_);
    fs::create_symlink(disk + "/config", disk + "/link");
    EXPECT_EQ(save_file(path_, "one\n").text, "") << "where it leads there is nothing yet";
    EXPECT_EQ(save_file(path_, "two\n").text, "");
    EXPECT_TRUE(fs::is_symlink(path_));
    EXPECT_FALSE(fs::exists(path_ + ".1"));
    EXPECT_EQ(read(disk + "/config"), "two\n");
    EXPECT_EQ(read(disk + "/config.1"), "one\n");
    EXPECT_EQ(erase_file(path_).text, "");
    EXPECT_TRUE(fs::is_symlink(path_));
    EXPECT_FALSE(fs::exists(disk + "/config"));
    EXPECT_EQ(erase_file(path_).text, "") << "nothing is there to be erased";
    fs::remove_all(disk);
    EXPECT_EQ(save_file(path_, "x").text,
              folder_ + "/disk/link cannot be written: No such file or directory; its folder does not exist");
    fs::remove(path_);
    fs::create_symlink(path_, path_);
    EXPECT_EQ(save_file(path_, "x").text, path_ + ".1 cannot be written: Too many levels of symbolic links");
    EXPECT_EQ(erase_file(path_).text, "");
    EXPECT_FALSE(fs::is_symlink(path_));
}

TEST_F(Configuration, AnErrorOfASaveSaysWhyAndLeavesTheFile) {
    EXPECT_EQ(save_file(folder_ + "/none/config", "x").text,
              folder_ + "/none/config cannot be written: No such file or directory; its folder does not exist");
    EXPECT_EQ(save_file("/proc/ravo-config", "x").text.substr(0, 36), "/proc/ravo-config cannot be written:");
    write("old\n");
    fs::create_directory(path_ + ".new");
    EXPECT_EQ(save_file(path_, "x").text, path_ + " cannot be written: Is a directory");
    EXPECT_EQ(read(path_), "old\n");
    fs::remove(path_ + ".new");
    fs::remove(path_ + ".1");
    fs::create_directory(path_ + ".1");
    EXPECT_EQ(save_file(path_, "x").text, path_ + ".1 cannot be written: Is a directory");
    EXPECT_EQ(read(path_), "old\n");
}

TEST_F(Configuration, AFullDiskIsReported) {
    ASSERT_EQ(save_file(path_, "old\n").text, "");
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {  // a limit on the size of files fails writes as a full disk does
        signal(SIGXFSZ, SIG_IGN);
        const struct rlimit limit = {1000, 1000};
        setrlimit(RLIMIT_FSIZE, &limit);
        const ravo::fault wrong = save_file(path_, std::string(5000, 'x'));
        _exit(wrong.text == path_ + " cannot be written: File too large" ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_EQ(read(path_), "old\n");
    EXPECT_FALSE(fs::exists(path_ + ".new"));
}

TEST_F(Configuration, KilledAtAnyMomentTheFileIsOldOrNew) {
    const std::string texts[] = {std::string(20000, 'a') + "\n", std::string(30000, 'b') + "\n"};
    ASSERT_EQ(save_file(path_, texts[0]).text, "");
    for (int round = 0; round < 40; ++round) {
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0)
            for (unsigned i = 0;; ++i) (void)save_file(path_, texts[i % 2]);
        usleep(static_cast<useconds_t>(500 + 97 * round));  // any moment will do; nothing is awaited
        ASSERT_EQ(kill(child, SIGKILL), 0);
        ASSERT_EQ(waitpid(child, nullptr, 0), child);
        const std::string now = read(path_);
        EXPECT_TRUE(now == texts[0] || now == texts[1]) << "round " << round << ": " << now.size() << " bytes";
    }
}
}  // namespace

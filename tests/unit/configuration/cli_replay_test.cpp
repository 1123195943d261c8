// SPDX-License-Identifier: Apache-2.0
// Configurations: replayed from files, written, saved, erased.
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
using ravo::cli::erase_file;
using ravo::cli::replay_file;
using ravo::cli::running_configuration;
using ravo::cli::save_file;
using ravo::platform::read_file;
using testing::ElementsAre;
using testing::IsEmpty;

// A folder of its own for each test, with the start-up configuration in it.
class Configuration : public testing::Test {
  protected:
    void SetUp() override {
        char name[] = "/tmp/ravo-cli-XXXXXX";
        ASSERT_NE(mkdtemp(name), nullptr);
        folder_ = name;
        path_ = folder_ + "/startup-config";
        ravo::platform::frame_options options;
        options.startup_config = path_;
        ravo::platform::frame_set_options(options);
    }
    void TearDown() override { fs::remove_all(folder_); }

    void write(std::string_view text) const { std::ofstream(path_, std::ios::binary) << text; }
    static std::string read(const std::string &path) {
        std::ifstream file(path, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    }
    // Replays a text; the reports without the file's path.
    std::vector<std::string> replay(std::string_view text, bool check_only = false) {
        write(text);
        std::vector<std::string> out;
        result_ = replay_file(path_, /*optional=*/false, check_only, [&](const std::string &line) {
            EXPECT_TRUE(line.starts_with(path_ + ":")) << line;
            out.push_back(line.substr(path_.size() + 1));
        });
        return out;
    }
    static std::vector<std::string> lines_called() {
        std::vector<std::string> out;
        for (const cli_box::call &each : calls) {
            std::string line = each.interface.empty() ? "" : each.interface + ": ";
            line += relay_commands()[each.command].text;
            for (const std::string &argument : each.arguments) line += " (" + argument + ")";
            out.push_back(line);
        }
        return out;
    }

    std::string folder_;
    std::string path_;
    int result_ = 0;
    shell shell_;
};

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
    EXPECT_EQ(save_file(path_, "one\n"), "");
    EXPECT_EQ(read(path_), "one\n");
    EXPECT_FALSE(fs::exists(path_ + ".1"));
    EXPECT_EQ(save_file(path_, "two\n"), "");
    EXPECT_EQ(save_file(path_, "three\n"), "");
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
    EXPECT_EQ(save_file(path_, "whole\n"), "");
    EXPECT_EQ(read(path_), "whole\n");
    EXPECT_FALSE(fs::exists(path_ + ".new"));
}

TEST_F(Configuration, ALinkStaysAndTheFileBehindItIsReplaced) {
    const std::string disk = folder_ + "/disk";
    fs::create_directory(disk);
    fs::create_symlink("disk/link", path_);
    fs::create_symlink(disk + "/config", disk + "/link");
    EXPECT_EQ(save_file(path_, "one\n"), "") << "where it leads there is nothing yet";
    EXPECT_EQ(save_file(path_, "two\n"), "");
    EXPECT_TRUE(fs::is_symlink(path_));
    EXPECT_FALSE(fs::exists(path_ + ".1"));
    EXPECT_EQ(read(disk + "/config"), "two\n");
    EXPECT_EQ(read(disk + "/config.1"), "one\n");
    EXPECT_EQ(erase_file(path_), "");
    EXPECT_TRUE(fs::is_symlink(path_));
    EXPECT_FALSE(fs::exists(disk + "/config"));
    EXPECT_EQ(erase_file(path_), "") << "nothing is there to be erased";
    fs::remove_all(disk);
    EXPECT_EQ(save_file(path_, "x"),
              folder_ + "/disk/link cannot be written: No such file or directory; its folder does not exist");
    fs::remove(path_);
    fs::create_symlink(path_, path_);
    EXPECT_EQ(save_file(path_, "x"), path_ + ".1 cannot be written: Too many levels of symbolic links");
    EXPECT_EQ(erase_file(path_), "");
    EXPECT_FALSE(fs::is_symlink(path_));
}

TEST_F(Configuration, AnErrorOfASaveSaysWhyAndLeavesTheFile) {
    EXPECT_EQ(save_file(folder_ + "/none/config", "x"),
              folder_ + "/none/config cannot be written: No such file or directory; its folder does not exist");
    EXPECT_EQ(save_file("/proc/ravo-config", "x").substr(0, 36), "/proc/ravo-config cannot be written:");
    write("old\n");
    fs::create_directory(path_ + ".new");
    EXPECT_EQ(save_file(path_, "x"), path_ + " cannot be written: Is a directory");
    EXPECT_EQ(read(path_), "old\n");
    fs::remove(path_ + ".new");
    fs::remove(path_ + ".1");
    fs::create_directory(path_ + ".1");
    EXPECT_EQ(save_file(path_, "x"), path_ + ".1 cannot be written: Is a directory");
    EXPECT_EQ(read(path_), "old\n");
}

TEST_F(Configuration, AFullDiskIsReported) {
    ASSERT_EQ(save_file(path_, "old\n"), "");
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {  // a limit on the size of files fails writes as a full disk does
        signal(SIGXFSZ, SIG_IGN);
        const struct rlimit limit = {1000, 1000};
        setrlimit(RLIMIT_FSIZE, &limit);
        const std::string reason = save_file(path_, std::string(5000, 'x'));
        _exit(reason == path_ + " cannot be written: File too large" ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_EQ(read(path_), "old\n");
    EXPECT_FALSE(fs::exists(path_ + ".new"));
}

TEST_F(Configuration, KilledAtAnyMomentTheFileIsOldOrNew) {
    const std::string texts[] = {std::string(20000, 'a') + "\n", std::string(30000, 'b') + "\n"};
    ASSERT_EQ(save_file(path_, texts[0]), "");
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

// ---- The running configuration ----

std::string section_text;
int write_section(struct cli *cli) {
    cli->print(cli->print_handle, "%s", section_text.c_str());
    return 1;
}

relay_settings settings;
std::vector<relay_interface> interfaces;

void get_settings(relay_settings *out) {
    *out = settings;
}

int get_first(relay_interface *out) {
    if (interfaces.empty()) return 0;
    *out = interfaces.front();
    return 1;
}

int get(const char *name, relay_interface *out) {
    for (const relay_interface &each : interfaces) {
        if (std::strcmp(each.name, name) != 0) continue;
        *out = each;
        return 1;
    }
    return 0;
}

int get_next(relay_interface *inout) {
    for (std::size_t i = 0; i + 1 < interfaces.size(); ++i) {
        if (std::strcmp(interfaces[i].name, inout->name) != 0) continue;
        *inout = interfaces[i + 1];
        return 1;
    }
    return 0;
}

int local_relay_set(int on) {
    const bool changed = settings.local_relay_enable != static_cast<std::uint32_t>(on);
    settings.local_relay_enable = static_cast<std::uint32_t>(on);
    return changed ? 1 : 0;
}

std::vector<std::uint8_t> vlan_request;
int vlan_result = 1;
int local_relay_vlans(const void *request) {
    const auto *bytes = static_cast<const std::uint8_t *>(request);
    vlan_request.assign(bytes, bytes + 8194);
    return vlan_result;
}

std::vector<std::string> local_relay_interfaces;
int interface_local_relay_set(const char *name, int on) {
    local_relay_interfaces.push_back(std::string(name) + (on == 1 ? " on" : " off"));
    return 1;
}

std::vector<std::string> made_interfaces;
int interface_make(const char *name) {
    made_interfaces.emplace_back(name);
    return 1;
}

constexpr relay_access fake_relay = {.settings = get_settings,
                                     .interface_get = get,
                                     .interface_first = get_first,
                                     .interface_next = get_next,
                                     .interface_make = interface_make,
                                     .transaction_first = nullptr,
                                     .transaction_next = nullptr,
                                     .local_relay_set = local_relay_set,
                                     .local_relay_vlans = local_relay_vlans,
                                     .interface_local_relay_set = interface_local_relay_set};

class Running : public Configuration {
  protected:
    void SetUp() override {
        Configuration::SetUp();
        static const int installed =
            cli_install_config(ravo::cli::library_globals()->tree, CLI_MODE_RELAY_SECTION, write_section);
        ASSERT_EQ(installed, 0);
        relay_access_register(&fake_relay);
        section_text.clear();
        settings = {};
        interfaces.clear();
        vlan_request.clear();
        vlan_result = 1;
        local_relay_interfaces.clear();
        made_interfaces.clear();
    }
    static relay_interface iface(const char *name) {
        relay_interface out{};
        std::snprintf(out.name, sizeof out.name, "%s", name);
        out.ifindex = 1034;  // records without an index are a case of their own
        return out;
    }
};

TEST_F(Running, IsTheRelaysSectionAlone) {
    section_text = "ip dhcp relay\n!\n!\ninterface vlan10\n ip dhcp relay information trusted\n";
    interfaces = {iface("vlan10")};
    interfaces[0].trusted = 1;
    EXPECT_EQ(running_configuration(), section_text);
    EXPECT_EQ(shell_.print("show running-config"), section_text);
    EXPECT_EQ(shell_.print("show running-config | include interface"), "interface vlan10\n");
}

TEST_F(Running, ComesBackWithTheRecordsThatHaveNoSettings) {
    write("!\ninterface vlan10\n!\ninterface vlan20\n!\nexit\ninterface vlan10\n");
    EXPECT_EQ(replay_file(path_, false, true, [](const std::string &) {}), 0);
    EXPECT_EQ(made_interfaces, (std::vector<std::string>{"vlan10", "vlan20", "vlan10"}))
        << "a check has the relay judge its lines on the records that there will be";
    made_interfaces.clear();
    EXPECT_EQ(replay_file(path_, false, false, [](const std::string &) {}), 0);
    EXPECT_EQ(made_interfaces, (std::vector<std::string>{"vlan10", "vlan20", "vlan10"}));
}

TEST_F(Running, AddsWhatTheRelaysSectionLeavesOut) {
    section_text = "ip dhcp relay\n!\n!\ninterface vlan10\n!\ninterface vlan20\n ip dhcp relay information trusted\n";
    settings.trust_all = 1;
    settings.local_relay_enable = 1;
    settings.local_relay_vlan[3] = 30;
    interfaces = {iface("vlan10"), iface("vlan20"), iface("vlan30")};
    interfaces[1].trusted = 1;
    interfaces[1].local_relay = 1;
    interfaces[2].trusted = 1;
    relay_option60_host &host60 = interfaces[2].option60[1];
    host60.used = 1;
    host60.match_rule = 1;
    std::strcpy(host60.vendor, "two words\"");
    host60.server = inet_addr("10.0.0.3");
    interfaces[2].option60[0] = host60;
    interfaces[2].option60[0].match_rule = 0;
    std::strcpy(interfaces[2].option60[0].vendor, "plain");
    relay_option61_host &host61 = interfaces[2].option61[2];
    host61.used = 1;
    host61.client_id[0] = 0x0A;
    host61.client_id[1] = 0xBC;
    host61.client_id_length = 2;
    host61.server = inet_addr("10.0.0.4");
    EXPECT_EQ(running_configuration(),
              section_text +
                  "!\nexit\n!\nip dhcp relay information trust-all\n!\nip dhcp local-relay\n!\n"
                  "interface vlan10\n no ip dhcp relay information trusted\n!\n"
                  "interface vlan20\n ip dhcp local-relay\n!\n"
                  "interface vlan30\n"
                  " ip dhcp relay option60 string plain exact-match address 10.0.0.3\n"
                  " ip dhcp relay option60 string \"two words\\\"\" partial-match address 10.0.0.3\n"
                  " ip dhcp relay option61 hex 0x0ABC address 10.0.0.4\n!\n");
}

// Its replay marks every interface there is, also one that came after it and has no record yet.
TEST_F(Running, TakesInterfacesWithoutARecordOutOfTrustAll) {
    const std::vector<ravo::platform::address_record> none;
    const ravo::platform::interface_state down = {7, false, {2, 0, 0, 0, 0, 1}, &none};
    for (const std::uint16_t vlan : {std::uint16_t{10}, std::uint16_t{40}}) ravo::platform::nsm_feed(vlan, &down);
    ASSERT_NE(ifg_get_by_name("vlan50"), nullptr);  // named, but not there: the replay does not find it either
    settings.trust_all = 1;
    interfaces = {iface("vlan10")};
    interfaces[0].trusted = 1;
    EXPECT_EQ(running_configuration(),
              "ip dhcp relay information trust-all\n!\n"
              "interface vlan40\n no ip dhcp relay information trusted\n!\n");
    settings.trust_all = 0;
    EXPECT_EQ(running_configuration(), "");
    for (const std::uint16_t vlan : {std::uint16_t{10}, std::uint16_t{40}}) ravo::platform::nsm_feed(vlan, nullptr);
}

TEST_F(Running, WritesTheListOfLocalRelayWhileItIsOff) {
    settings.local_relay_vlan[0] = 30;
    settings.local_relay_vlan[2] = 10;
    EXPECT_EQ(running_configuration(), "ip dhcp local-relay vlan 30,10\n!\n");
}

TEST_F(Running, ItsTextReplaysWithoutAFault) {
    section_text = "ip dhcp relay\n!\n!\ninterface vlan10\n ip dhcp relay address 10.0.0.1\n";
    settings.trust_all = 1;
    settings.local_relay_enable = 1;
    interfaces = {iface("vlan10")};
    interfaces[0].option60[0].used = 1;
    std::strcpy(interfaces[0].option60[0].vendor, "a \\ b!?|\"");
    EXPECT_TRUE(replay(running_configuration()).empty());
    EXPECT_EQ(calls.back().arguments[0], "a \\ b!?|\"");
    EXPECT_EQ(settings.local_relay_enable, 1u) << "the global command, not that of the interface before it";
    EXPECT_TRUE(local_relay_interfaces.empty());
}

TEST_F(Running, IsSavedShownErasedAndLoaded) {
    section_text = "ip dhcp relay\n!\n";
    EXPECT_EQ(shell_.print("show startup-config"), "% " + path_ + " does not exist; \"write memory\" creates it\n");
    EXPECT_EQ(shell_.run("show startup-config"), 1);
    for (const char *save : {"write memory", "write", "wr", "copy running-config startup-config"}) {
        fs::remove(path_);
        EXPECT_EQ(shell_.print(save), "Saved as " + path_ + "\n") << save;
        EXPECT_EQ(read(path_), section_text);
    }
    EXPECT_EQ(shell_.print("show startup-config"), section_text);
    EXPECT_EQ(shell_.print("copy startup-config running-config"), "");
    EXPECT_THAT(lines_called(), ElementsAre("ip dhcp relay"));
    EXPECT_EQ(shell_.print("write erase"), "");
    EXPECT_FALSE(fs::exists(path_));
    EXPECT_EQ(shell_.run("write erase"), 0);
    EXPECT_EQ(shell_.print("copy startup-config running-config"),
              "% " + path_ + ": cannot be read: No such file or directory\n");
}

TEST_F(Running, ALoadThatFailsNamesItsLines) {
    write("ip dhcp relay\nfrobnicate\n");
    EXPECT_EQ(shell_.print("copy startup-config running-config"),
              "% " + path_ + ":2: invalid input at \"frobnicate\", column 1: frobnicate\n");
    EXPECT_EQ(shell_.run("copy startup-config running-config"), 1);
}

TEST_F(Running, ASaveThatFailsSaysWhy) {
    ravo::platform::frame_options options;
    options.startup_config = folder_ + "/none/config";
    ravo::platform::frame_set_options(options);
    EXPECT_EQ(
        shell_.print("write memory"),
        "% " + options.startup_config + " cannot be written: No such file or directory; its folder does not exist\n");
    EXPECT_EQ(shell_.run("write memory"), 1);
}

// ---- Local relay ----

TEST_F(Running, LocalRelayIsSwitchedGlobally) {
    shell_.configure();
    EXPECT_EQ(shell_.print("ip dhcp local-relay"), "");
    EXPECT_EQ(settings.local_relay_enable, 1u);
    EXPECT_EQ(shell_.run("ip dhcp local-relay"), 0);
    EXPECT_EQ(shell_.print("no ip dhcp local-relay"), "");
    EXPECT_EQ(settings.local_relay_enable, 0u);
}

TEST_F(Running, LocalRelayTakesListsOfVlans) {
    shell_.configure();
    EXPECT_EQ(shell_.print("ip dhcp local-relay vlan 258,3"), "");
    ASSERT_EQ(vlan_request.size(), 8194u);
    std::uint16_t ids[3];
    std::memcpy(ids, vlan_request.data(), sizeof ids);
    EXPECT_THAT(ids, ElementsAre(258, 3, 0));
    EXPECT_EQ(vlan_request[8192], 1);
    EXPECT_EQ(shell_.print("no ip dhcp local-relay vlan 3"), "");
    EXPECT_EQ(vlan_request[8192], 0);
    vlan_request.clear();
    EXPECT_EQ(shell_.print("ip dhcp local-relay vlan 3,x"),
              "% Invalid VLAN list: \"x\" is neither a VLAN id from 1 to 4094 nor a range of them such as 20-30\n");
    EXPECT_TRUE(vlan_request.empty());
    vlan_result = 0;
    EXPECT_EQ(shell_.print("ip dhcp local-relay vlan 3"), "% The VLAN list is full\n");
}

TEST_F(Running, LocalRelayIsSwitchedOnAnInterface) {
    shell_.configure("vlan10");
    EXPECT_EQ(shell_.print("ip dhcp local-relay"), "");
    EXPECT_EQ(shell_.print("no ip dhcp local-relay"), "");
    EXPECT_EQ(shell_.mode(), CLI_MODE_INTERFACE);
    (void)shell_.run("interface range vlan 20-21");
    EXPECT_EQ(shell_.print("ip dhcp local-relay"), "");
    EXPECT_THAT(local_relay_interfaces, ElementsAre("vlan10 on", "vlan10 off", "vlan20 on", "vlan21 on"));
}

}  // namespace

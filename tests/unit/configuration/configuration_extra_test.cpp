// SPDX-License-Identifier: Apache-2.0
// The running configuration: the relay's section and what the platform adds, saved, shown, erased; local relay in it.
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
                                     .interface_local_relay_set = interface_local_relay_set,
                                     .transaction_add = nullptr,
                                     .interface_at = nullptr};

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

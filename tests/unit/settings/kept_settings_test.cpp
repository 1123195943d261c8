// SPDX-License-Identifier: Apache-2.0
// What is configured for an interface outlasts it.
#include "settings/kept_settings.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "memory/memmgr_budget.h"
#include "settings/settings_text.h"
#include "whole_relay.h"

namespace {

using ravo::cli::count_settings;
using ravo::cli::forget_result;
using ravo::cli::kept_forget;
using ravo::cli::kept_switch;
using ravo::cli::kept_waiting;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
using whole_relay::configure;
using whole_relay::gone;
using whole_relay::show;
using whole_relay::there;

constexpr std::uint16_t vlans_20_21[] = {20, 21};
const std::vector<std::string> everything = {
    "interface vlan 20",
    "ip dhcp relay address 192.0.2.12",
    "ip dhcp relay address 192.0.2.11",
    "ip dhcp relay information trusted",
    "ip dhcp local-relay",
    "ip dhcp relay option60 string \"b b\" partial-match address 192.0.2.14",
    "ip dhcp relay option60 string a exact-match address 192.0.2.13",
    "ip dhcp relay option61 hex 0xABC address 192.0.2.15",
};
constexpr char everything_waits[] =
    "! vlan20 is not there: these settings wait for it\n"
    "interface vlan20\n"
    " ip dhcp relay information trusted\n"
    " ip dhcp relay address 192.0.2.12\n"
    " ip dhcp relay address 192.0.2.11\n"
    " ip dhcp local-relay\n"
    " ip dhcp relay option60 string \"b b\" partial-match address 192.0.2.14\n"
    " ip dhcp relay option60 string a exact-match address 192.0.2.13\n"
    " ip dhcp relay option61 hex 0x0ABC address 192.0.2.15\n"
    "!\n";
constexpr char everything_in_force[] =
    "!\n"
    "interface vlan20\n"
    " ip dhcp relay information trusted\n"
    " ip dhcp relay address 192.0.2.12\n"
    " ip dhcp relay address 192.0.2.11\n"
    "!\n"
    "interface vlan20\n"
    " ip dhcp local-relay\n"
    " ip dhcp relay option60 string \"b b\" partial-match address 192.0.2.14\n"
    " ip dhcp relay option60 string a exact-match address 192.0.2.13\n"
    " ip dhcp relay option61 hex 0x0ABC address 192.0.2.15\n"
    "!\n";

// A relay without settings and without interfaces.
class KeptSettings : public testing::Test {
  protected:
    void SetUp() override {
        whole_relay::start();
        clear();
        kept_switch(true);
        log_ = std::make_unique<whole_relay::log_lines>();
    }
    void TearDown() override {
        log_.reset();
        clear();
    }
    static void clear() {
        for (std::uint16_t vlan = 1; vlan <= 4094; ++vlan) gone(vlan);
        EXPECT_EQ(ravo::cli::run_reset(), 0);
        EXPECT_EQ(configure({"no ip dhcp relay information trust-all"}), "");  // a reset leaves it as it is
    }
    static std::string running() { return show("show running-config"); }

    std::unique_ptr<whole_relay::log_lines> log_;
};

TEST_F(KeptSettings, AnInterfaceThatGoesAndComesBackHasAllItHad) {
    there(20, {.address = "10.20.0.1"});
    EXPECT_EQ(configure(everything), "");
    const std::string before = running();
    EXPECT_EQ(before, everything_in_force);
    gone(20);
    EXPECT_EQ(running(), everything_waits);
    EXPECT_THAT(log_->take(),
                ElementsAre("settings: interface vlan20 is gone; its configuration of 7 lines waits for it to come "
                            "back"));
    there(20, {.up = false});
    there(20, {});
    EXPECT_THAT(running(), HasSubstr("! vlan20 has no address: these settings wait for one\ninterface vlan20\n"));
    EXPECT_THAT(log_->take(), IsEmpty()) << "there, but without an address";
    there(20, {.address = "10.20.0.9"});
    EXPECT_EQ(running(), before);
    EXPECT_THAT(log_->take(), ElementsAre("settings: interface vlan20 is there again at 10.20.0.9; its configuration "
                                          "of 7 lines is in force"));
    EXPECT_THAT(kept_waiting(), IsEmpty());
}

TEST_F(KeptSettings, AnAddressThatGoesTakesOptionHostsAndTrustNoFurther) {
    there(20, {.address = "10.20.0.1"});
    configure({"interface vlan 20", "ip dhcp relay information trusted",
               "ip dhcp relay option60 string a exact-match address 192.0.2.13"});
    const std::string before = running();
    there(20, {});
    EXPECT_EQ(running(),
              "! vlan20 has no address: these settings wait for one\ninterface vlan20\n"
              " ip dhcp relay information trusted\n"
              " ip dhcp relay option60 string a exact-match address 192.0.2.13\n!\n");
    EXPECT_THAT(log_->take(), ElementsAre("settings: interface vlan20 lost its address; its configuration of 2 lines "
                                          "waits for another one"));
    gone(20);
    EXPECT_THAT(log_->take(), IsEmpty()) << "it waits already";
    there(20, {.address = "10.20.0.1"});
    EXPECT_EQ(running(), before);
    EXPECT_THAT(log_->take(), SizeIs(1));
}

TEST_F(KeptSettings, PlainServersKeepTheRecordThroughALostAddress) {
    there(20, {.address = "10.20.0.1"});
    EXPECT_EQ(configure(everything), "");
    there(20, {});
    EXPECT_EQ(running(), everything_in_force);
    EXPECT_THAT(log_->take(), IsEmpty());
}

TEST_F(KeptSettings, LocalRelayAloneNeedsNoAddress) {
    there(20, {.address = "10.20.0.1"});
    configure({"interface vlan 20", "ip dhcp local-relay"});
    const std::string before = running();
    there(20, {});
    EXPECT_EQ(running(), before) << "in force without a break";
    EXPECT_THAT(show("show ip dhcp relay detail"), HasSubstr("if_mac:02.00.00.00.00.01."));
    EXPECT_THAT(log_->take(), IsEmpty());
    gone(20);
    there(20, {});
    EXPECT_EQ(running(), before);
    EXPECT_THAT(log_->take(), ElementsAre(HasSubstr("is gone"),
                                          "settings: interface vlan20 is there again; its configuration of 1 line is "
                                          "in force"));
}

TEST_F(KeptSettings, AnotherDeviceAndANewAddressAtOnce) {
    there(20, {.address = "10.20.0.1", .kernel_ifindex = 7});
    EXPECT_EQ(configure(everything), "");
    there(20, {.address = "10.99.0.1", .kernel_ifindex = 8});
    EXPECT_EQ(running(), everything_in_force);
    EXPECT_THAT(show("show ip dhcp relay detail"), HasSubstr("if_ip:10.99.0.1\n"));
}

TEST_F(KeptSettings, NothingIsKeptOfAnInterfaceWithoutSettings) {
    there(20, {.address = "10.20.0.1"});
    EXPECT_EQ(configure(everything), "");
    EXPECT_EQ(configure({"interface vlan 20", "no ip dhcp local-relay", "no ip dhcp relay information trusted",
                         "no ip dhcp relay option60", "no ip dhcp relay option61", "no ip dhcp relay address"}),
              "% No dhcp relay if existed \n% No dhcp relay if existed \n");
    gone(20);
    EXPECT_EQ(running(), "");
    there(20, {.address = "10.20.0.1"});
    EXPECT_EQ(running(), "!\ninterface vlan20\n") << "what was deleted stays deleted";
    EXPECT_THAT(log_->take(), IsEmpty());
}

TEST_F(KeptSettings, EditsOfAnAbsentInterfaceChangeWhatWaits) {
    there(20, {.address = "10.20.0.1"});
    configure({"interface vlan 20", "ip dhcp relay address 192.0.2.11", "ip dhcp relay information trusted"});
    gone(20);
    EXPECT_EQ(configure({"interface vlan 20", "ip dhcp relay address 192.0.2.12", "no ip dhcp relay address 192.0.2.11",
                         "no ip dhcp relay information trusted", "ip dhcp local-relay"}),
              "");
    EXPECT_EQ(running(),
              "! vlan20 is not there: these settings wait for it\ninterface vlan20\n"
              " ip dhcp relay address 192.0.2.12\n ip dhcp local-relay\n!\n");
    EXPECT_EQ(show("show ip dhcp relay information trusted-sources"), "0\n");
    there(20, {.address = "10.20.0.1"});
    EXPECT_EQ(running(),
              "!\ninterface vlan20\n ip dhcp relay address 192.0.2.12\n!\ninterface vlan20\n ip dhcp local-relay\n!\n");
}

TEST_F(KeptSettings, TheRelayJudgesEditsOfAnAbsentInterface) {
    there(20, {.address = "10.20.0.1"});
    configure({"interface vlan 20", "ip dhcp relay address 192.0.2.11"});
    gone(20);
    EXPECT_EQ(configure({"interface vlan 20", "ip dhcp relay address 192.0.2.11"}),
              "% DHCP relay server exitsted already \n");
    EXPECT_EQ(configure({"interface vlan 20", "ip dhcp relay address 192.0.2.12", "ip dhcp relay address 192.0.2.13",
                         "ip dhcp relay address 192.0.2.14", "ip dhcp relay address 192.0.2.15"}),
              "% DHCP relay server full \n");
    EXPECT_EQ(configure({"interface vlan 20", "ip dhcp relay option61 hex 0xg address 192.0.2.12"}),
              "% Client-id must be hex number\n");
    EXPECT_EQ(count_settings(kept_waiting().at(0).settings), 4);
    EXPECT_EQ(configure({"interface vlan 20", "no ip dhcp relay address"}), "");
    EXPECT_THAT(kept_waiting(), IsEmpty());
    EXPECT_EQ(running(), "");
}

TEST_F(KeptSettings, ARangeOfInterfacesIsEditedWhereverEachOfThemIs) {
    for (const std::uint16_t vlan : vlans_20_21) there(vlan, {.address = "10.20.0.1"});
    configure({"interface range vlan 20-21", "ip dhcp relay address 192.0.2.11"});
    gone(20);
    EXPECT_EQ(configure({"interface range vlan 20-21", "ip dhcp relay address 192.0.2.12"}), "");
    EXPECT_EQ(running(),
              "!\ninterface vlan21\n ip dhcp relay address 192.0.2.11\n ip dhcp relay address 192.0.2.12\n!\n"
              "! vlan20 is not there: these settings wait for it\ninterface vlan20\n"
              " ip dhcp relay address 192.0.2.11\n ip dhcp relay address 192.0.2.12\n!\n");
}

TEST_F(KeptSettings, TrustIsTakenBackFromWhatWaitsToo) {
    for (const std::uint16_t vlan : vlans_20_21) there(vlan, {.address = "10.20.0.1"});
    configure({"interface vlan 20", "ip dhcp relay information trusted", "ip dhcp relay address 192.0.2.11",
               "interface vlan 21", "ip dhcp relay information trusted"});
    gone(20);
    gone(21);
    EXPECT_EQ(configure({"no ip dhcp relay information trust-all"}), "");
    EXPECT_EQ(running(),
              "! vlan20 is not there: these settings wait for it\ninterface vlan20\n"
              " ip dhcp relay address 192.0.2.11\n!\n");
}

TEST_F(KeptSettings, UnderTrustAllWhatWaitsUntrustedSaysSo) {
    there(20, {.address = "10.20.0.1"});
    configure({"ip dhcp relay information trust-all", "interface vlan 20", "no ip dhcp relay information trusted",
               "ip dhcp relay address 192.0.2.11"});
    gone(20);
    EXPECT_THAT(running(), HasSubstr("interface vlan20\n ip dhcp relay address 192.0.2.11\n"
                                     " no ip dhcp relay information trusted\n!\n"));
}

TEST_F(KeptSettings, ForgettingIsForWhatIsNotThere) {
    there(20, {.address = "10.20.0.1"});
    configure({"interface vlan 20", "ip dhcp relay address 192.0.2.11"});
    EXPECT_EQ(kept_forget(20), forget_result::is_there);
    gone(20);
    EXPECT_EQ(kept_forget(20), forget_result::forgotten);
    EXPECT_EQ(kept_forget(20), forget_result::nothing);
    there(20, {.address = "10.20.0.1"});
    EXPECT_EQ(running(), "!\ninterface vlan20\n");
    // With nothing kept it is a record of the relay.
    kept_switch(false);
    configure({"interface vlan 21", "ip dhcp relay address 192.0.2.11"});
    EXPECT_EQ(kept_forget(21), forget_result::forgotten);
    EXPECT_EQ(running(), "!\ninterface vlan20\n");
}

TEST_F(KeptSettings, WhatIsConfiguredBeforeTheInterfaceIsThereWaits) {
    EXPECT_EQ(configure({"interface vlan 20", "ip dhcp relay address 192.0.2.11", "interface vlan 21",
                         "no ip dhcp relay information trusted"}),
              "");
    EXPECT_EQ(running(),
              "! vlan20 is not there: these settings wait for it\ninterface vlan20\n"
              " ip dhcp relay address 192.0.2.11\n!\n");
    EXPECT_THAT(show("show ip dhcp relay"), Not(HasSubstr("vlan20")));
    there(20, {.address = "10.20.0.1"});
    EXPECT_THAT(show("show ip dhcp relay"), HasSubstr("vlan20 Relay IP Address\n 192.0.2.11 "));
}

TEST_F(KeptSettings, WhatIsReplayedInOneGoWaitsAtItsEnd) {
    there(20, {});
    there(22, {.address = "10.22.0.1"});
    configure({"interface vlan 22", "ip dhcp relay information trusted"});
    there(22, {});
    {
        const ravo::cli::kept_opening opening;
        EXPECT_THAT(running(), Not(HasSubstr("wait"))) << "it is all in records";
        configure({"interface vlan 20", "ip dhcp relay address 192.0.2.11", "interface vlan 21",
                   "ip dhcp relay address 192.0.2.12", "interface vlan 23", "no ip dhcp relay information trusted"});
    }
    EXPECT_EQ(running(),
              "!\ninterface vlan20\n ip dhcp relay address 192.0.2.11\n!\ninterface vlan22\n"
              "!\n! vlan21 is not there: these settings wait for it\ninterface vlan21\n"
              " ip dhcp relay address 192.0.2.12\n!\n"
              "! vlan22 has no address: these settings wait for one\ninterface vlan22\n"
              " ip dhcp relay information trusted\n!\n");
}

TEST_F(KeptSettings, TrustAllIsForInterfacesThatAreThere) {
    there(20, {.address = "10.20.0.1"});
    EXPECT_EQ(configure({"interface vlan 21", "exit", "ip dhcp relay information trust-all"}), "");
    EXPECT_EQ(running(),
              "!\ninterface vlan20\n ip dhcp relay information trusted\n!\nexit\n!\n"
              "ip dhcp relay information trust-all\n!\n");
}

TEST_F(KeptSettings, AResetForgetsWhatWaits) {
    there(20, {.address = "10.20.0.1"});
    EXPECT_EQ(configure(everything), "");
    gone(20);
    EXPECT_EQ(ravo::cli::run_reset(), 0);
    EXPECT_EQ(running(), "");
    there(20, {.address = "10.20.0.1"});
    EXPECT_EQ(running(), "!\ninterface vlan20\n");
}

TEST_F(KeptSettings, SwitchedOffNothingIsKeptAndWhatWaitedIsTheRelays) {
    for (const std::uint16_t vlan : vlans_20_21) there(vlan, {.address = "10.20.0.1"});
    configure({"interface range vlan 20-21", "ip dhcp relay address 192.0.2.11"});
    gone(20);
    log_->take();
    kept_switch(false);
    EXPECT_EQ(running(),
              "!\ninterface vlan20\n ip dhcp relay address 192.0.2.11\n!\n"
              "interface vlan21\n ip dhcp relay address 192.0.2.11\n");
    EXPECT_THAT(log_->take(), ElementsAre("settings: keep = false: what waited for 1 interfaces is in the relay now"));
    gone(21);
    there(21, {.address = "10.20.0.1"});
    EXPECT_EQ(running(), "!\ninterface vlan20\n ip dhcp relay address 192.0.2.11\n!\ninterface vlan21\n");
    EXPECT_THAT(log_->take(), IsEmpty());
}

TEST_F(KeptSettings, NamesThatAreSwappedKeepTheirSettings) {
    there(20, {.address = "10.20.0.1", .kernel_ifindex = 7});
    there(21, {.address = "10.21.0.1", .kernel_ifindex = 8});
    configure({"interface vlan 20", "ip dhcp relay address 192.0.2.20", "interface vlan 21",
               "ip dhcp relay option60 string a exact-match address 192.0.2.21"});
    const std::string before = running();
    // Device 7 is renamed out of the way, 8 takes its name, 7 takes that of 8.
    gone(20);
    gone(21);
    there(20, {.address = "10.21.0.1", .kernel_ifindex = 8});
    there(21, {.address = "10.20.0.1", .kernel_ifindex = 7});
    EXPECT_EQ(running(), before);
    EXPECT_THAT(log_->take(), SizeIs(4));
}

TEST_F(KeptSettings, AThousandInterfacesGoAndComeBack) {
    std::vector<std::string> lines;
    for (std::uint16_t vlan = 1000; vlan < 2000; ++vlan) {
        there(vlan, {.address = "10.0.0." + std::to_string(vlan % 250 + 1)});
        lines.push_back("interface vlan " + std::to_string(vlan));
        lines.push_back("ip dhcp relay address 192.0.2." + std::to_string(vlan % 250 + 1));
        lines.emplace_back("ip dhcp relay option61 hex 0x01 address 198.51.100.1");
    }
    EXPECT_EQ(configure(lines), "");
    const std::string before = running();
    for (std::uint16_t vlan = 1000; vlan < 2000; ++vlan) gone(vlan);
    EXPECT_THAT(kept_waiting(), SizeIs(1000));
    for (std::uint16_t vlan = 1999; vlan >= 1000; --vlan)
        there(vlan, {.address = "10.0.0." + std::to_string(vlan % 250 + 1)});
    EXPECT_EQ(running(), before);
    EXPECT_THAT(log_->take(), SizeIs(2000));
}

TEST_F(KeptSettings, WithoutMemorySettingsGoOnWaiting) {
    there(20, {.address = "10.20.0.1"});
    EXPECT_EQ(configure(everything), "");
    gone(20);
    ravo::platform::memmgr_set_budget(1);
    there(20, {.address = "10.20.0.1"});
    EXPECT_EQ(running(), "! vlan20 has no address: these settings wait for one\n" +
                             std::string(everything_waits).substr(std::string(everything_waits).find('\n') + 1));
    EXPECT_EQ(configure({"interface vlan 20", "no ip dhcp relay address"}), "% Memory not enough\n");
    ravo::platform::memmgr_set_budget(0);
    there(20, {.address = "10.20.0.2"});
    EXPECT_EQ(running(), everything_in_force);
}

}  // namespace

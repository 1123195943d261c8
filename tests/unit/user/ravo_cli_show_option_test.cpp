// SPDX-License-Identifier: Apache-2.0
// "show ip dhcp relay option", and what shows a transaction.
#include "show_fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

using RavoCliShow = ShowTest;

// ---- Transactions ----

TEST_F(RavoCliShow, AnEmptyMapShowsTheTotalZero) {
    expect_gated(ravo_cmd_show_xid, {}, "Total Entries: 0\n");
}

TEST_F(RavoCliShow, TransactionsAreShownInTheirOrder) {
    xid_entry entry{};
    entry.xid = 0xfedcba98;
    entry.module = 2;
    entry.port = 63;
    EXPECT_EQ(ravo_db_xid_update(&entry), 1);
    entry = {};
    entry.xid = 0xa;
    entry.module = 1;
    entry.port = 1;
    EXPECT_EQ(ravo_db_xid_update(&entry), 1);
    expect_gated(ravo_cmd_show_xid, {},
                 "Xid:A\nModule id: 1\nIngress port: 1\n\n"
                 "Xid:FEDCBA98\nModule id: 2\nIngress port: 63\n\n"
                 "Total Entries: 2\n");
}

// ---- Servers by option ----

constexpr const char *head60 =
    "String               Match-type    IP address\n=================================================\n";
constexpr const char *head61 = "Hex                IP address\n=============================\n";

class RavoCliShowOption : public ShowTest {
  protected:
    void SetUp() override {
        ShowTest::SetUp();
        iface both = vlan_record(10);
        both.opt60_count = 2;
        both.opt60_hosts[0] = {1, 0, "phone", fake::address("10.0.0.1")};
        both.opt60_hosts[2] = {1, 1, "a very long vendor class", fake::address("10.0.0.2")};
        both.opt61_count = 1;
        both.opt61_hosts[1].used = 1;
        both.opt61_hosts[1].client_id[0] = 0x0a;
        both.opt61_hosts[1].client_id[1] = 0xbc;
        both.opt61_hosts[1].client_id_len = 2;
        both.opt61_hosts[1].server = fake::address("10.0.0.3");
        store(both);
        store(vlan_record(20, {"10.0.0.9"}));  // no host of either option
    }

    const std::string rows60 = std::string(head60) +
                               "phone                exact-match   10.0.0.1\n"
                               "a very long vendor classpartial-match 10.0.0.2\n"
                               "Total entry: 2\n\n";
    const std::string rows61 = std::string(head61) + "0ABC               10.0.0.3\nTotal entry: 1\n\n";
};

TEST_F(RavoCliShowOption, Option60) {
    expect_gated(ravo_cmd_show_option, {"60"}, "vlan10 Option 60 Relay IP address:\n" + rows60);
}

TEST_F(RavoCliShowOption, Option61) {
    expect_gated(ravo_cmd_show_option, {"61"}, "vlan10 Option 61 Relay IP address:\n" + rows61);
}

TEST_F(RavoCliShowOption, BothOptions) {
    expect_gated(ravo_cmd_show_option, {},
                 "vlan10 Option Relay IP address:\nOption 60:\n" + rows60 + "\nOption 61:\n" + rows61 + "\n\n");
}

TEST_F(RavoCliShow, AnInterfaceShowsTheTablesOfTheHostsItHas) {
    iface only60 = vlan_record(5);
    only60.opt60_count = 1;
    only60.opt60_hosts[0] = {1, 0, "phone", fake::address("10.0.0.1")};
    store(only60);
    EXPECT_EQ(plain(ravo_cmd_show_option), std::string("vlan5 Option Relay IP address:\nOption 60:\n") + head60 +
                                               "phone                exact-match   10.0.0.1\nTotal entry: 1\n\n\n\n");
    only60.opt60_count = 0;
    only60.opt61_count = 1;
    only60.opt61_hosts[0].used = 1;
    only60.opt61_hosts[0].server = fake::address("10.0.0.3");
    store(only60);
    EXPECT_EQ(plain(ravo_cmd_show_option), std::string("vlan5 Option Relay IP address:\n\nOption 61:\n") + head61 +
                                               "                   10.0.0.3\nTotal entry: 1\n\n\n\n");
}

TEST_F(RavoCliShowOption, OnlyInterfacesWithHostsOfTheOptionAreShown) {
    iface only60 = vlan_record(5);
    only60.opt60_count = 1;
    only60.opt60_hosts[3] = {1, 1, "camera", fake::address("10.0.0.4")};
    store(only60);
    EXPECT_EQ(plain(ravo_cmd_show_option, {"60"}),
              std::string("vlan5 Option 60 Relay IP address:\n") + head60 +
                  "camera               partial-match 10.0.0.4\nTotal entry: 1\n\n" +
                  "vlan10 Option 60 Relay IP address:\n" + rows60);
    EXPECT_EQ(plain(ravo_cmd_show_option, {"61"}), "vlan10 Option 61 Relay IP address:\n" + rows61);
}

TEST_F(RavoCliShowOption, AnIdentifierOfTheLargestSizeIsShownWhole) {
    EXPECT_EQ(ravo_db_if_delete("vlan10"), 1);
    iface record = vlan_record(10);
    record.opt61_count = 1;
    record.opt61_hosts[0].used = 1;
    std::memset(record.opt61_hosts[0].client_id, 0xee, 128);
    record.opt61_hosts[0].client_id_len = 128;
    record.opt61_hosts[0].server = fake::address("10.0.0.3");
    store(record);
    EXPECT_EQ(plain(ravo_cmd_show_option, {"61"}), std::string("vlan10 Option 61 Relay IP address:\n") + head61 +
                                                       std::string(256, 'E') + "10.0.0.3\nTotal entry: 1\n\n");
}

TEST_F(RavoCliShow, WithoutInterfacesTheOptionsShowNothingButTheEnd) {
    EXPECT_EQ(plain(ravo_cmd_show_option, {"60"}), "");
    EXPECT_EQ(plain(ravo_cmd_show_option, {"61"}), "");
    EXPECT_EQ(plain(ravo_cmd_show_option), "\n\n");
}

}  // namespace

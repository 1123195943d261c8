// SPDX-License-Identifier: Apache-2.0
// Following the switch's interfaces and addresses.
#include "ravo_nsm.h"

#include "relay_fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;

namespace {

using RavoNsm = Relay;

// The address as the relay traces it in hexadecimal.
constexpr const char *any_hex = "[0-9A-F]+";

std::vector<std::string> trace_texts() {
    std::vector<std::string> texts;
    for (const fake::line &entry : fake::traces()) texts.push_back(entry.text);
    return texts;
}

// ---- Set-up ----

TEST_F(RavoNsm, TheClientIsSetUpInOrder) {
    fake::script(fake::op::nsm_start, {.result = 42});
    EXPECT_EQ(ravo_nsm_init(nullptr), 42);
    EXPECT_THAT(fake::nsm_calls, ElementsAre("nsm_client_create", "nsm_client_set_version 1",
                                             "nsm_client_set_protocol 13", "nsm_client_set_service 0", "ifc_add_hook 1",
                                             "ifc_add_hook 0", "if_add_hook 2", "if_add_hook 6", "nsm_client_start"));
    EXPECT_EQ(fake::installed_ifc_hook(1), &ravo_nsm_if_addr_delete);
    EXPECT_EQ(fake::installed_ifc_hook(0), &ravo_nsm_addr_add_callback);
    EXPECT_EQ(fake::installed_if_hook(2), &ravo_nsm_if_up);
    EXPECT_EQ(fake::installed_if_hook(6), &ravo_nsm_if_del);
}

TEST_F(RavoNsm, WithoutAClientNothingIsInstalled) {
    fake::script(fake::op::nsm_create);
    EXPECT_EQ(ravo_nsm_init(nullptr), -1);
    EXPECT_THAT(fake::nsm_calls, ElementsAre("nsm_client_create"));
}

// ---- Interface up, address added ----

TEST_F(RavoNsm, AnInterfaceThatComesUpGetsARecord) {
    struct interface *ifp = fake::add_vlan(10, {{"192.0.2.1"}});
    EXPECT_EQ(ravo_nsm_if_up(ifp), 0);
    iface expected = record_named("vlan10");
    expected.in_use = 1;
    expected.ifindex = 1034;
    expected.if_ip = fake::address("192.0.2.1");
    expected.if_maclen = 6;
    std::memcpy(expected.if_mac, ifp->hw_addr, 6);
    EXPECT_EQ(describe(*stored_record("vlan10")), describe(expected));
    EXPECT_THAT(trace_texts(), ElementsAre("ravo_nsm_if_up (#) interface vlan10 up or add address\n",
                                           "RAVO_IF_Fill_Info (#): Fill interface vlan10 information \n",
                                           "RAVO_IF_Fill_Info (#): ifindex=1034, MAC Len=6, MAC=0000.5E00.5301\n"));
}

TEST_F(RavoNsm, AKnownInterfaceIsRefreshedAndKeepsItsSettings) {
    iface record = vlan_record(10, {"10.0.0.1"});
    record.trusted = 1;
    record.ifindex = 1;
    record.in_use = 0;
    EXPECT_EQ(ravo_db_if_add(&record), 1);
    EXPECT_EQ(ravo_nsm_if_up(fake::add_vlan(10, {{"192.0.2.1"}})), 0);
    const iface now = *stored_record("vlan10");
    EXPECT_EQ(now.trusted, 1u);
    EXPECT_EQ(now.in_use, 0u);
    EXPECT_EQ(now.ifindex, 1034u);
    EXPECT_EQ(slots_of(now), "10.0.0.1 0.0.0.0 0.0.0.0 0.0.0.0");
    EXPECT_STREQ(ravo_addr_text(now.if_ip).text, "192.0.2.1");
}

TEST_F(RavoNsm, AnInterfaceOfAnotherTypeGetsNoRecord) {
    for (const int type : {0, 1, 6, 8, 65535}) {
        fake::interface_setup setup;
        setup.name = "vlan10";
        setup.hw_type = static_cast<std::uint16_t>(type);
        setup.addresses = {{"192.0.2.1"}};
        fake::forget();
        struct interface *ifp = fake::add_interface(setup);
        EXPECT_EQ(ravo_nsm_if_up(ifp), 0);
        EXPECT_THAT(stored_names(), IsEmpty());
        EXPECT_THAT(trace_texts(), ElementsAre("ravo_nsm_if_up (#) interface vlan10 up or add address\n"));
    }
}

TEST_F(RavoNsm, AnAddedAddressRefreshesTheRecordBetweenItsTraces) {
    struct interface *ifp = fake::add_vlan(10, {{"192.0.2.1"}});
    EXPECT_EQ(ravo_nsm_addr_add_callback(ifp->ifc_ipv4), 0);
    EXPECT_STREQ(ravo_addr_text(stored_record("vlan10")->if_ip).text, "192.0.2.1");
    EXPECT_THAT(fake::traces(),
                ElementsAre(fake::line{101, "ravo_nsm_addr_add_callback (#):++\n"},
                            fake::line{101, "ravo_nsm_if_up (#) interface vlan10 up or add address\n"},
                            fake::line{101, "RAVO_IF_Fill_Info (#): Fill interface vlan10 information \n"},
                            fake::line{101, "RAVO_IF_Fill_Info (#): ifindex=1034, MAC Len=6, MAC=0000.5E00.5301\n"},
                            fake::line{101, "ravo_nsm_addr_add_callback (#):--\n"}));
}

// ---- Address deleted ----

class RavoNsmAddress : public Relay {
  protected:
    void SetUp() override {
        Relay::SetUp();
        vlan10 = fake::add_vlan(10, {{"192.0.2.1"}, {"192.0.2.2", 1}, {"192.0.2.3", 4}, {"192.0.2.4"}});
        EXPECT_EQ(ravo_nsm_if_up(vlan10), 0);
        fake::forget();
    }

    void change_record(void (*change)(iface &)) {
        iface record = *stored_record("vlan10");
        change(record);
        EXPECT_EQ(ravo_db_if_add(&record), 1);
    }

    struct interface *vlan10 = nullptr;
};

TEST_F(RavoNsmAddress, RemovingThePrimaryAddressKeepsARecordWithServers) {
    change_record([](iface &record) {
        record.server_count = 2;
        record.server_db[0] = fake::address("10.0.0.1");
        record.server_db[1] = fake::address("10.0.0.2");
    });
    iface expected = *stored_record("vlan10");
    expected.if_ip = 0;
    EXPECT_EQ(ravo_nsm_if_addr_delete(fake::connected_of(vlan10, "192.0.2.1")), 0);
    ASSERT_TRUE(stored_record("vlan10").has_value());
    EXPECT_EQ(describe(*stored_record("vlan10")), describe(expected));
    EXPECT_THAT(fake::traces(),
                ElementsAre(fake::line{
                    101, "ravo_nsm_if_down (#) address 192.0.2.1 for interface vlan10 is about to be deleted\n"}));
}

TEST_F(RavoNsmAddress, OneServerKeepsTheRecord) {
    change_record([](iface &record) { record.server_count = 1; });
    EXPECT_EQ(ravo_nsm_if_addr_delete(fake::connected_of(vlan10, "192.0.2.1")), 0);
    ASSERT_TRUE(stored_record("vlan10").has_value());
    EXPECT_EQ(stored_record("vlan10")->if_ip, 0u);
}

TEST_F(RavoNsmAddress, RemovingThePrimaryAddressDeletesARecordWithOption60HostsOnly) {
    change_record([](iface &record) {
        record.opt60_count = 1;
        record.opt60_hosts[0].used = 1;
    });
    EXPECT_EQ(ravo_nsm_if_addr_delete(fake::connected_of(vlan10, "192.0.2.1")), 0);
    EXPECT_THAT(stored_names(), IsEmpty());
}

TEST_F(RavoNsmAddress, OnlyTheServerCountIsAsked) {
    change_record([](iface &record) { record.server_db[0] = fake::address("10.0.0.1"); });
    EXPECT_EQ(ravo_nsm_if_addr_delete(fake::connected_of(vlan10, "192.0.2.1")), 0);
    EXPECT_THAT(stored_names(), IsEmpty());
}

TEST_F(RavoNsmAddress, RemovingASecondaryAddressChangesNothing) {
    const iface before = *stored_record("vlan10");
    EXPECT_EQ(ravo_nsm_if_addr_delete(fake::connected_of(vlan10, "192.0.2.2")), 0);
    EXPECT_EQ(describe(*stored_record("vlan10")), describe(before));
    const std::vector<fake::line> traces = fake::traces();
    ASSERT_EQ(traces.size(), 1u);
    EXPECT_EQ(traces[0].level, 104);
    EXPECT_THAT(traces[0].text, MatchesRegex(std::string("ravo_nsm_if_addr_delete \\(#\\): secondary ip ") + any_hex +
                                             ", inf vlan10\n"));
}

TEST_F(RavoNsmAddress, RemovingAnAddressOfTheOtherKindChangesNothingSilently) {
    const iface before = *stored_record("vlan10");
    EXPECT_EQ(ravo_nsm_if_addr_delete(fake::connected_of(vlan10, "192.0.2.3")), 0);
    EXPECT_EQ(describe(*stored_record("vlan10")), describe(before));
    EXPECT_THAT(fake::printed, IsEmpty());
}

TEST_F(RavoNsmAddress, RemovingAnAddressThatIsNotTheRecordedOneLeavesTheRecord) {
    const iface before = *stored_record("vlan10");
    EXPECT_EQ(ravo_nsm_if_addr_delete(fake::connected_of(vlan10, "192.0.2.4")), 0);
    EXPECT_EQ(describe(*stored_record("vlan10")), describe(before));
    const std::vector<fake::line> traces = fake::traces();
    ASSERT_EQ(traces.size(), 2u);
    EXPECT_EQ(
        traces[0],
        (fake::line{101, "ravo_nsm_if_down (#) address 192.0.2.4 for interface vlan10 is about to be deleted\n"}));
    EXPECT_EQ(traces[1].level, 101);
    EXPECT_THAT(traces[1].text,
                MatchesRegex(std::string("ravo_nsm_if_down \\(#\\):do not del ") + any_hex + " for inf vlan10\n"));
}

TEST_F(RavoNsmAddress, RemovingAnAddressOfAnUnknownInterfaceIsTraced) {
    EXPECT_EQ(ravo_db_if_delete("vlan10"), 1);
    EXPECT_EQ(ravo_nsm_if_addr_delete(fake::connected_of(vlan10, "192.0.2.1")), 0);
    EXPECT_THAT(fake::traces(),
                ElementsAre(fake::line{101,
                                       "ravo_nsm_if_down (#) address 192.0.2.1 for interface vlan10 is about to be "
                                       "deleted\n"},
                            fake::line{101, "ravo_nsm_if_down (#): interface vlan10 not found in interface DB\n"}));
}

TEST_F(RavoNsmAddress, WhateverComesOfAnAddressThatGoesTheResultIsZero) {
    EXPECT_EQ(ravo_nsm_if_down(fake::connected_of(vlan10, "192.0.2.4")), 0);  // not the recorded one
    change_record([](iface &record) { record.server_count = 1; });
    EXPECT_EQ(ravo_nsm_if_down(fake::connected_of(vlan10, "192.0.2.1")), 0);  // the record stays
    ravo_nsm_if_up(vlan10);
    change_record([](iface &record) { record.server_count = 0; });
    fake::script(fake::op::avl_remove);
    EXPECT_EQ(ravo_nsm_if_down(fake::connected_of(vlan10, "192.0.2.1")), 0);  // it cannot be deleted
    EXPECT_EQ(ravo_nsm_if_down(fake::connected_of(vlan10, "192.0.2.1")), 0);  // it is deleted
    EXPECT_THAT(stored_names(), IsEmpty());
    EXPECT_EQ(ravo_nsm_if_down(fake::connected_of(vlan10, "192.0.2.1")), 0);  // there is none
}

TEST_F(RavoNsmAddress, RemovingAnAddressOfAnotherTypeIsIgnored) {
    vlan10->hw_type = 6;
    EXPECT_EQ(ravo_nsm_if_addr_delete(fake::connected_of(vlan10, "192.0.2.1")), 0);
    EXPECT_EQ(ravo_nsm_if_addr_delete(fake::connected_of(vlan10, "192.0.2.2")), 0);
    EXPECT_THAT(stored_names(), ElementsAre("vlan10"));
    EXPECT_THAT(fake::printed, IsEmpty());
}

TEST_F(RavoNsmAddress, ARecordThatCannotBeDeletedIsTraced) {
    fake::script(fake::op::avl_remove);
    EXPECT_EQ(ravo_nsm_if_down(fake::connected_of(vlan10, "192.0.2.1")), 0);
    EXPECT_THAT(fake::traces(),
                ElementsAre(fake::line{101,
                                       "ravo_nsm_if_down (#) address 192.0.2.1 for interface vlan10 is about to be "
                                       "deleted\n"},
                            fake::line{101, "ravo_nsm_if_down (#) Delete interface vlan10 failed in interface DB\n"}));
    EXPECT_THAT(stored_names(), ElementsAre("vlan10"));
}

// ---- Interface deleted ----

TEST_F(RavoNsmAddress, AnInterfaceGoesWithWhateverIsConfiguredOnIt) {
    change_record([](iface &record) {
        record.server_count = 4;
        record.opt60_count = 1;
        record.opt61_count = 1;
    });
    EXPECT_EQ(ravo_nsm_if_del(vlan10), 0);
    EXPECT_THAT(stored_names(), IsEmpty());
    EXPECT_THAT(fake::traces(), ElementsAre(fake::line{101, "ravo_nsm_if_del (#): Delete interface vlan10\n"}));
}

TEST_F(RavoNsmAddress, DeletingAnUnknownInterfaceIsTraced) {
    EXPECT_EQ(ravo_db_if_delete("vlan10"), 1);
    EXPECT_EQ(ravo_nsm_if_del(vlan10), 0);
    EXPECT_THAT(fake::traces(),
                ElementsAre(fake::line{101, "ravo_nsm_if_del (#): Delete interface vlan10\n"},
                            fake::line{104, "ravo_nsm_if_del (#): Get interface vlan10 from DB failed!\n"}));
}

TEST_F(RavoNsmAddress, DeletingAnInterfaceOfAnotherTypeIsIgnored) {
    vlan10->hw_type = 1;
    EXPECT_EQ(ravo_nsm_if_del(vlan10), 0);
    EXPECT_THAT(stored_names(), ElementsAre("vlan10"));
    EXPECT_THAT(fake::traces(), ElementsAre(fake::line{101, "ravo_nsm_if_del (#): Delete interface vlan10\n"}));
}

TEST_F(RavoNsmAddress, AnInterfaceThatCannotBeDeletedIsTraced) {
    fake::script(fake::op::avl_remove);
    EXPECT_EQ(ravo_nsm_if_del(vlan10), 0);
    EXPECT_THAT(fake::traces(),
                ElementsAre(fake::line{101, "ravo_nsm_if_del (#): Delete interface vlan10\n"},
                            fake::line{104, "ravo_nsm_if_del (#): Delete interface vlan10 from DB failed!\n"}));
    EXPECT_THAT(stored_names(), ElementsAre("vlan10"));
}

}  // namespace

// SPDX-License-Identifier: Apache-2.0
// The relay's data as the platform sees it: copies of everything, and what local relay is set with.
#include "ravo_access.h"

#include <cstring>
#include <memory>

#include "ravo_if_socket.h"
#include "relay_fixture.h"

namespace {

using RavoAccess = Relay;

iface full_record() {
    iface record = record_named("vlan10");
    record.ifindex = 1034;
    record.if_ip = fake::address("10.0.10.1");
    std::memcpy(record.if_mac, "\x02\x00\x00\x00\x10\x01", 6);
    record.if_maclen = 6;
    record.trusted = 1;
    record.local_relay_state = 1;
    record.server_db[2] = fake::address("192.0.2.3");
    record.opt60_hosts[1] = {1, 1, "vendor", fake::address("192.0.2.4")};
    record.opt61_hosts[3] = {1, {0x0A, 0xBC}, 2, fake::address("192.0.2.5")};
    return record;
}

int add(const char *name) {
    const iface record = record_named(name);
    return ravo_db_if_add(&record);
}

TEST_F(RavoAccess, SettingsAreCopiedWhole) {
    ravo_agent agent{};
    agent.relay_enable = 1;
    agent.option_state = 1;
    agent.policy = RAVO_POLICY_KEEP;
    agent.check = 2;  // as it is stored
    agent.hops = 9;
    agent.local_relay_enable = 1;
    agent.local_relay_vlan[0] = 30;
    agent.local_relay_vlan[4095] = 4094;
    ravo_db_agent_set(&agent);
    trust_all = 1;
    ravo_rx_counters = {1, 2, 3, 4, 5, 6, 7, 8};

    const auto out = std::make_unique<relay_settings>();
    ravo_access.settings(out.get());
    EXPECT_EQ(out->relay_enable, 1u);
    EXPECT_EQ(out->option_state, 1u);
    EXPECT_EQ(out->policy, 3u);
    EXPECT_EQ(out->check, 2u);
    EXPECT_EQ(out->hops, 9u);
    EXPECT_EQ(out->trust_all, 1u);
    EXPECT_EQ(out->local_relay_enable, 1u);
    EXPECT_EQ(std::memcmp(out->local_relay_vlan, agent.local_relay_vlan, sizeof agent.local_relay_vlan), 0);
    EXPECT_EQ(out->server_socket, -1);
    EXPECT_EQ(out->raw_socket, -1);
    EXPECT_EQ(out->listen_socket, -1);
    for (std::uint32_t i = 0; i < 8; ++i) EXPECT_EQ(out->received[i], i + 1);
}

TEST_F(RavoAccess, AnInterfaceIsCopiedWhole) {
    const iface record = full_record();
    ASSERT_EQ(ravo_db_if_add(&record), 1);
    relay_interface out{};
    ASSERT_EQ(ravo_access.interface_get("vlan10", &out), 1);
    EXPECT_STREQ(out.name, "vlan10");
    EXPECT_EQ(out.ifindex, 1034u);
    EXPECT_EQ(out.address, record.if_ip);
    EXPECT_EQ(std::memcmp(out.mac, record.if_mac, sizeof out.mac), 0);
    EXPECT_EQ(out.mac_length, 6u);
    EXPECT_EQ(out.trusted, 1u);
    EXPECT_EQ(out.local_relay, 1u);
    EXPECT_EQ(out.servers[2], record.server_db[2]);
    EXPECT_STREQ(out.option60[1].vendor, "vendor");
    EXPECT_EQ(out.option60[1].match_rule, 1u);
    EXPECT_EQ(out.option60[1].server, record.opt60_hosts[1].server);
    EXPECT_EQ(out.option61[3].client_id[1], 0xBC);
    EXPECT_EQ(out.option61[3].client_id_length, 2u);
    EXPECT_EQ(out.option61[3].server, record.opt61_hosts[3].server);
    EXPECT_EQ(ravo_access.interface_get("vlan11", &out), 0);
}

TEST_F(RavoAccess, InterfacesAreWalkedInTheOrderOfTheirNumbers) {
    relay_interface out{};
    EXPECT_EQ(ravo_access.interface_first(&out), 0);
    ASSERT_EQ(add("vlan20") + add("vlan3"), 2);
    ASSERT_EQ(ravo_access.interface_first(&out), 1);
    EXPECT_STREQ(out.name, "vlan3");
    ASSERT_EQ(ravo_access.interface_next(&out), 1);
    EXPECT_STREQ(out.name, "vlan20");
    EXPECT_EQ(ravo_access.interface_next(&out), 0);
}

// The guards ask which interface the relay would take a message for, and get its very answer, also of two that share
// an address: the one that was found last.
TEST_F(RavoAccess, AnAddressIsOfTheInterfaceThatTheRelayItselfFinds) {
    relay_interface out{};
    EXPECT_EQ(ravo_access.interface_at(0, &out), 0);
    const auto add_at = [](const char *name, std::uint32_t address) {
        iface record = record_named(name);
        record.if_ip = address;
        return ravo_db_if_add(&record);
    };
    ASSERT_EQ(add_at("vlan20", 0x0100000A) + add_at("vlan3", 0x0100000A) + add_at("vlan7", 0), 3);
    for (const std::uint32_t address : {0x0100000AU, 0U, 0x0100000AU}) {
        ASSERT_EQ(ravo_access.interface_at(address, &out), 1);
        const std::string before = out.name;
        const std::size_t traced = fake::traces().size();
        ASSERT_EQ(ravo_access.interface_at(address, &out), 1);
        EXPECT_EQ(fake::traces().size(), traced) << "it is no look-up of the relay's";
        const iface *view = ravo_if_view_by_addr(address);
        ASSERT_NE(view, nullptr);
        EXPECT_EQ(before, view->name);
    }
    ASSERT_EQ(ravo_db_if_delete("vlan7"), 1);
    EXPECT_EQ(ravo_access.interface_at(0, &out), 0);
    EXPECT_EQ(ravo_access.interface_at(0x0200000A, &out), 0);
}

TEST_F(RavoAccess, TransactionsAreWalkedInTheOrderOfTheirIds) {
    relay_transaction out{};
    EXPECT_EQ(ravo_access.transaction_first(&out), 0);
    for (const std::uint32_t xid : {4294967295u, 1u}) {
        xid_entry entry{};
        entry.xid = xid;
        entry.module = 2;
        entry.port = 7;
        ASSERT_EQ(ravo_db_xid_update(&entry), 1);
    }
    ASSERT_EQ(ravo_access.transaction_first(&out), 1);
    EXPECT_EQ(out.xid, 1u);
    EXPECT_EQ(out.module, 2u);
    EXPECT_EQ(out.port, 7u);
    ASSERT_EQ(ravo_access.transaction_next(&out), 1);
    EXPECT_EQ(out.xid, 4294967295u);
    EXPECT_EQ(ravo_access.transaction_next(&out), 0);
}

TEST_F(RavoAccess, ATransactionIsRememberedAsARequestDoes) {
    const relay_transaction first{.xid = 9, .module = 2, .port = 7}, second{.xid = 9, .module = 1, .port = 3};
    EXPECT_EQ(ravo_access.transaction_add(&first), 1);
    EXPECT_EQ(ravo_access.transaction_add(&second), 1);
    relay_transaction out{};
    ASSERT_EQ(ravo_access.transaction_first(&out), 1);
    EXPECT_EQ(out.xid, 9u);
    EXPECT_EQ(out.module, 1u);
    EXPECT_EQ(out.port, 3u);
    EXPECT_EQ(ravo_access.transaction_next(&out), 0);
}

TEST_F(RavoAccess, ARecordIsMadeWithItsNumberAndKeptWhenThereIsOne) {
    ASSERT_EQ(ravo_access.interface_make("vlan30"), 1);
    iface record = record_named("vlan30");
    ASSERT_EQ(ravo_db_if_get(&record), 1);
    EXPECT_EQ(record.in_use, 1u);
    EXPECT_EQ(record.ifindex, 1054u);
    record.trusted = 1;
    ASSERT_EQ(ravo_db_if_add(&record), 1);
    ASSERT_EQ(ravo_access.interface_make("vlan30"), 1);
    ASSERT_EQ(ravo_db_if_get(&record), 1);
    EXPECT_EQ(record.trusted, 1u);
}

TEST_F(RavoAccess, LocalRelayIsSetOnceAndToldSo) {
    ravo_agent agent{};
    set_setting(&ravo_agent::hops, 9);
    set_setting(&ravo_agent::policy, 3);
    EXPECT_EQ(ravo_access.local_relay_set(0), 0);
    EXPECT_EQ(ravo_access.local_relay_set(7), 1);
    EXPECT_EQ(settings_now().hops, 9u);  // the other settings stay
    EXPECT_EQ(settings_now().policy, 3u);
    ravo_db_agent_get(&agent);
    EXPECT_EQ(agent.local_relay_enable, 1u);
    EXPECT_EQ(ravo_access.local_relay_set(1), 0);
    EXPECT_EQ(ravo_access.local_relay_set(0), 1);
}

TEST_F(RavoAccess, LocalRelayOfAnInterface) {
    relay_interface out{};
    EXPECT_EQ(ravo_access.interface_local_relay_set("vlan10", 0), 1);
    EXPECT_EQ(ravo_access.interface_get("vlan10", &out), 0) << "to turn it off makes no record";
    EXPECT_EQ(ravo_access.interface_local_relay_set("vlan10", 1), 1);
    ASSERT_EQ(ravo_access.interface_get("vlan10", &out), 1);
    EXPECT_EQ(out.local_relay, 1u);
    EXPECT_EQ(out.ifindex, 1034u);
    EXPECT_EQ(ravo_access.interface_local_relay_set("vlan10", 0), 1);
    ASSERT_EQ(ravo_access.interface_get("vlan10", &out), 1);
    EXPECT_EQ(out.local_relay, 0u);
}

}  // namespace

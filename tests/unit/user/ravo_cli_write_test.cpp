// SPDX-License-Identifier: Apache-2.0
// The relay's section of the running configuration.
#include "relay_fixture.h"

using testing::IsEmpty;

namespace {

using RavoCliWrite = Relay;

struct written {
    int count;
    std::string text;

    bool operator==(const written &) const = default;
};

std::ostream &operator<<(std::ostream &out, const written &value) {
    return out << value.count << "\n" << value.text;
}

written write() {
    fake::session session;
    const int count = ravo_config_write(&session.context);
    return {count, session.text()};
}

void store(const iface &record) {
    ASSERT_EQ(ravo_db_if_add(&record), 1);
}

TEST_F(RavoCliWrite, DefaultsWriteNothingAndReturnOne) {
    EXPECT_EQ(write(), (written{1, ""}));
}

TEST_F(RavoCliWrite, EverySettingThatDiffersHasItsLine) {
    const struct {
        std::uint32_t ravo_agent::*field;
        std::uint32_t value;
        written expected;
    } rows[] = {
        {&ravo_agent::relay_enable, 0, {1, ""}},
        {&ravo_agent::relay_enable, 1, {2, "ip dhcp relay\n!\n"}},
        {&ravo_agent::relay_enable, 2, {1, ""}},
        {&ravo_agent::option_state, 1, {2, "ip dhcp relay information option\n!\n"}},
        {&ravo_agent::option_state, 2, {1, ""}},
        {&ravo_agent::check, 1, {1, ""}},
        {&ravo_agent::check, 0, {2, "no ip dhcp relay information check\n!\n"}},
        {&ravo_agent::check, 2, {2, "no ip dhcp relay information check\n!\n"}},
        {&ravo_agent::policy, 1, {1, ""}},
        {&ravo_agent::policy, 2, {2, "ip dhcp relay information policy drop\n!\n"}},
        {&ravo_agent::policy, 3, {2, "ip dhcp relay information policy keep\n!\n"}},
        {&ravo_agent::policy, 0, {2, "!\n"}},
        {&ravo_agent::policy, 9, {2, "!\n"}},
        {&ravo_agent::hops, 4, {1, ""}},
        {&ravo_agent::hops, 8, {2, "ip dhcp relay hops 8\n!\n"}},
        {&ravo_agent::local_relay_enable, 1, {1, ""}},
    };
    for (const auto &row : rows) {
        ravo_db_agent_reset();
        set_setting(row.field, row.value);
        EXPECT_EQ(write(), row.expected) << row.value;
    }
}

TEST_F(RavoCliWrite, HopsFourGivenByCommandIsTheDefault) {
    fake::session session;
    session.run(ravo_cmd_hops, {"5"});
    session.run(ravo_cmd_hops, {"4"});
    EXPECT_EQ(write(), (written{1, ""}));
}

TEST_F(RavoCliWrite, TheWholeSectionInItsOrder) {
    ravo_agent agent = settings_now();
    agent.relay_enable = 1;
    agent.option_state = 1;
    agent.check = 0;
    agent.policy = 3;
    agent.hops = 16;
    agent.local_relay_enable = 1;
    agent.local_relay_vlan[7] = 4094;
    ravo_db_agent_set(&agent);
    iface trusted = vlan_record(10, {"10.0.0.1", "10.0.0.2"});
    trusted.trusted = 1;
    store(trusted);
    store(vlan_record(9));
    EXPECT_EQ(write(), (written{9,
                                "ip dhcp relay\n!\n"
                                "ip dhcp relay information option\n!\n"
                                "no ip dhcp relay information check\n!\n"
                                "ip dhcp relay information policy keep\n!\n"
                                "ip dhcp relay hops 16\n!\n"
                                "ip dhcp local-relay vlan 4094\n!\n"
                                "!\ninterface vlan9\n"
                                "!\ninterface vlan10\n"
                                " ip dhcp relay information trusted\n"
                                " ip dhcp relay address 10.0.0.1\n"
                                " ip dhcp relay address 10.0.0.2\n"}));
}

TEST_F(RavoCliWrite, TwoSeparatorsStandBeforeTheFirstInterface) {
    set_setting(&ravo_agent::relay_enable, 1);
    set_setting(&ravo_agent::hops, 8);
    iface record = vlan_record(10, {"10.0.0.1"});
    record.trusted = 1;
    store(record);
    EXPECT_EQ(write(), (written{4,
                                "ip dhcp relay\n!\nip dhcp relay hops 8\n!\n!\ninterface vlan10\n"
                                " ip dhcp relay information trusted\n ip dhcp relay address 10.0.0.1\n"}));
}

TEST_F(RavoCliWrite, EveryRecordHasItsLineAndOnlyTrustOneCounts) {
    iface record = record_named("eth0/12");
    record.trusted = 2;
    record.if_ip = fake::address("192.0.2.1");
    store(record);
    EXPECT_EQ(write(), (written{2, "!\ninterface eth0/12\n"}));
}

TEST_F(RavoCliWrite, EverySlotThatIsNotEmptyIsWritten) {
    iface record = vlan_record(10, {"0.0.0.0", "10.0.0.2", "0.0.0.0", "10.0.0.4"});
    record.server_count = 0;
    store(record);
    EXPECT_EQ(write(),
              (written{2, "!\ninterface vlan10\n ip dhcp relay address 10.0.0.2\n ip dhcp relay address 10.0.0.4\n"}));
}

TEST_F(RavoCliWrite, ServersByOptionAndTrustAllAreNotWritten) {
    iface record = vlan_record(10);
    record.opt60_count = 1;
    record.opt60_hosts[0].used = 1;
    record.opt61_count = 1;
    record.opt61_hosts[0].used = 1;
    store(record);
    trust_all = 1;
    EXPECT_EQ(write(), (written{2, "!\ninterface vlan10\n"}));
}

// ---- The list of local relay ----

TEST_F(RavoCliWrite, VlansAreListedInTheOrderOfTheirSlots) {
    ravo_agent agent = settings_now();
    agent.local_relay_enable = 1;
    agent.local_relay_vlan[0] = 30;
    agent.local_relay_vlan[2] = 10;
    ravo_db_agent_set(&agent);
    EXPECT_EQ(write(), (written{2, "ip dhcp local-relay vlan 30,10\n!\n"}));
}

TEST_F(RavoCliWrite, VlansAreNotWrittenWhileLocalRelayIsOff) {
    ravo_agent agent = settings_now();
    agent.local_relay_vlan[0] = 30;
    for (const std::uint32_t state : {0u, 2u}) {
        agent.local_relay_enable = state;
        ravo_db_agent_set(&agent);
        EXPECT_EQ(write(), (written{1, ""})) << state;
    }
}

TEST_F(RavoCliWrite, AListOfAllSlotsFits) {
    ravo_agent agent = settings_now();
    agent.local_relay_enable = 1;
    std::string list;
    for (std::size_t i = 0; i < std::size(agent.local_relay_vlan); ++i) {
        agent.local_relay_vlan[i] = static_cast<std::uint16_t>(65535 - i);
        list += (i == 0 ? "" : ",") + std::to_string(65535 - i);
    }
    ravo_db_agent_set(&agent);
    EXPECT_EQ(write(), (written{2, "ip dhcp local-relay vlan " + list + "\n!\n"}));
    EXPECT_EQ(fake::blocks_used(), 0u);
}

TEST_F(RavoCliWrite, WithoutMemoryForTheListTheSectionEndsAndCountsAsNothing) {
    ravo_agent agent = settings_now();
    agent.relay_enable = 1;
    agent.local_relay_enable = 1;
    agent.local_relay_vlan[0] = 30;
    ravo_db_agent_set(&agent);
    store(vlan_record(10, {"10.0.0.1"}));
    fake::script(fake::op::calloc);
    EXPECT_EQ(write(), (written{0, "ip dhcp relay\n!\n"}));
}

TEST_F(RavoCliWrite, TheBufferOfTheListHasItsSize) {
    set_setting(&ravo_agent::local_relay_enable, 1);
    fake::memory_budget = 77851;
    EXPECT_EQ(write(), (written{0, ""}));
    fake::memory_budget = 77852;
    EXPECT_EQ(write(), (written{1, ""}));
}

// ---- The gate ----

TEST_F(RavoCliWrite, AClosedGateChangesTheTextOnly) {
    set_setting(&ravo_agent::hops, 8);
    store(vlan_record(10));
    fake::session session;
    session.context.view_flags = 2;
    EXPECT_EQ(ravo_config_write(&session.context), 3);
    EXPECT_THAT(session.outputs, IsEmpty());
    session.context.show_all = 1;
    EXPECT_EQ(ravo_config_write(&session.context), 3);
    EXPECT_EQ(session.text(), "ip dhcp relay hops 8\n!\n!\ninterface vlan10\n");
}

}  // namespace

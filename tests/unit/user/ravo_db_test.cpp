// SPDX-License-Identifier: Apache-2.0
// The relay settings.
#include "ravo_db.h"

#include <algorithm>
#include <limits>

#include "relay_fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

using RavoDb = Relay;

const std::uint32_t trust_all_at_start = trust_all;

// ---- Settings ----

TEST_F(RavoDb, AResetGivesTheDefaultsAndTellsThatTheRelayIsOff) {
    ravo_agent other;
    std::memset(&other, 0xa5, sizeof other);
    ravo_db_agent_set(&other);
    fake::forget();

    EXPECT_EQ(ravo_db_agent_reset(), RAVO_OK);
    const ravo_agent agent = settings_now();
    EXPECT_EQ(agent.relay_enable, 0u);
    EXPECT_EQ(agent.option_state, 0u);
    EXPECT_EQ(agent.policy, 1u);
    EXPECT_EQ(agent.local_relay_enable, 0u);
    EXPECT_TRUE(std::all_of(std::begin(agent.local_relay_vlan), std::end(agent.local_relay_vlan),
                            [](std::uint16_t vlan) { return vlan == 0; }));
    EXPECT_EQ(agent.check, 1u);
    EXPECT_EQ(agent.hops, 4u);
    EXPECT_THAT(fake::statuses, ElementsAre("28 2 \"\""));
}

TEST_F(RavoDb, NothingIsTrustedAtFirst) {
    EXPECT_EQ(trust_all_at_start, 0u);
}

TEST_F(RavoDb, OnlyRelayEnableOneIsOn) {
    for (const std::uint32_t value : {0u, 1u, 2u, std::numeric_limits<std::uint32_t>::max()}) {
        fake::forget();
        set_setting(&ravo_agent::relay_enable, value);
        EXPECT_THAT(fake::statuses, ElementsAre(value == 1 ? "28 1 \"\"" : "28 2 \"\"")) << value;
        fake::forget();
        ravo_db_status_push(value);
        EXPECT_THAT(fake::statuses, ElementsAre(value == 1 ? "28 1 \"\"" : "28 2 \"\"")) << value;
    }
}

TEST_F(RavoDb, ASetStoresTheWholeRecordUnchecked) {
    ravo_agent in{};
    in.relay_enable = 7;
    in.option_state = 8;
    in.policy = 9;
    in.local_relay_enable = 10;
    for (std::size_t i = 0; i < std::size(in.local_relay_vlan); ++i)
        in.local_relay_vlan[i] = static_cast<std::uint16_t>(i * 3);
    in.check = 11;
    in.hops = 4000;
    EXPECT_EQ(ravo_db_agent_set(&in), RAVO_OK);
    ravo_agent out{};
    EXPECT_EQ(ravo_db_agent_get(&out), RAVO_OK);
    EXPECT_EQ(std::memcmp(&in, &out, sizeof in), 0);
}

TEST_F(RavoDb, ACopyIsNobodyElses) {
    ravo_agent copy = settings_now();
    copy.hops = 12;
    EXPECT_EQ(settings_now().hops, 4u);
    ravo_db_agent_set(&copy);
    copy.hops = 13;
    EXPECT_EQ(settings_now().hops, 12u);
}

TEST_F(RavoDb, TheViewShowsWhatIsSet) {
    const ravo_agent &view = ravo_db_agent_view();
    EXPECT_EQ(view.hops, 4u);
    ravo_agent agent = settings_now();
    agent.hops = 9;
    EXPECT_EQ(view.hops, 4u) << "a copy is nobody else's";
    ravo_db_agent_set(&agent);
    EXPECT_EQ(view.hops, 9u);
}

TEST_F(RavoDb, EverySetTellsTheStatusAgain) {
    const ravo_agent agent = settings_now();
    ravo_db_agent_set(&agent);
    ravo_db_agent_set(&agent);
    EXPECT_THAT(fake::statuses, ElementsAre("28 2 \"\"", "28 2 \"\""));
}

}  // namespace

// SPDX-License-Identifier: Apache-2.0
// Start-up and reset of the relay's data.
#include "ravo_life.h"

#include "ravo_if_socket.h"
#include "relay_fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

using RavoLife = Relay;

TEST_F(RavoLife, ResetDeletesEveryInterfaceAndClosesEverySocket) {
    const iface record = vlan_record(10, {"10.0.0.1"});
    EXPECT_EQ(ravo_db_if_add(&record), 1);
    set_setting(&ravo_agent::hops, 9);
    EXPECT_EQ(RAVO_IF_Create_fd(), 0U);
    fake::forget();
    EXPECT_EQ(RAVO_IF_Reset(), 0);
    EXPECT_EQ(settings_now().hops, 4u);
    EXPECT_THAT(stored_names(), IsEmpty());
    EXPECT_TRUE(fake::sockets.empty());
    EXPECT_THAT(fake::statuses, ElementsAre("28 2 \"\""));
}

}  // namespace

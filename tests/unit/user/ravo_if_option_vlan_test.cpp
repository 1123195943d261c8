// SPDX-License-Identifier: Apache-2.0
// Option 82: whose VLAN id it has, and the least type of a message.
#include <gtest/gtest.h>

#include <cstring>

#include "if_utl.h"
#include "packet_relay.h"
#include "ravo_if_option.h"

namespace {

class Option : public packet::relay_test {};

TEST_F(Option, VlanIdOfANameThatIsNoPlainOneIsThePlatforms) {
    iface relay = packet::record();
    for (const char *name : {"vlax10", "wlan10", "vlan", "vlan010", "vlan0", "vlan10a", "vlan1/", "vlan1:", "vlan4095",
                             "vlan65546", "vlan99999999999"}) {
        std::strcpy(relay.name, name);
        const auto platforms = static_cast<std::uint16_t>(if_utl_ifname_to_ifindex(name) - IF_UTL_VLAN_BASE);
        EXPECT_EQ(ravo_vlan_id_of(&relay), platforms) << name;
    }
}

TEST_F(Option, MessageType0IsFoundAsOne) {
    using packet::bytes;
    packet::held_message held(packet::join({bytes(236, 0), packet::cookie, packet::type(0), {255}}));
    std::uint8_t *relay = nullptr;
    std::uint8_t message_type = 99;
    EXPECT_EQ(ravo_find_agent_option(held.first_option(), &relay, &message_type), 1);
    EXPECT_EQ(message_type, 0);
}

}  // namespace

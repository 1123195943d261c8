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

TEST_F(Option, APlatformMayNumberANameWithLeadingZerosAsItLikes) {
    iface relay = packet::record();
    std::strcpy(relay.name, "vlan010");
    fake::add_name("vlan010", IF_UTL_VLAN_BASE + 3000);
    EXPECT_EQ(ravo_vlan_id_of(&relay), 3000);
}

TEST_F(Option, NamesEveryVlan) {
    fake::print_from(200);  // traces of thousands of options are of no use
    packet::held_message held(packet::bytes(240, 0));
    for (int vlan = 1; vlan <= 4094; ++vlan) {
        const iface relay = packet::record({.vlan = vlan});
        (void)addAgentOption(&relay, held.first_option(), 1, 0, packet::port_2_1);
        ASSERT_EQ(packet::bytes(held.first_option(), held.first_option() + 20),
                  packet::option82({.vlan = static_cast<unsigned>(vlan)}))
            << vlan;
    }
}

TEST_F(Option, IsAddedWhereTheEndOptionIsTheOnlyOne) {
    using packet::bytes;
    packet::held_message held(packet::join({bytes(236, 0), packet::cookie, {255}}));
    const iface relay = packet::record();
    EXPECT_EQ(fillOptions(&relay, held.first_option(), 2, 0, packet::port_2_1), 21U);
    EXPECT_BYTES(packet::join({packet::option82(), {255}}), bytes(held.first_option(), held.first_option() + 21));
}

TEST_F(Option, TheTraceOfAClientIdentifierShowsItsFirstSevenBytes) {
    using packet::bytes;
    packet::held_message held(
        packet::join({bytes(236, 0), packet::cookie, packet::opt(61, packet::hex("a1 b2 c3 d4 e5 f6 07 18")), {255}}));
    std::uint8_t client_id[128] = {};
    char vendor[64] = {};
    std::uint32_t found60 = 0;
    std::uint32_t found61 = 0;
    EXPECT_EQ(ravo_find_option60_61(held.first_option(), client_id, vendor, &found60, &found61), 0);
    EXPECT_EQ(fake::traces(101),
              std::vector<std::string>{"ravo_find_option60_61 (#): found rcv pkt with option61 A1B2C3D4E5F607\n"});
    EXPECT_EQ(found60, 0U);
    EXPECT_EQ(found61, 1U);
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

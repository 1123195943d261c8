// SPDX-License-Identifier: Apache-2.0
// Names and numbers of interfaces.
#include "if_utl.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "inventory/inventory.h"

namespace {

std::string name_of(std::uint32_t ifindex, int *result) {
    char name[IF_UTL_NAME_SIZE];
    std::memset(name, '#', sizeof name);
    *result = if_utl_ifindex_to_ifname(ifindex, name);
    return name;
}

TEST(IfUtl, VlanNamesHaveTheirNumbersWithoutAnyInterface) {
    EXPECT_EQ(if_utl_ifname_to_ifindex("vlan1"), 1025U);
    EXPECT_EQ(if_utl_ifname_to_ifindex("vlan10"), 1034U);
    EXPECT_EQ(if_utl_ifname_to_ifindex("vlan4094"), 5118U);
}

TEST(IfUtl, LeadingZerosNameTheSameVlan) {
    EXPECT_EQ(if_utl_ifname_to_ifindex("vlan010"), 1034U);
    EXPECT_EQ(if_utl_ifname_to_ifindex("vlan0000000000000010"), 1034U) << "the longest name that fits";
}

TEST(IfUtl, OtherNamesHaveNoNumber) {
    const char *const names[] = {"",
                                 "vlan",
                                 "vlan0",
                                 "vlan00",
                                 "vlan4095",
                                 "vlan99999999999",
                                 "vlan4294967306",
                                 "vlan10x",
                                 "vlan-1",
                                 "vlan+1",
                                 "vlan 10",
                                 " vlan10",
                                 "vlan10 ",
                                 "VLAN10",
                                 "10",
                                 "eth0",
                                 "vlan00000000000000010",
                                 "vlan000000000000000000000000000000000000000000000000000000010"};
    for (const char *name : names) EXPECT_EQ(if_utl_ifname_to_ifindex(name), 0U) << '"' << name << '"';
    EXPECT_EQ(if_utl_ifname_to_ifindex(nullptr), 0U);
}

TEST(IfUtl, VlanNumbersHaveNames) {
    int result = 0;
    EXPECT_EQ(name_of(1025, &result), "vlan1");
    EXPECT_EQ(result, 1);
    EXPECT_EQ(name_of(5118, &result), "vlan4094");
    EXPECT_EQ(result, 1);
}

TEST(IfUtl, OtherNumbersHaveAnEmptyName) {
    for (const std::uint32_t number : {0U, 1U, 1024U, 5119U, 5120U, 5121U, 0xFFFFFFFFU}) {
        int result = 1;
        EXPECT_EQ(name_of(number, &result), "") << number;
        EXPECT_EQ(result, 0) << number;
    }
}

TEST(IfUtl, EveryVlanGoesThereAndBack) {
    for (std::uint32_t number = 1025; number <= 5118; ++number) {
        int result = 0;
        EXPECT_EQ(if_utl_ifname_to_ifindex(name_of(number, &result).c_str()), number);
        EXPECT_EQ(result, 1);
    }
}

TEST(IfUtl, PortsAreNamedAfterTheirDevices) {
    ravo::platform::inventory_describe({.ports = {{"swp1", 1, 1}, {"swp2longestname", 2, 0}}, .interfaces = {}});
    EXPECT_EQ(if_utl_ifname_to_ifindex("swp1"), 5121U);
    EXPECT_EQ(if_utl_ifname_to_ifindex("swp2longestname"), 5184U);
    int result = 0;
    EXPECT_EQ(name_of(5121, &result), "swp1");
    EXPECT_EQ(result, 1);
    EXPECT_EQ(name_of(5184, &result), "swp2longestname");
    EXPECT_EQ(result, 1);
}

}  // namespace

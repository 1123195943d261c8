// SPDX-License-Identifier: Apache-2.0
// Interface objects and the hooks, fed by hand. Each test uses VLANs of its own, since objects live as long as the
// process.
#include "nsm.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "interface_events.h"
#include "interfaces/nsm_feed.h"

namespace {

using interface_events::take;
using interface_events::text_of;
using ravo::platform::address_record;
using ravo::platform::interface_state;
using ravo::platform::nsm_feed;
using testing::ElementsAre;
using testing::IsEmpty;

address_record address(const char *text, std::uint8_t prefix_length = 24, bool secondary = false) {
    address_record made;
    made.address = inet_addr(text);
    made.peer = made.address;
    made.prefix_length = prefix_length;
    made.secondary = secondary;
    return made;
}

struct device {
    int kernel_ifindex = 1;
    bool up = true;
    std::uint8_t mac = 1;  // last byte of it
    std::vector<address_record> addresses = {};
};

void feed(std::uint16_t vlan, const device &now) {
    const interface_state state = {now.kernel_ifindex, now.up, {2, 0, 0, 0, 0, now.mac}, &now.addresses};
    nsm_feed(vlan, &state);
}

void connect_and_deliver() {
    interface_events::connect();
    ravo::platform::nsm_deliver_existing();
    take();
}

// Stands first: what follows needs hooks that run.
TEST(Nsm, NoHookRunsBeforeWhatExistsIsDelivered) {
    interface_events::connect();
    feed(20, {.addresses = {address("10.0.20.1"), address("10.0.20.2", 24, true)}});
    feed(10, {.addresses = {address("10.0.10.1")}});
    feed(30, {.up = false, .addresses = {address("10.0.30.1")}});
    feed(40, {});
    nsm_feed(40, nullptr);
    EXPECT_THAT(take(), IsEmpty());
    ravo::platform::nsm_deliver_existing();
    EXPECT_THAT(take(), ElementsAre("up vlan10 1034 type 7 mac 020000000001 [10.0.10.1/24]",  //
                                    "add 10.0.10.1/24 to vlan10",
                                    "up vlan20 1044 type 7 mac 020000000001 [10.0.20.1/24 10.0.20.2/24:1]",
                                    "add 10.0.20.1/24 to vlan20", "add 10.0.20.2/24:1 to vlan20",
                                    "add 10.0.30.1/24 to vlan30"));
    nsm_feed(10, nullptr);
    nsm_feed(20, nullptr);
    nsm_feed(30, nullptr);
}

TEST(Nsm, InterfaceComesUpGetsAddressesAndGoes) {
    connect_and_deliver();
    feed(100, {.up = false});
    EXPECT_THAT(take(), IsEmpty()) << "it exists, but is down";
    feed(100, {.up = true});
    EXPECT_THAT(take(), ElementsAre("up vlan100 1124 type 7 mac 020000000001 []"));
    feed(100, {.addresses = {address("192.0.2.1")}});
    EXPECT_THAT(take(), ElementsAre("add 192.0.2.1/24 to vlan100"));
    feed(100, {.up = false, .addresses = {address("192.0.2.1")}});
    EXPECT_THAT(take(), IsEmpty()) << "going down has no event";
    nsm_feed(100, nullptr);
    EXPECT_THAT(take(), ElementsAre("delete vlan100"));
    nsm_feed(100, nullptr);
    EXPECT_THAT(take(), IsEmpty()) << "gone already";
}

TEST(Nsm, SameStateAgainTellsNothing) {
    connect_and_deliver();
    const device now = {.addresses = {address("192.0.2.1"), address("192.0.2.2", 24, true)}};
    feed(101, now);
    take();
    feed(101, now);
    EXPECT_THAT(take(), IsEmpty());
}

TEST(Nsm, AddressToBeDeletedIsStillInTheList) {
    connect_and_deliver();
    feed(102, {.addresses = {address("192.0.2.1"), address("192.0.2.2", 24, true)}});
    take();
    feed(102, {.addresses = {address("192.0.2.1")}});
    EXPECT_THAT(
        take(),
        ElementsAre("remove 192.0.2.2/24:1 from vlan102 1126 type 7 mac 020000000001 [192.0.2.1/24 192.0.2.2/24:1]"));
    feed(102, {});
    EXPECT_THAT(take(), ElementsAre("remove 192.0.2.1/24 from vlan102 1126 type 7 mac 020000000001 [192.0.2.1/24]"));
}

TEST(Nsm, LosingAPrimaryAddressBringsTheNextOneIn) {
    connect_and_deliver();
    feed(103, {.addresses = {address("192.0.2.1"), address("198.51.100.1")}});
    take();
    feed(103, {.addresses = {address("198.51.100.1")}});
    EXPECT_THAT(take(), ElementsAre("remove 192.0.2.1/24 from vlan103 1127 type 7 mac 020000000001 "
                                    "[192.0.2.1/24 198.51.100.1/24]",
                                    "up vlan103 1127 type 7 mac 020000000001 [198.51.100.1/24]"));
}

TEST(Nsm, PromotedAddressIsToldAsAdded) {
    connect_and_deliver();
    feed(104, {.addresses = {address("192.0.2.1"), address("192.0.2.2", 24, true)}});
    take();
    feed(104, {.addresses = {address("192.0.2.2", 24, true)}});
    feed(104, {.addresses = {address("192.0.2.2")}});
    EXPECT_THAT(take(), ElementsAre("remove 192.0.2.1/24 from vlan104 1128 type 7 mac 020000000001 "
                                    "[192.0.2.1/24 192.0.2.2/24:1]",
                                    "add 192.0.2.2/24 to vlan104"));
}

TEST(Nsm, ReaddressedAtOnceDeletesBeforeItAdds) {
    connect_and_deliver();
    feed(105, {.addresses = {address("192.0.2.1")}});
    take();
    feed(105, {.addresses = {address("192.0.2.1", 25)}});
    EXPECT_THAT(take(),
                ElementsAre("remove 192.0.2.1/24 from vlan105 1129 type 7 mac 020000000001 [192.0.2.1/24]",
                            "up vlan105 1129 type 7 mac 020000000001 [192.0.2.1/25]", "add 192.0.2.1/25 to vlan105"));
}

TEST(Nsm, ListFollowsTheKernelsOrder) {
    connect_and_deliver();
    feed(106, {.addresses = {address("10.0.0.1"), address("10.0.1.1"), address("10.0.2.1")}});
    feed(106, {.addresses = {address("10.0.2.1"), address("10.0.3.1"), address("10.0.0.1")}});
    EXPECT_EQ(text_of(*ifg_lookup_by_index(1130)),
              "vlan106 1130 type 7 mac 020000000001 [10.0.2.1/24 10.0.3.1/24 10.0.0.1/24]");
}

TEST(Nsm, SameAddressWithAnotherPeerIsAnother) {
    connect_and_deliver();
    address_record one = address("10.0.0.1", 32);
    one.peer = inet_addr("10.0.0.2");
    address_record other = one;
    other.peer = inet_addr("10.0.0.3");
    feed(107, {.addresses = {one}});
    take();
    feed(107, {.addresses = {one, other}});
    EXPECT_THAT(take(), ElementsAre("add 10.0.0.1/32 to vlan107"));
}

TEST(Nsm, ChangedHardwareAddressOrDeviceRunsUpAgain) {
    connect_and_deliver();
    feed(108, {.addresses = {address("192.0.2.1")}});
    take();
    feed(108, {.mac = 9, .addresses = {address("192.0.2.1")}});
    EXPECT_THAT(take(), ElementsAre("up vlan108 1132 type 7 mac 020000000009 [192.0.2.1/24]"));
    feed(108, {.kernel_ifindex = 77, .mac = 9, .addresses = {address("192.0.2.1")}});
    EXPECT_THAT(take(), ElementsAre("up vlan108 1132 type 7 mac 020000000009 [192.0.2.1/24]"));
    feed(108, {.kernel_ifindex = 77, .up = false, .mac = 8, .addresses = {address("192.0.2.1")}});
    EXPECT_THAT(take(), IsEmpty());
    feed(108, {.kernel_ifindex = 77, .mac = 8, .addresses = {address("192.0.2.1")}});
    EXPECT_THAT(take(), ElementsAre("up vlan108 1132 type 7 mac 020000000008 [192.0.2.1/24]"));
}

TEST(Nsm, ObjectOutlivesItsDevice) {
    connect_and_deliver();
    interface *selected = ifg_get_by_name("vlan109");
    ASSERT_NE(selected, nullptr);
    EXPECT_EQ(text_of(*selected), "vlan109 1133 type 7 mac  []");
    feed(109, {.addresses = {address("192.0.2.1")}});
    EXPECT_EQ(text_of(*selected), "vlan109 1133 type 7 mac 020000000001 [192.0.2.1/24]");
    nsm_feed(109, nullptr);
    EXPECT_EQ(text_of(*selected), "vlan109 1133 type 7 mac  []");
    EXPECT_EQ(ifg_lookup_by_index(1133), nullptr) << "that a command selected it makes no interface";
    feed(109, {});
    EXPECT_EQ(ifg_lookup_by_index(1133), selected);
}

TEST(Nsm, DeletedInterfaceThatNoCommandSelectedIsListedNoMore) {
    connect_and_deliver();
    EXPECT_EQ(ifg_lookup_by_index(1134), nullptr);
    feed(110, {});
    ASSERT_NE(ifg_lookup_by_index(1134), nullptr);
    nsm_feed(110, nullptr);
    EXPECT_EQ(ifg_lookup_by_index(1134), nullptr);
}

TEST(Nsm, DeletedInterfaceThatACommandSelectedIsWalkedByNoMore) {
    connect_and_deliver();
    interface *selected = ifg_get_by_name("vlan112");
    const auto is_walked_by = [&] {
        for (const interface *ifp = ifg_first(); ifp != nullptr; ifp = ifg_next(ifp))
            if (ifp == selected) return true;
        return false;
    };
    EXPECT_TRUE(is_walked_by()) << "not there yet";
    feed(112, {});
    EXPECT_TRUE(is_walked_by());
    nsm_feed(112, nullptr);
    EXPECT_FALSE(is_walked_by());
    EXPECT_EQ(ifg_get_by_name("vlan112"), selected);
    EXPECT_TRUE(is_walked_by()) << "selected anew";
    nsm_feed(112, nullptr);
    EXPECT_TRUE(is_walked_by()) << "nothing was deleted";
}

TEST(Nsm, NamesSelectTheSameObject) {
    interface *selected = ifg_get_by_name("vlan111");
    ASSERT_NE(selected, nullptr);
    EXPECT_STREQ(selected->name, "vlan111");
    EXPECT_EQ(ifg_get_by_name("vlan0111"), selected);
    EXPECT_EQ(ifg_get_by_name("111"), selected);
    EXPECT_EQ(ifg_get_by_name("0111"), selected);
}

TEST(Nsm, NamesThatAreNoInterfaceSelectNothing) {
    for (const char *name : {"", "0", "4095", "vlan0", "vlan4095", "vlan99999999999", "99999999999999999999", "eth0",
                             "lo", "vlan", "1 0", "vlan10000000000000000000000000000000000"})
        EXPECT_EQ(ifg_get_by_name(name), nullptr) << '"' << name << '"';
    EXPECT_EQ(ifg_get_by_name(nullptr), nullptr);
}

TEST(Nsm, NumbersOutsideTheVlanRangeFindNothing) {
    for (const std::uint32_t number : {0U, 1024U, 5119U, 5121U, 0xFFFFFFFFU})
        EXPECT_EQ(ifg_lookup_by_index(number), nullptr) << number;
}

TEST(Nsm, WalkGoesInOrderOfNumbers) {
    ASSERT_NE(ifg_get_by_name("vlan4094"), nullptr);
    ASSERT_NE(ifg_get_by_name("vlan1"), nullptr);
    feed(2000, {});
    std::vector<std::string> names;
    for (const interface *ifp = ifg_first(); ifp != nullptr; ifp = ifg_next(ifp)) {
        if (!names.empty()) {
            EXPECT_LT(if_utl_ifname_to_ifindex(names.back().c_str()), ifp->ifindex);
        }
        names.emplace_back(ifp->name);
    }
    EXPECT_EQ(names.front(), "vlan1");
    EXPECT_EQ(names.back(), "vlan4094");
    EXPECT_THAT(names, testing::Contains("vlan2000"));
    EXPECT_EQ(ifg_next(nullptr), nullptr);
}

TEST(Nsm, VlansOutOfRangeAreIgnored) {
    connect_and_deliver();
    feed(0, {});
    feed(4095, {});
    feed(65535, {});
    EXPECT_THAT(take(), IsEmpty());
}

TEST(Nsm, AHookReplacesTheFormerOne) {
    connect_and_deliver();
    if_add_hook(NSM_IF_UP, [](interface *ifp) {
        interface_events::lines().push_back("other hook " + std::string(ifp->name));
        return 0;
    });
    feed(112, {});
    EXPECT_THAT(take(), ElementsAre("other hook vlan112"));
    interface_events::connect();
}

TEST(Nsm, HooksForUnknownEventsAreNotInstalled) {
    connect_and_deliver();
    if_add_hook(3, [](interface *) {
        interface_events::lines().push_back("event 3");
        return 0;
    });
    ifc_add_hook(2, [](connected *) {
        interface_events::lines().push_back("event 2");
        return 0;
    });
    feed(113, {.addresses = {address("192.0.2.1")}});
    EXPECT_THAT(take(), ElementsAre("up vlan113 1137 type 7 mac 020000000001 [192.0.2.1/24]",  //
                                    "add 192.0.2.1/24 to vlan113"));
}

}  // namespace

// SPDX-License-Identifier: Apache-2.0
// The road of a frame: which VLAN and port it came in on, on records made by hand.
#include "inventory/inventory_model.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "inventory_model_fixture.h"

namespace ravo::platform {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// ---- The road of a frame ----

TEST_F(InventoryModel, BridgePerVlan) {
    bridge(1034, "vlan10");
    bridge(1044, "vlan20");
    member(5121, "swp1", 1034);
    member(5122, "swp2", 1044);
    member(5200, "swp3", 1044);
    EXPECT_THAT(taps(), ElementsAre("swp1", "swp2", "swp3"));
    EXPECT_EQ(classify(5121, untagged), "vlan 10 port 5121");
    EXPECT_EQ(classify(5122, untagged), "vlan 20 port 5122");
    EXPECT_EQ(classify(5200, untagged), "vlan 20 port 5200");
    EXPECT_EQ(classify(5121, 10), "unknown vlan") << "no VLAN device takes the tag off";
    EXPECT_EQ(classify(1034, untagged), "unknown port");
    EXPECT_EQ(classify(99, untagged), "unknown port");
}

TEST_F(InventoryModel, VlanDevicesOnANic) {
    add(2, "eth0");
    vlan_device(3, "eth0.10", 2, 10);
    vlan_device(4, "eth0.20", 2, 20);
    EXPECT_THAT(taps(), ElementsAre("eth0"));
    EXPECT_EQ(classify(2, 10), "vlan 10 port 5121");
    EXPECT_EQ(classify(2, 20), "vlan 20 port 5121");
    EXPECT_EQ(classify(2, 30), "unknown vlan");
    EXPECT_EQ(classify(2, untagged), "unknown vlan");
    EXPECT_EQ(classify(3, untagged), "unknown port");
}

TEST_F(InventoryModel, PriorityTagIsNoTag) {
    add(2, "vlan10");
    (void)model_settle_taps(&model);
    ingress in;
    EXPECT_EQ(model_classify(model, 2, /*tagged=*/true, /*tag=*/0, &in), ingress_result::ok);
    EXPECT_EQ(in.vlan, 10);
    EXPECT_EQ(model_classify(model, 2, /*tagged=*/true, /*tag=*/4095, &in), ingress_result::unknown_vlan);
    EXPECT_EQ(model_classify(model, 2, /*tagged=*/true, /*tag=*/65535, &in), ingress_result::unknown_vlan);
}

TEST_F(InventoryModel, UntaggedInterfaceAndVlanDevicesOnOneNic) {
    model_describe(&model, {.ports = {{"eth0", 2, 5}}, .interfaces = {{30, "eth0"}}});
    add(2, "eth0");
    vlan_device(3, "eth0.10", 2, 10);
    EXPECT_THAT(taps(), ElementsAre("eth0"));
    EXPECT_EQ(classify(2, untagged), "vlan 30 port 5189");
    EXPECT_EQ(classify(2, 10), "vlan 10 port 5189");
}

TEST_F(InventoryModel, VlanAwareBridge) {
    aware_bridge(2, "br0");
    member(11, "swp1", 2);
    member(12, "swp2", 2);
    vlan_device(20, "br0.10", 2, 10);
    vlan_device(21, "br0.20", 2, 20);
    model_apply(&model, vlans_seen{11, {{10, 10, true}}});
    model_apply(&model, vlans_seen{12, {{1, 1, true}, {10, 20, false}, {40, 40, false}}});
    EXPECT_THAT(taps(), ElementsAre("swp1", "swp2"));
    EXPECT_EQ(classify(11, untagged), "vlan 10 port 5121");
    EXPECT_EQ(classify(11, 10), "vlan 10 port 5121");
    EXPECT_EQ(classify(11, 20), "unknown vlan") << "the port is no member";
    EXPECT_EQ(classify(12, 10), "vlan 10 port 5122");
    EXPECT_EQ(classify(12, 20), "vlan 20 port 5122");
    EXPECT_EQ(classify(12, 15), "unknown vlan") << "no interface";
    EXPECT_EQ(classify(12, 40), "unknown vlan") << "no interface";
    EXPECT_EQ(classify(12, untagged), "unknown vlan") << "the bridge itself is no interface";
}

TEST_F(InventoryModel, VlanAwareBridgeThatIsAnInterfaceItself) {
    model_describe(&model, {.ports = {}, .interfaces = {{1, "br0"}}});
    aware_bridge(2, "br0", 1);
    member(11, "swp1", 2);
    vlan_device(20, "br0.10", 2, 10);
    model_apply(&model, vlans_seen{11, {{1, 1, true}, {10, 10, false}}});
    EXPECT_EQ(classify(11, untagged), "vlan 1 port 5121");
    EXPECT_EQ(classify(11, 1), "vlan 1 port 5121");
    EXPECT_EQ(classify(11, 10), "vlan 10 port 5121");
    model_apply(&model, vlans_seen{2, {{7, 7, true}}});
    EXPECT_EQ(classify(11, untagged), "unknown vlan") << "the bridge now takes VLAN 7";
}

TEST_F(InventoryModel, ChangesOfVlansOnABridgeAreFollowed) {
    aware_bridge(2, "br0");
    member(11, "swp1", 2);
    vlan_device(20, "br0.10", 2, 10);
    vlan_device(21, "br0.20", 2, 20);
    EXPECT_EQ(classify(11, untagged), "unknown vlan") << "no PVID yet";
    model_apply(&model, vlans_added{11, {{10, 10, true}}});
    EXPECT_EQ(classify(11, untagged), "vlan 10 port 5121");
    model_apply(&model, vlans_added{11, {{20, 20, true}}});
    EXPECT_EQ(classify(11, untagged), "vlan 20 port 5121");
    EXPECT_EQ(classify(11, 10), "vlan 10 port 5121");
    model_apply(&model, vlans_added{11, {{20, 20, false}}});
    EXPECT_EQ(classify(11, untagged), "unknown vlan") << "20 is no PVID any more";
    model_apply(&model, vlans_removed{11, {{1, 15, false}}});
    EXPECT_EQ(classify(11, 10), "unknown vlan");
    EXPECT_EQ(classify(11, 20), "vlan 20 port 5121");
    add(2, "br0", {.kind = device_kind::bridge, .aware = false});
    EXPECT_EQ(classify(11, 10), "vlan 10 port 5121") << "a plain bridge passes every tag";
}

TEST_F(InventoryModel, LeavingABridgeForgetsTheVlansOnIt) {
    aware_bridge(2, "br0");
    aware_bridge(3, "br1");
    member(11, "swp1", 2);
    vlan_device(20, "br0.10", 2, 10);
    vlan_device(21, "br1.20", 3, 20);
    model_apply(&model, vlans_seen{11, {{10, 10, true}, {20, 20, false}}});
    EXPECT_EQ(classify(11, untagged), "vlan 10 port 5121");
    member(11, "swp1", 3);
    EXPECT_EQ(classify(11, 20), "unknown vlan");
    model_apply(&model, vlans_added{11, {{20, 20, true}}});
    EXPECT_EQ(classify(11, untagged), "vlan 20 port 5121");
}

TEST_F(InventoryModel, VlanDeviceAsBridgeMemberIsReadOnItsNic) {
    add(2, "eth0");
    bridge(3, "vlan10");
    vlan_device(4, "eth0.10", 2, 10, /*master=*/3);
    member(5, "eth1", 3);
    EXPECT_EQ(interface_of(10), "vlan10");
    EXPECT_THAT(taps(), ElementsAre("eth0", "eth1"));
    EXPECT_EQ(classify(2, 10), "vlan 10 port 5122") << "eth1 is port 1 by its name";
    EXPECT_EQ(classify(2, untagged), "unknown vlan");
    EXPECT_EQ(classify(5, untagged), "vlan 10 port 5121");
    EXPECT_EQ(classify(4, untagged), "unknown port");
}

TEST_F(InventoryModel, VlanDeviceOfABridgeInABridgePerVlan) {
    aware_bridge(2, "br0");
    bridge(3, "vlan10");
    vlan_device(4, "br0.10", 2, 10, /*master=*/3);
    member(11, "swp1", 2);
    model_apply(&model, vlans_seen{11, {{10, 10, true}}});
    EXPECT_THAT(taps(), ElementsAre("swp1"));
    EXPECT_EQ(classify(11, untagged), "vlan 10 port 5121");
    EXPECT_EQ(classify(11, 10), "vlan 10 port 5121");
}

TEST_F(InventoryModel, TaggedFramesOfAMemberWithAVlanDeviceBypassTheBridge) {
    bridge(3, "vlan10");
    member(2, "eth0", 3);
    vlan_device(4, "eth0.20", 2, 20);
    EXPECT_THAT(taps(), ElementsAre("eth0"));
    EXPECT_EQ(classify(2, untagged), "vlan 10 port 5121");
    EXPECT_EQ(classify(2, 20), "vlan 20 port 5121");
}

TEST_F(InventoryModel, VlanDeviceWhoseNicIsElsewhereIsItsOwnPort) {
    vlan_device(4, "eth0.20", 0, 20);
    EXPECT_THAT(taps(), ElementsAre("eth0.20"));
    EXPECT_EQ(classify(4, untagged), "vlan 20 port 5121");
}

TEST_F(InventoryModel, BondIsThePortAndItsLinksAreNot) {
    add(2, "bond0");
    member(3, "eth0", 2);
    member(4, "eth1", 2);
    vlan_device(5, "bond0.10", 2, 10);
    EXPECT_THAT(taps(), ElementsAre("bond0"));
    EXPECT_EQ(classify(2, 10), "vlan 10 port 5121");
}

TEST_F(InventoryModel, PortMovedBetweenBridges) {
    bridge(1034, "vlan10");
    bridge(1044, "vlan20");
    member(5121, "swp1", 1034);
    EXPECT_EQ(classify(5121, untagged), "vlan 10 port 5121");
    member(5121, "swp1", 1044);
    EXPECT_EQ(classify(5121, untagged), "vlan 20 port 5121");
    add(5121, "swp1");
    EXPECT_EQ(classify(5121, untagged), "unknown port");
    EXPECT_THAT(taps(), IsEmpty());
}

TEST_F(InventoryModel, DevicesInAnyOrderEndTheSame) {
    vlan_device(20, "br0.10", 2, 10);
    member(11, "swp1", 2);
    EXPECT_THAT(taps(), ElementsAre("br0.10")) << "what it stands on is not known yet";
    aware_bridge(2, "br0");
    model_apply(&model, vlans_seen{11, {{10, 10, true}}});
    EXPECT_THAT(taps(), ElementsAre("swp1"));
    EXPECT_EQ(classify(11, untagged).substr(0, 7), "vlan 10");
    remove(2);
    EXPECT_THAT(taps(), ElementsAre("br0.10"));
}

TEST_F(InventoryModel, TapsChangedOnlyWhenTheyDid) {
    bridge(2, "vlan10");
    EXPECT_FALSE(model_settle_taps(&model)) << "no member yet";
    member(3, "swp1", 2);
    EXPECT_TRUE(model_settle_taps(&model));
    EXPECT_FALSE(model_settle_taps(&model));
    add(3, "swp1", {.master = 2, .up = false});
    EXPECT_FALSE(model_settle_taps(&model));
    add(3, "port1", {.master = 2});
    EXPECT_TRUE(model_settle_taps(&model)) << "renamed";
    remove(3);
    EXPECT_TRUE(model_settle_taps(&model));
}

TEST_F(InventoryModel, RingsOfDevicesEnd) {
    add(2, "a", {.kind = device_kind::bridge, .master = 3});
    add(3, "b", {.kind = device_kind::bridge, .master = 2});
    vlan_device(4, "c", 5, 10, 2);
    vlan_device(5, "d", 4, 10, 3);
    add(6, "e", {.kind = device_kind::vlan, .master = 6, .lower = 6, .vlan = 10});
    member(7, "swp1", 2);
    bridge(8, "vlan30");
    EXPECT_EQ(classify(7, untagged), "unknown port");
    EXPECT_EQ(interface_of(30), "vlan30");
}

// ---- Bridges that refuse ----

// What bridges say of a frame: "closed", "locked MEMBER vlan VLAN", or nothing.
std::string bridges_say(const inventory_model &model, int ifindex, std::uint16_t tag) {
    ingress in;
    if (model_classify(model, ifindex, tag != untagged, tag, &in) != ingress_result::ok) return "not good";
    std::string said = in.closed ? "closed " : "";
    if (in.locked_member != 0)
        said += "locked " + std::to_string(in.locked_member) + " vlan " + std::to_string(in.locked_vlan);
    return said;
}

constexpr bridge_port not_forwarding{.forwarding = false, .locked = false};
constexpr bridge_port locked{.forwarding = true, .locked = true};

TEST_F(InventoryModel, APortThatIsNotForwardingIsClosed) {
    bridge(1034, "vlan10");
    member(5121, "swp1", 1034);
    EXPECT_THAT(taps(), ElementsAre("swp1"));
    EXPECT_EQ(bridges_say(model, 5121, untagged), "");
    model_apply(&model, bridge_port_seen{5121, not_forwarding});
    EXPECT_EQ(bridges_say(model, 5121, untagged), "closed ");
    model_apply(&model, bridge_port_seen{5121, {}});
    EXPECT_EQ(bridges_say(model, 5121, untagged), "");
    model_apply(&model, bridge_port_seen{5121, locked});
    EXPECT_EQ(bridges_say(model, 5121, untagged), "locked 5121 vlan 0");
    model_apply(&model, bridge_port_seen{99, locked});
}

TEST_F(InventoryModel, APortThatIsNotForwardingIsClosedInAllVlansOfItsBridge) {
    aware_bridge(2, "br0");
    member(11, "swp1", 2);
    vlan_device(20, "br0.10", 2, 10);
    vlan_device(21, "br0.20", 2, 20);
    model_apply(&model, vlans_seen{11, {{10, 10, true}, {20, 20, false}}, not_forwarding});
    EXPECT_THAT(taps(), ElementsAre("swp1"));
    EXPECT_EQ(bridges_say(model, 11, untagged), "closed ");
    EXPECT_EQ(bridges_say(model, 11, 20), "closed ");
    model_apply(&model, vlans_seen{11, {{10, 10, true}, {20, 20, false}}, locked});
    EXPECT_EQ(bridges_say(model, 11, untagged), "locked 11 vlan 10");
    EXPECT_EQ(bridges_say(model, 11, 20), "locked 11 vlan 20");
}

TEST_F(InventoryModel, AMemberMayBeClosedInOneVlanAlone) {
    aware_bridge(2, "br0");
    member(11, "swp1", 2);
    vlan_device(20, "br0.10", 2, 10);
    vlan_device(21, "br0.20", 2, 20);
    const vlans_seen listed{11, {{10, 10, true}, {20, 20, false}}};
    model_apply(&model, listed);
    EXPECT_THAT(taps(), ElementsAre("swp1"));
    model_apply(&model, vlans_added{11, {{.first = 15, .last = 30, .pvid = false, .closed = true}}});
    EXPECT_EQ(bridges_say(model, 11, untagged), "");
    EXPECT_EQ(bridges_say(model, 11, 20), "closed ");
    model_apply(&model, listed);  // a link message, which knows nothing of this
    EXPECT_EQ(bridges_say(model, 11, 20), "closed ");
    model_apply(&model, vlans_added{11, {{20, 20, false}}});
    EXPECT_EQ(bridges_say(model, 11, 20), "");
    model_apply(&model, vlans_added{11, {{.first = 10, .last = 10, .pvid = true, .closed = true}}});
    EXPECT_EQ(bridges_say(model, 11, untagged), "closed ");
    model_apply(&model, vlans_removed{11, {{10, 10, false}}});
    model_apply(&model, listed);
    EXPECT_EQ(bridges_say(model, 11, untagged), "");
}

TEST_F(InventoryModel, WithTreesTheStateForAllVlansDoesNotCount) {
    aware_bridge(2, "br0");
    member(11, "swp1", 2);
    vlan_device(20, "br0.10", 2, 10);
    model_apply(&model, vlans_seen{11, {{10, 10, true}}, not_forwarding});
    EXPECT_THAT(taps(), ElementsAre("swp1"));
    EXPECT_EQ(bridges_say(model, 11, untagged), "closed ");
    device_record changed = model_find(model, 2)->record;
    changed.trees = true;
    model_apply(&model, device_seen{changed});
    EXPECT_EQ(bridges_say(model, 11, untagged), "");
    model_apply(&model, vlans_added{11, {{.first = 10, .last = 10, .pvid = true, .closed = true}}});
    EXPECT_EQ(bridges_say(model, 11, untagged), "closed ");
}

TEST_F(InventoryModel, ACompleteReadingHasTheStatesOfVlans) {
    aware_bridge(2, "br0");
    member(11, "swp1", 2);
    vlan_device(20, "br0.10", 2, 10);
    std::vector<inventory_change> all;
    for (const int ifindex : {2, 11, 20}) all.emplace_back(device_seen{model_find(model, ifindex)->record});
    all.emplace_back(vlans_added{11, {{.first = 10, .last = 10, .pvid = true, .closed = true}}});
    all.emplace_back(vlans_seen{11, {{10, 10, true}}});
    model_reconcile(&model, all);
    EXPECT_THAT(taps(), ElementsAre("swp1"));
    EXPECT_EQ(bridges_say(model, 11, untagged), "closed ");
}

TEST_F(InventoryModel, AVlanDeviceThatIsAMemberHasAStateOfItsOwn) {
    add(2, "eth0");
    bridge(1034, "vlan10");
    vlan_device(3, "eth0.10", 2, 10, 1034);
    vlan_device(4, "eth0.20", 2, 20);
    EXPECT_THAT(taps(), ElementsAre("eth0"));
    model_apply(&model, bridge_port_seen{3, not_forwarding});
    EXPECT_EQ(bridges_say(model, 2, 10), "closed ");
    EXPECT_EQ(bridges_say(model, 2, 20), "");
}

TEST_F(InventoryModel, WhatIsNoMemberAnyMoreIsNotClosed) {
    bridge(1034, "vlan10");
    member(5121, "vlan20", 1034);
    model_apply(&model, bridge_port_seen{5121, not_forwarding});
    add(5121, "vlan20");
    EXPECT_THAT(taps(), ElementsAre("vlan20"));
    EXPECT_EQ(bridges_say(model, 5121, untagged), "");
}

TEST_F(InventoryModel, OwnHardwareAddresses) {
    const auto mac = [](int last) { return mac_address{2, 0, 0, 0, 0, static_cast<std::uint8_t>(last)}; };
    EXPECT_FALSE(model_owns_mac(&model, mac(7)));
    add(7, "swp1");
    add(8, "tun0", {.ethernet = false});
    EXPECT_TRUE(model_owns_mac(&model, mac(7)));
    EXPECT_FALSE(model_owns_mac(&model, mac(8)));
    device_record changed = model_find(model, 7)->record;
    changed.mac = mac(9);
    model_apply(&model, device_seen{changed});
    EXPECT_FALSE(model_owns_mac(&model, mac(7)));
    EXPECT_TRUE(model_owns_mac(&model, mac(9)));
    remove(7);
    EXPECT_FALSE(model_owns_mac(&model, mac(9)));
}

}  // namespace
}  // namespace ravo::platform

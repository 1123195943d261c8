// SPDX-License-Identifier: Apache-2.0
// Which devices are ports, and which are uplinks, on records made by hand.
#include "inventory/inventory_model.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "inventory_model_fixture.h"
#include "log/log.h"

namespace ravo::platform {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

// ---- Ports ----

TEST_F(InventoryModel, PortsThatComeTogetherAreNumberedByTheirBestClaims) {
    bridge(2, "vlan10");
    member(9, "swp9", 2);
    member(5122, "front", 2);
    member(4, "beta", 2);
    member(7, "alpha", 2);
    EXPECT_EQ(classify(9, untagged), "vlan 10 port 5129");
    EXPECT_EQ(classify(5122, untagged), "vlan 10 port 5122");
    EXPECT_EQ(classify(7, untagged), "vlan 10 port 5121");
    EXPECT_EQ(classify(4, untagged), "vlan 10 port 5123");
}

TEST_F(InventoryModel, ThePortNameOfItsDriverNumbersAPort) {
    bridge(2, "vlan10");
    device_record device;
    device.ifindex = 4;
    device.name = "enp3s0";
    device.ethernet = true;
    device.master = 2;
    device.physical_name = "p12";
    model_apply(&model, device_seen{device});
    EXPECT_EQ(classify(4, untagged), "vlan 10 port 5132");
}

TEST_F(InventoryModel, PortKeepsItsNumberWhenItsDeviceComesBack) {
    bridge(2, "vlan10");
    member(4, "left", 2);
    member(5, "right", 2);
    EXPECT_EQ(classify(5, untagged), "vlan 10 port 5122");
    remove(4);
    remove(5);
    EXPECT_NE(model.ports.of_device.at("left").absent_us, 0);
    member(50, "right", 2);
    member(51, "middle", 2);
    EXPECT_EQ(classify(50, untagged), "vlan 10 port 5122");
    EXPECT_EQ(classify(51, untagged), "vlan 10 port 5123") << "left keeps 5121";
    EXPECT_EQ(model.ports.of_device.at("right").absent_us, 0);
}

TEST_F(InventoryModel, ADeviceThatLeavesItsVlanOrItsNameIsAway) {
    bridge(2, "vlan10");
    member(4, "left", 2);
    member(5, "right", 2);
    EXPECT_EQ(classify(5, untagged), "vlan 10 port 5122");
    add(4, "left");
    member(5, "other", 2);
    EXPECT_EQ(classify(5, untagged), "vlan 10 port 5123");
    EXPECT_NE(model.ports.of_device.at("left").absent_us, 0);
    EXPECT_NE(model.ports.of_device.at("right").absent_us, 0);
    EXPECT_EQ(model.ports.of_device.at("other").absent_us, 0);
}

TEST_F(InventoryModel, DescribedPortsHaveTheirNumbers) {
    bridge(2, "vlan10");
    member(4, "other", 2);
    EXPECT_EQ(classify(4, untagged), "vlan 10 port 5121");
    model_describe(&model, {.ports = {{"eth5", 1, 1}, {"eth6", 3, 0}}, .interfaces = {}});
    member(5, "eth5", 2);
    member(6, "eth6", 2);
    EXPECT_EQ(classify(5, untagged), "vlan 10 port 5121");
    EXPECT_EQ(classify(6, untagged), "vlan 10 port 5248");
    EXPECT_EQ(classify(4, untagged), "vlan 10 port 5122") << "it lost 5121 to the described port";
}

TEST_F(InventoryModel, DeviceWhoseNumberIsTakenGetsAnother) {
    bridge(2, "vlan10");
    member(4, "eth1", 2);
    EXPECT_EQ(classify(4, untagged), "vlan 10 port 5121");
    member(5121, "front", 2);
    EXPECT_EQ(classify(5121, untagged), "vlan 10 port 5122");
    EXPECT_THAT(log_recent(), Contains(HasSubstr("front cannot be port number 5121, which eth1 has; it gets 5122")));
}

// The VLANs of a port as "show interfaces brief" lists them.
TEST_F(InventoryModel, ThePortsVlansAreThoseWhereItsFramesEnd) {
    const auto vlans_of = [&](int ifindex) {
        (void)model_settle_taps(&model);
        return model_port_vlans(model, *model_find(model, ifindex));
    };
    aware_bridge(2, "br0");
    vlan_device(3, "br0.10", 2, 10);
    vlan_device(4, "br0.20", 2, 20);
    vlan_device(5, "br0.30", 2, 30);
    member(6, "swp1", 2);
    model_apply(&model, vlans_seen{6, {{10, 10, true}, {20, 25, false}}});
    EXPECT_THAT(vlans_of(6), ElementsAre(10, 20));
    bridge(7, "vlan99");
    member(8, "swp2", 7);
    EXPECT_THAT(vlans_of(8), ElementsAre(99));
    vlan_device(9, "swp2.40", 8, 40);
    EXPECT_THAT(vlans_of(8), ElementsAre(40, 99));
    add(10, "eth0");
    vlan_device(11, "eth0.50", 10, 50);
    EXPECT_THAT(vlans_of(10), ElementsAre(50));
    vlan_device(12, "vlan99.60", 7, 60);
    EXPECT_THAT(vlans_of(8), ElementsAre(40, 60, 99)) << "a VLAN device on a plain bridge";
}

// ---- Uplinks: devices of no VLAN over which servers are reached ----

TEST_F(InventoryModel, ADeviceOfNoVlanIsAnUplinkOnceItHasAnAddress) {
    bridge(2, "vlan10");
    member(3, "eth1", 2);
    add(4, "eth0");
    EXPECT_THAT(uplinks(), IsEmpty());
    EXPECT_EQ(classify(4, untagged), "unknown port");
    address_on(4, "192.0.2.1");
    address_on(2, "10.0.0.1");
    EXPECT_THAT(uplinks(), ElementsAre("eth0"));
    EXPECT_THAT(taps(), ElementsAre("eth1")) << "an uplink is no port";
    EXPECT_EQ(classify(3, untagged), "vlan 10 port 5121") << "and takes no number";
    EXPECT_EQ(classify(4, untagged), "uplink port 0");
    EXPECT_EQ(classify(4, 10), "elsewhere");
    EXPECT_EQ(classify(4, 4095), "elsewhere");
    model_apply(&model, address_gone{4, model_find(model, 4)->addresses.front()});
    EXPECT_TRUE(model_settle_taps(&model));
    EXPECT_THAT(uplinks(), IsEmpty());
}

TEST_F(InventoryModel, ANicUnderVlanDevicesIsPortAndUplink) {
    add(2, "eth0");
    vlan_device(3, "eth0.10", 2, 10);
    address_on(2, "192.0.2.1");
    EXPECT_THAT(taps(), ElementsAre("eth0"));
    EXPECT_THAT(uplinks(), ElementsAre("eth0"));
    EXPECT_EQ(classify(2, untagged), "uplink port 5121");
    EXPECT_EQ(classify(2, 10), "vlan 10 port 5121");
    EXPECT_EQ(classify(2, 20), "unknown vlan");
}

TEST_F(InventoryModel, ABridgeWithAnAddressIsAnUplinkAndReadsWhatItsPortsDoNot) {
    bridge(2, "br0");
    member(3, "eth0", 2);
    vlan_device(4, "br0.10", 2, 10);
    address_on(2, "192.0.2.1");
    EXPECT_THAT(taps(), ElementsAre("eth0"));
    EXPECT_THAT(uplinks(), ElementsAre("br0"));
    EXPECT_EQ(classify(3, untagged), "elsewhere");
    EXPECT_EQ(classify(2, untagged), "uplink port 0");
    EXPECT_EQ(classify(3, 10), "vlan 10 port 5121");
    EXPECT_EQ(classify(2, 10), "elsewhere") << "read at the port";
}

TEST_F(InventoryModel, InterfacesMembersAndOthersThanEthernetAreNoUplinks) {
    bridge(2, "br0");
    member(3, "eth0", 2);
    add(4, "vlan10");
    add(5, "lo", {.ethernet = false});
    add(6, "vrf0", {.kind = device_kind::vrf});
    add(7, "eth1", {.master = 6});
    for (const int ifindex : {3, 4, 5, 7}) address_on(ifindex, "192.0.2.1");
    EXPECT_THAT(uplinks(), ElementsAre("eth1"));
    model_describe(&model, {.ports = {}, .interfaces = {{99, "eth1"}}});
    EXPECT_THAT(uplinks(), IsEmpty());
    EXPECT_EQ(classify(7, untagged), "vlan 99 port 5121");
    model_describe(&model, {});
    EXPECT_THAT(uplinks(), ElementsAre("eth1"));
}

TEST_F(InventoryModel, InterfaceAddressesAreKnownAsTheyCome) {
    const auto vlan_of = [&](const char *text) { return model_vlan_of_address(&model, inet_addr(text)); };
    bridge(2, "vlan10");
    add(3, "eth0");
    address_on(2, "10.0.0.1");
    address_on(3, "192.0.2.1");
    EXPECT_EQ(vlan_of("10.0.0.1"), 10);
    EXPECT_EQ(vlan_of("192.0.2.1"), 0);
    address_on(2, "10.0.1.1");
    EXPECT_EQ(vlan_of("10.0.1.1"), 10);
    add(3, "vlan20");
    EXPECT_EQ(vlan_of("192.0.2.1"), 20);
    add(3, "eth0");
    EXPECT_EQ(vlan_of("192.0.2.1"), 0);
    remove(2);
    EXPECT_EQ(vlan_of("10.0.0.1"), 0);
}

}  // namespace
}  // namespace ravo::platform

// What devices are to the switch: interfaces, ports, taps and the road of a frame, on records made by hand.
#include "inventory/inventory_model.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "log/log.h"

namespace ravo::platform {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

constexpr std::uint16_t untagged = 0;

struct at {
    device_kind kind = device_kind::other;
    int master = 0;
    int lower = 0;
    std::uint16_t vlan = 0;
    bool aware = false;
    bool up = true;
    bool ethernet = true;
};

class InventoryModel : public testing::Test {
  protected:
    inventory_model model;

    void add(int ifindex, const std::string &name, const at &more = {}) {
        device_record device;
        device.ifindex = ifindex;
        device.name = name;
        device.kind = more.kind;
        device.master = more.master;
        device.lower = more.lower;
        device.vlan_id = more.vlan;
        device.vlan_filtering = more.aware;
        device.up = more.up;
        device.ethernet = more.ethernet;
        device.mac = {2, 0, 0, 0, 0, static_cast<std::uint8_t>(ifindex)};
        model_apply(&model, device_seen{device});
    }
    void bridge(int ifindex, const std::string &name) { add(ifindex, name, {.kind = device_kind::bridge}); }
    void aware_bridge(int ifindex, const std::string &name, std::uint16_t pvid = 1) {
        add(ifindex, name, {.kind = device_kind::bridge, .aware = true});
        model_apply(&model, vlans_seen{ifindex, {{pvid, pvid, true}}});
    }
    void member(int ifindex, const std::string &name, int of) { add(ifindex, name, {.master = of}); }
    void vlan_device(int ifindex, const std::string &name, int lower, std::uint16_t vlan, int master = 0) {
        add(ifindex, name, {.kind = device_kind::vlan, .master = master, .lower = lower, .vlan = vlan});
    }
    void remove(int ifindex) { model_apply(&model, device_gone{ifindex}); }

    std::vector<std::string> taps() {
        (void)model_settle_taps(&model);
        std::vector<std::string> names;
        for (const auto &[ifindex, device] : model.devices)
            if (device.tap) names.push_back(device.record.name);
        std::sort(names.begin(), names.end());
        return names;
    }
    std::vector<std::string> uplinks() {
        (void)model_settle_taps(&model);
        std::vector<std::string> names;
        for (const auto &[ifindex, device] : model.devices)
            if (device.uplink) names.push_back(device.record.name);
        std::sort(names.begin(), names.end());
        return names;
    }
    void address_on(int ifindex, const char *text) {
        const std::uint32_t value = inet_addr(text);
        model_apply(&model, address_seen{ifindex, {value, value, 24, 0, false}});
    }
    // "vlan 10 port 5121", or why not.
    std::string classify(int ifindex, std::uint16_t tag) {
        (void)model_settle_taps(&model);
        ingress in;
        switch (model_classify(model, ifindex, tag != untagged, tag, &in)) {
            case ingress_result::ok:
                return "vlan " + std::to_string(in.vlan) + " port " + std::to_string(in.port_ifindex);
            case ingress_result::unknown_vlan:
                return "unknown vlan";
            case ingress_result::uplink:
                return "uplink port " + std::to_string(in.port_ifindex);
            case ingress_result::elsewhere:
                return "elsewhere";
            default:
                return "unknown port";
        }
    }
    std::string interface_of(std::uint16_t vlan) {
        const model_device *device = model_interface(model, vlan);
        return device == nullptr ? "none" : device->record.name;
    }
};

// ---- What is an interface ----

TEST_F(InventoryModel, DevicesNamedAfterAVlanAreItsInterface) {
    bridge(2, "vlan10");
    add(3, "vlan20");
    add(4, "vlan030");
    add(5, "vlan4095");
    add(6, "vlan0");
    add(7, "vlan10x");
    EXPECT_EQ(interface_of(10), "vlan10");
    EXPECT_EQ(interface_of(20), "vlan20");
    EXPECT_EQ(interface_of(30), "vlan030");
    EXPECT_THAT(model.changed_vlans, ElementsAre(10, 20, 30));
}

TEST_F(InventoryModel, VlanDevicesAreInterfacesByTheirIdNotTheirName) {
    add(2, "eth0");
    aware_bridge(3, "br0");
    vlan_device(4, "eth0.10", 2, 10);
    vlan_device(5, "vlan99", 3, 20);
    EXPECT_EQ(interface_of(10), "eth0.10");
    EXPECT_EQ(interface_of(20), "vlan99");
    EXPECT_EQ(interface_of(99), "none");
}

TEST_F(InventoryModel, DescriptionWins) {
    model_describe(&model, {.ports = {}, .interfaces = {{10, "eth1"}, {20, "vlan30"}}});
    bridge(2, "vlan10");
    EXPECT_EQ(interface_of(10), "none") << "it waits for the described device";
    add(3, "eth1");
    add(4, "vlan30");
    EXPECT_EQ(interface_of(10), "eth1");
    EXPECT_EQ(interface_of(20), "vlan30");
    EXPECT_EQ(interface_of(30), "none");
}

TEST_F(InventoryModel, NewDescriptionClassifiesAnew) {
    bridge(2, "vlan10");
    add(3, "eth1");
    member(4, "swp1", 2);
    EXPECT_THAT(taps(), ElementsAre("swp1"));
    model_describe(&model, {.ports = {}, .interfaces = {{10, "eth1"}}});
    EXPECT_EQ(interface_of(10), "eth1");
    EXPECT_THAT(taps(), ElementsAre("eth1"));
    EXPECT_EQ(classify(4, untagged), "unknown port");
    model_describe(&model, {});
    EXPECT_EQ(interface_of(10), "vlan10");
    EXPECT_THAT(taps(), ElementsAre("swp1"));
}

TEST_F(InventoryModel, FirstOfTwoClaimantsStaysAndTheOtherIsNamedInTheLog) {
    add(2, "eth0");
    bridge(3, "vlan10");
    vlan_device(4, "eth0.10", 2, 10);
    EXPECT_EQ(interface_of(10), "vlan10");
    EXPECT_THAT(log_recent(),
                Contains(HasSubstr("eth0.10 would be interface vlan10 too, but that is vlan10; eth0.10 is "
                                   "not used")));
    EXPECT_EQ(classify(2, 10), "unknown port");
    remove(3);
    EXPECT_EQ(interface_of(10), "eth0.10");
    EXPECT_EQ(classify(2, 10), "vlan 10 port 5121");
}

TEST_F(InventoryModel, OtherThanEthernetIsRefusedWithOneLine) {
    const auto refusals = [] {
        const std::vector<std::string> lines = log_recent();
        return std::count_if(lines.begin(), lines.end(), [](const std::string &line) {
            return line.find("vlan77 cannot be interface vlan77: it is no Ethernet device") != std::string::npos;
        });
    };
    add(2, "vlan77", {.ethernet = false});
    add(2, "vlan77", {.up = false, .ethernet = false});
    add(2, "vlan77", {.master = 9, .ethernet = false});
    add(2, "vlan77", {.ethernet = false});
    EXPECT_EQ(interface_of(77), "none");
    EXPECT_EQ(refusals(), 1);
    EXPECT_THAT(taps(), IsEmpty());
}

TEST_F(InventoryModel, BridgeMemberIsNoInterfaceUnlessDescribed) {
    bridge(2, "br0");
    member(3, "vlan10", 2);
    EXPECT_EQ(interface_of(10), "none");
    add(3, "vlan10");
    EXPECT_EQ(interface_of(10), "vlan10") << "it left the bridge";
}

TEST_F(InventoryModel, MemberOfARoutingDomainIsAnInterface) {
    member(3, "vlan10", 2);
    EXPECT_EQ(interface_of(10), "none") << "what its master is, is not known yet";
    add(2, "red", {.kind = device_kind::vrf});
    EXPECT_EQ(interface_of(10), "vlan10");
}

TEST_F(InventoryModel, RenamedDeviceChangesItsVlan) {
    add(2, "vlan10");
    add(2, "vlan11");
    EXPECT_EQ(interface_of(10), "none");
    EXPECT_EQ(interface_of(11), "vlan11");
    EXPECT_THAT(taps(), ElementsAre("vlan11"));
}

TEST_F(InventoryModel, VlanDeviceOnAVlanDeviceIsNone) {
    add(2, "eth0");
    vlan_device(4, "eth0.100.10", 3, 10);
    vlan_device(3, "eth0.100", 2, 100);
    EXPECT_EQ(interface_of(10), "none");
    EXPECT_EQ(interface_of(100), "eth0.100");
    EXPECT_THAT(taps(), ElementsAre("eth0"));
}

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
    const auto knows = [&](const char *text) { return model_is_interface_address(&model, inet_addr(text)); };
    bridge(2, "vlan10");
    add(3, "eth0");
    address_on(2, "10.0.0.1");
    address_on(3, "192.0.2.1");
    EXPECT_TRUE(knows("10.0.0.1"));
    EXPECT_FALSE(knows("192.0.2.1"));
    address_on(2, "10.0.1.1");
    EXPECT_TRUE(knows("10.0.1.1"));
    add(3, "vlan20");
    EXPECT_TRUE(knows("192.0.2.1"));
    add(3, "eth0");
    EXPECT_FALSE(knows("192.0.2.1"));
    remove(2);
    EXPECT_FALSE(knows("10.0.0.1"));
}

// ---- Addresses ----

address_record address(const char *text, bool secondary = false, std::uint8_t scope = 0) {
    const std::uint32_t value = inet_addr(text);
    return {value, value, 24, scope, secondary};
}

TEST_F(InventoryModel, TheWidestAddressStandsFirst) {
    add(2, "vlan10");
    const address_record link = address("169.254.0.1", false, 253);
    const address_record first = address("10.0.0.1");
    const address_record second = address("10.0.1.1");
    const address_record extra = address("10.0.0.2", true);
    for (const address_record &one : {link, first, extra, second}) model_apply(&model, address_seen{2, one});
    EXPECT_THAT(model_find(model, 2)->addresses, ElementsAre(first, second, link, extra));
    model_apply(&model, address_gone{2, first});
    model_apply(&model, address_seen{2, address("10.0.0.2")});
    EXPECT_THAT(model_find(model, 2)->addresses, ElementsAre(second, address("10.0.0.2"), link));
}

TEST_F(InventoryModel, TheWidestAddressStandsFirstInACompleteReadingToo) {
    add(2, "vlan10");
    std::vector<inventory_change> all{device_seen{model_find(model, 2)->record}};
    // As the kernel lists them.
    for (const address_record &one :
         {address("169.254.0.1", false, 253), address("10.0.0.1"), address("10.0.1.1"), address("10.0.0.2", true)})
        all.push_back(address_seen{2, one});
    model_reconcile(&model, all);
    EXPECT_THAT(model_find(model, 2)->addresses,
                ElementsAre(address("10.0.0.1"), address("10.0.1.1"), address("169.254.0.1", false, 253),
                            address("10.0.0.2", true)));
}

TEST_F(InventoryModel, AddressChangesMarkTheInterfaceOnly) {
    add(2, "vlan10");
    add(3, "eth0");
    model.changed_vlans.clear();
    model_apply(&model, address_seen{3, address("10.0.0.1")});
    EXPECT_THAT(model.changed_vlans, IsEmpty());
    model_apply(&model, address_seen{2, address("10.0.0.1")});
    EXPECT_THAT(model.changed_vlans, ElementsAre(10));
    model.changed_vlans.clear();
    model_apply(&model, address_seen{2, address("10.0.0.1")});
    model_apply(&model, address_gone{2, address("10.0.0.9")});
    EXPECT_THAT(model.changed_vlans, IsEmpty()) << "nothing changed";
}

// ---- Contradictions and complete readings ----

TEST_F(InventoryModel, ChangesOfUnknownDevicesAreIgnored) {
    remove(5);
    model_apply(&model, vlans_seen{5, {{1, 1, true}}});
    model_apply(&model, vlans_added{5, {{1, 1, true}}});
    model_apply(&model, vlans_removed{5, {{1, 1, true}}});
    model_apply(&model, address_seen{5, address("10.0.0.1")});
    model_apply(&model, address_gone{5, address("10.0.0.1")});
    add(0, "zero");
    add(-1, "minus");
    EXPECT_THAT(model.devices, IsEmpty());
}

TEST_F(InventoryModel, CompleteReadingReplacesWhatWasKnown) {
    bridge(1034, "vlan10");
    bridge(1044, "vlan20");
    member(5121, "swp1", 1034);
    model_apply(&model, address_seen{1034, address("10.0.0.1")});
    model_apply(&model, vlans_seen{5121, {{1, 1, true}}});
    (void)model_settle_taps(&model);
    model.changed_vlans.clear();

    inventory_model now;
    std::swap(now, model);
    bridge(1034, "vlan10");
    bridge(1054, "vlan30");
    member(5121, "swp1", 1054);
    std::vector<inventory_change> all;
    for (const auto &[ifindex, device] : model.devices) all.push_back(device_seen{device.record});
    all.push_back(address_seen{1034, address("10.0.0.2")});
    all.push_back(address_seen{99, address("10.0.0.3")});
    std::swap(now, model);

    model_reconcile(&model, all);
    EXPECT_THAT(model.changed_vlans, ElementsAre(10, 20, 30));
    EXPECT_EQ(interface_of(20), "none");
    EXPECT_THAT(model_find(model, 1034)->addresses, ElementsAre(address("10.0.0.2")));
    EXPECT_EQ(model_find(model, 5121)->pvid, 0);
    EXPECT_EQ(classify(5121, untagged), "vlan 30 port 5121");
    model.changed_vlans.clear();
    model_reconcile(&model, all);
    EXPECT_THAT(model.changed_vlans, IsEmpty()) << "the same again changes nothing";
    EXPECT_FALSE(model_settle_taps(&model));
    model_reconcile(&model, {});
    EXPECT_THAT(model.devices, IsEmpty());
    EXPECT_THAT(taps(), IsEmpty());
}

// Whatever the order of changes: what was followed step by step is what one complete reading gives.
TEST_F(InventoryModel, RandomChangesEndAsACompleteReadingDoes) {
    log_set_threshold(log_level_error);  // thousands of refusals
    std::mt19937 random(4711);
    const auto pick = [&](int below) { return static_cast<int>(random() % static_cast<unsigned>(below)); };
    const char *const names[] = {"vlan1", "vlan2", "vlan3", "eth0", "eth1", "br0", "x", "y"};
    int compared = 0;  // complete comparisons
    for (int step = 0; step < 20000; ++step) {
        const int ifindex = 1 + pick(10);
        if (pick(4) == 0) {
            remove(ifindex);
        } else {
            const auto kind = static_cast<device_kind>(pick(4));
            // Names are unique in the kernel: each device has its own two.
            const std::string name = std::string(names[pick(2) + (ifindex % 4) * 2]) + (ifindex < 5 ? "" : "0");
            add(ifindex, name,
                {.kind = kind,
                 .master = pick(2) * (1 + pick(10)),
                 .lower = pick(11),
                 .vlan = static_cast<std::uint16_t>(kind == device_kind::vlan ? ifindex : 0),
                 .aware = pick(2) == 0,
                 .ethernet = pick(5) != 0});
        }
        if (pick(3) == 0)
            model_apply(&model,
                        vlans_seen{1 + pick(10), {{1, static_cast<std::uint16_t>(1 + pick(4)), false}, {2, 2, true}}});
        const address_record other = address(pick(2) == 0 ? "10.0.0.1" : "10.0.0.2");
        if (pick(3) == 0) model_apply(&model, address_seen{1 + pick(10), other});
        if (pick(3) == 0) model_apply(&model, address_gone{1 + pick(10), other});
        (void)model_is_interface_address(&model, other.address);
        (void)model_settle_taps(&model);
        if (step % 50 != 0) continue;

        inventory_model fresh;
        for (const auto &[index, device] : model.devices) {
            model_apply(&fresh, device_seen{device.record});
            for (const address_record &one : device.addresses) model_apply(&fresh, address_seen{index, one});
        }
        (void)model_settle_taps(&fresh);
        for (const auto &[index, device] : model.devices) {
            // Which of two claimants came first is history; everything else must agree.
            EXPECT_EQ(device.claim, fresh.devices[index].claim) << step;
            const auto &claimants = model.claimants[device.claim];
            if (device.claim != 0) {
                EXPECT_THAT(claimants, Contains(index));
            }
        }
        for (std::uint16_t vlan = 1; vlan < 40; ++vlan)
            EXPECT_EQ(model.claimants[vlan].size(), fresh.claimants[vlan].size()) << step;
        const bool contested = std::any_of(model.claimants.begin(), model.claimants.end(),
                                           [](const std::vector<int> &list) { return list.size() > 1; });
        if (contested) continue;
        for (const auto &[index, device] : model.devices) {
            EXPECT_EQ(device.tap, fresh.devices[index].tap) << "step " << step << " device " << index;
            EXPECT_EQ(device.uplink, fresh.devices[index].uplink) << "step " << step << " device " << index;
        }
        for (const char *text : {"10.0.0.1", "10.0.0.2"})
            EXPECT_EQ(model_is_interface_address(&model, inet_addr(text)),
                      model_is_interface_address(&fresh, inet_addr(text)))
                << step;
        ++compared;
    }
    EXPECT_GT(compared, 50);
    log_set_threshold(log_level_warning);
}

TEST_F(InventoryModel, FourThousandInterfacesAndAFewPorts) {
    aware_bridge(2, "br0");
    for (int port = 0; port < 48; ++port) {
        member(5121 + port, "swp" + std::to_string(port), 2);
        model_apply(&model, vlans_seen{5121 + port, {{1, 1, true}, {2, 4094, false}}});
    }
    for (int vlan = 1; vlan <= 4094; ++vlan) {
        vlan_device(10000 + vlan, "br0." + std::to_string(vlan), 2, static_cast<std::uint16_t>(vlan));
        (void)model_settle_taps(&model);
    }
    EXPECT_EQ(model.changed_vlans.size(), 4094U);
    EXPECT_EQ(taps().size(), 48U);
    EXPECT_EQ(classify(5130, 4094), "vlan 4094 port 5130");
    for (int vlan = 1; vlan <= 4094; ++vlan) {
        remove(10000 + vlan);
        (void)model_settle_taps(&model);
    }
    EXPECT_THAT(taps(), IsEmpty());
}

}  // namespace
}  // namespace ravo::platform

// SPDX-License-Identifier: Apache-2.0
// What devices are to the switch: interfaces and their addresses, contradictions and complete readings, on records made
// by hand.
#include "inventory/inventory_model.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "inventory_model_fixture.h"
#include "log/log.h"

namespace ravo::platform {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

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

// ---- Addresses ----

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
        (void)model_vlan_of_address(&model, other.address);
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
            EXPECT_EQ(model_vlan_of_address(&model, inet_addr(text)), model_vlan_of_address(&fresh, inet_addr(text)))
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

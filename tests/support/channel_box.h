// SPDX-License-Identifier: Apache-2.0
// A box for the channel's tests whose inventory says what the test wants it to say.
//
// To be included once a program: the inventory's functions are defined here, and so win over the library's.
#ifndef TESTS_CHANNEL_BOX_H
#define TESTS_CHANNEL_BOX_H

#include <algorithm>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "channel_net.h"
#include "inventory/inventory.h"

namespace channel_box {

// What the inventory answers.
struct scripted_inventory {
    std::vector<ravo::platform::tap_device> taps;
    // By device and VLAN id; 0 stands for untagged.
    std::map<std::pair<int, std::uint16_t>, ravo::platform::ingress> vlans;
    std::map<std::uint32_t, std::uint16_t> interface_addresses;  // VLAN by address
    std::map<std::uint32_t, int> devices;                        // the kernel's numbers by the switch's
    std::function<void()> listener;
    bool refuses = false;  // the bridges take no frame
};
inline scripted_inventory inventory;

// Makes the inventory listen on a device and classify its untagged frames.
inline void tap(const std::string &device, std::uint16_t vlan, std::uint32_t port) {
    inventory.taps.push_back({ifindex(device), device});
    inventory.vlans[{ifindex(device), std::uint16_t{0}}] = {.vlan = vlan, .port_ifindex = port};
}

inline void announce_change() {
    if (inventory.listener) inventory.listener();
}

class BoxTest : public NetTest {
  protected:
    void SetUp() override {
        NetTest::SetUp();
        inventory = {};
    }
};

}  // namespace channel_box

namespace ravo::platform {

std::vector<tap_device> inventory_taps() {
    return channel_box::inventory.taps;
}

ingress_result inventory_classify(int kernel_ifindex, bool tagged, std::uint16_t tag, ingress *out) {
    const auto &box = channel_box::inventory;
    const auto on = std::find_if(box.taps.begin(), box.taps.end(),
                                 [=](const tap_device &device) { return device.kernel_ifindex == kernel_ifindex; });
    if (on == box.taps.end()) return ingress_result::unknown_port;
    if (on->uplink) return ingress_result::uplink;
    const auto found = box.vlans.find({kernel_ifindex, tagged ? tag : std::uint16_t{0}});
    if (found == box.vlans.end()) return ingress_result::unknown_vlan;
    *out = found->second;
    return ingress_result::ok;
}

bool inventory_refuses(const ingress &, std::span<const std::uint8_t>) {
    return channel_box::inventory.refuses;
}

std::uint16_t inventory_vlan_of_address(std::uint32_t address) {
    const auto &all = channel_box::inventory.interface_addresses;
    const auto found = all.find(address);
    return found == all.end() ? std::uint16_t{0} : found->second;
}

int inventory_kernel_ifindex(std::uint32_t switch_ifindex) {
    const auto found = channel_box::inventory.devices.find(switch_ifindex);
    return found == channel_box::inventory.devices.end() ? 0 : found->second;
}

void inventory_on_change(std::function<void()> listener) {
    channel_box::inventory.listener = std::move(listener);
}

}  // namespace ravo::platform

#endif

// SPDX-License-Identifier: Apache-2.0
// A model of the switch's devices, filled by hand: what the tests of the inventory's rules begin with.
#ifndef TESTS_INVENTORY_MODEL_FIXTURE_H
#define TESTS_INVENTORY_MODEL_FIXTURE_H

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "inventory/inventory_model.h"

namespace ravo::platform {

inline constexpr std::uint16_t untagged = 0;

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

inline address_record address(const char *text, bool secondary = false, std::uint8_t scope = 0) {
    const std::uint32_t value = inet_addr(text);
    return {value, value, 24, scope, secondary};
}

}  // namespace ravo::platform

#endif

// SPDX-License-Identifier: Apache-2.0
// The one inventory of the process: the model, fed by netlink, and who listens to it: the interface service to VLAN
// interfaces that changed, after each single change so that an interface that goes and comes back is seen to do so; the
// packet channel to a change of its taps, once all waiting changes are in.
#include "inventory/inventory.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <utility>

#include "inventory/inventory_memory.h"
#include "inventory/inventory_model.h"
#include "inventory/inventory_names.h"
#include "inventory/inventory_netlink.h"
#include "inventory/inventory_rows.h"
#include "inventory/inventory_stations.h"

namespace ravo::platform {

namespace {

constexpr int default_receive_buffer = 8 * 1024 * 1024;  // room for the changes of a few thousand interfaces

inventory_model &the_model() {
    static inventory_model model;
    return model;
}

// A road through stacked devices is walked once and then known until something changes: where frames of a device and a
// tag went, the last one of those that share a place in the table.
struct known_road {
    std::uint64_t change = 0;  // of the model, behind which it was walked
    int kernel_ifindex = 0;
    std::uint16_t tag = 0;
    bool tagged = false;
    ingress_result result{};
    ingress end{};
};

constexpr std::size_t known_roads = 4096;               // a power of two
constinit std::array<known_road, known_roads> roads{};  // memory only where frames come from
std::uint64_t changes = 1;                              // of the model so far

// Likewise: the device of each VLAN interface, and the last address that was found to be a device's own.
struct known_device {
    std::uint64_t change = 0;
    int kernel_ifindex = 0;
};
constinit std::array<known_device, last_vlan + 1> interface_devices{};
std::uint64_t own_mac_change = 0;
mac_address own_mac{};

inventory_model &model_to_change() {
    ++changes;
    return the_model();
}

int number_of(const model_device *device) {
    return device == nullptr ? 0 : device->record.ifindex;
}

bool is_own(const mac_address &address) {
    if (own_mac_change == changes && own_mac == address) return true;
    if (!model_owns_mac(&the_model(), address)) return false;
    own_mac_change = changes;
    own_mac = address;
    return true;
}

std::function<void()> change_listener;
std::string memory_path;  // where the numbers of ports are remembered, empty: nowhere

std::vector<interface_listener> &interface_listeners() {
    static std::vector<interface_listener> listeners;
    return listeners;
}

void tell_interface(std::uint16_t vlan, const interface_state *now) {
    for (const interface_listener &listener : interface_listeners()) listener(vlan, now);
}

void tell_interfaces() {
    inventory_model &model = model_to_change();  // what was asked for in the midst of a change is asked for again
    for (const std::uint16_t vlan : std::exchange(model.changed_vlans, {})) {
        const model_device *device = model_interface(model, vlan);
        if (device == nullptr) {
            tell_interface(vlan, nullptr);
            continue;
        }
        const device_record &record = device->record;
        const interface_state state = {record.ifindex, record.up, record.mac, &device->addresses};
        tell_interface(vlan, &state);
    }
}

void tell_taps() {
    const bool changed = model_settle_taps(&model_to_change());
    ports_remember(&model_to_change().ports, memory_path);
    if (changed && change_listener) change_listener();
}

void take_all(const std::vector<inventory_change> &all) {
    model_reconcile(&model_to_change(), all);
    tell_interfaces();
}

}  // namespace

void inventory_describe(const switch_description &description) {
    model_describe(&model_to_change(), description);
    tell_interfaces();
    tell_taps();
}

fault inventory_open() {
    return inventory_open_with_buffer(default_receive_buffer);
}

fault inventory_open_with_buffer(int receive_buffer) {
    fault wrong = netlink_follow({.changed =
                                      [](const inventory_change &change) {
                                          model_apply(&model_to_change(), change);
                                          tell_interfaces();
                                      },
                                  .read_again = take_all,
                                  .settled = tell_taps},
                                 receive_buffer);
    if (wrong) return wrong;
    std::vector<inventory_change> all;
    bool complete = false;
    wrong = netlink_read_all(&all, &complete);
    if (wrong) {
        netlink_unfollow();
        return wrong;
    }
    take_all(all);
    tell_taps();
    if (!complete) netlink_read_again_soon();
    return {};
}

void inventory_close() {
    netlink_unfollow();
    the_model().ports.changed = true;  // the times since when devices are away are written only here
    ports_remember(&the_model().ports, memory_path);
}

void inventory_remember(const std::string &path, std::function<bool(std::uint32_t number)> in_use) {
    memory_path = path;
    the_model().number_in_use = std::move(in_use);
    if (!path.empty()) ports_recall(&model_to_change().ports, path);
}

std::size_t inventory_forget_ports() {
    const std::size_t count = port_table_forget(&model_to_change().ports);
    ports_remember(&the_model().ports, memory_path);
    return count;
}

void inventory_on_interface(interface_listener listener) {
    interface_listeners().push_back(std::move(listener));
}

std::vector<tap_device> inventory_taps() {
    std::vector<tap_device> taps;
    for (const auto &[ifindex, device] : the_model().devices)
        if (device.tap || device.uplink) taps.push_back({ifindex, device.record.name, !device.tap});
    std::sort(taps.begin(), taps.end(),
              [](const tap_device &a, const tap_device &b) { return a.kernel_ifindex < b.kernel_ifindex; });
    return taps;
}

ingress_result inventory_classify(int kernel_ifindex, bool tagged, std::uint16_t tag, ingress *out) {
    known_road &road = roads[(static_cast<std::size_t>(kernel_ifindex) * 61 + tag) % known_roads];
    if (road.change != changes || road.kernel_ifindex != kernel_ifindex || road.tag != tag || road.tagged != tagged) {
        road = {
            .change = changes, .kernel_ifindex = kernel_ifindex, .tag = tag, .tagged = tagged, .result = {}, .end = {}};
        road.result = model_classify(the_model(), kernel_ifindex, tagged, tag, &road.end);
    }
    *out = road.end;
    return road.result;
}

bool inventory_refuses(const ingress &in, std::span<const std::uint8_t> frame) {
    constexpr std::uint8_t group_bit = 1;  // IEEE 802: of many, the broadcast address too
    if (in.closed) return true;
    mac_address destination;
    mac_address source;
    std::memcpy(destination.data(), frame.data(), destination.size());
    if ((destination.front() & group_bit) == 0 && !is_own(destination)) return true;
    if (in.locked_member == 0) return false;
    std::memcpy(source.data(), frame.data() + destination.size(), source.size());
    return !stations_admit(in.locked_member, in.locked_vlan, source);
}

std::uint16_t inventory_vlan_of_address(std::uint32_t address) {
    return model_vlan_of_address(&the_model(), address);
}

int inventory_kernel_ifindex(std::uint32_t switch_ifindex) {
    if (const std::uint16_t vlan = vlan_of_number(switch_ifindex); vlan != 0) {
        known_device &known = interface_devices[vlan];
        if (known.change != changes) known = {changes, number_of(model_interface(the_model(), vlan))};
        return known.kernel_ifindex;
    }
    const inventory_model &model = the_model();
    const auto port = model.ports.device_of.find(switch_ifindex);
    return port == model.ports.device_of.end() ? 0 : number_of(model_find(model, port->second));
}

std::uint32_t inventory_port_number(const std::string &device) {
    return port_table_number(the_model().ports, device);
}

std::string inventory_port_device(std::uint32_t switch_ifindex) {
    const auto &devices = the_model().ports.device_of;
    const auto found = devices.find(switch_ifindex);
    return found == devices.end() ? std::string() : found->second;
}

std::uint16_t inventory_vlan_of_device(const std::string &name) {
    const model_device *device = model_find(the_model(), name);
    if (device == nullptr || model_interface(the_model(), device->claim) != device) return 0;
    return device->claim;
}

void inventory_on_change(std::function<void()> listener) {
    change_listener = std::move(listener);
}

std::vector<inventory_row> inventory_rows(const std::function<void()> &between) {
    return model_rows(the_model(), between);
}

}  // namespace ravo::platform

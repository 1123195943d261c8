// SPDX-License-Identifier: Apache-2.0
// Rows for people: devices that are there, as what they are to the switch.
#include "inventory/inventory_rows.h"

#include <algorithm>
#include <utility>

#include "base/text.h"
#include "inventory/inventory_names.h"

namespace ravo::platform {

namespace {

std::string address_text(const model_device &device) {
    if (device.addresses.empty() || device.addresses.front().secondary) return {};
    const address_record &address = device.addresses.front();
    return ipv4_text(address.address) + "/" + std::to_string(address.prefix_length);
}

// What is known of any device.
inventory_row row_of(const model_device &device) {
    inventory_row row;
    row.device = device.record.name;
    row.kernel_ifindex = device.record.ifindex;
    row.up = device.record.up;
    return row;
}

inventory_row interface_row(std::uint16_t vlan, const model_device &device) {
    inventory_row row = row_of(device);
    row.name = "vlan" + std::to_string(vlan);
    row.ifindex = vlan_number_base + vlan;
    row.address = address_text(device);
    return row;
}

inventory_row uplink_row(const model_device &device) {
    inventory_row row = row_of(device);
    row.kind = inventory_row::what::uplink;
    row.name = "uplink";
    row.address = address_text(device);
    return row;
}

inventory_row port_row(const inventory_model &model, const model_device &device) {
    inventory_row row = row_of(device);
    char place[PORT_NUMBER_TEXT_SIZE];
    row.kind = inventory_row::what::port;
    row.name = "port " + std::string(port_number_text(device.port, place));
    row.ifindex = device.port;
    row.pvid = device.pvid;
    row.vlans = model_port_vlans(model, device);
    const auto given = model.ports.of_device.find(device.record.name);
    if (given == model.ports.of_device.end()) return row;
    row.why = port_reason_word(given->second.reason);
    row.guessed = given->second.reason == port_reason::next_free;
    return row;
}

// The devices of a kind, in order of their numbers: the switch's, or the kernel's.
template <typename wanted, typename number>
std::vector<int> devices_of(const inventory_model &model, wanted is_wanted, number number_of) {
    std::vector<std::pair<std::uint32_t, int>> found;
    for (const auto &[ifindex, device] : model.devices)
        if (is_wanted(device)) found.emplace_back(number_of(device), ifindex);
    std::stable_sort(found.begin(), found.end(), [](const auto &a, const auto &b) { return a.first < b.first; });
    std::vector<int> out;
    for (const auto &[order, ifindex] : found) out.push_back(ifindex);
    return out;
}

std::vector<int> uplinks_of(const inventory_model &model) {
    return devices_of(
        model, [](const model_device &device) { return device.uplink; },
        [](const model_device &device) { return static_cast<std::uint32_t>(device.record.ifindex); });
}

std::vector<int> ports_of(const inventory_model &model) {
    return devices_of(
        model, [](const model_device &device) { return device.tap; },
        [](const model_device &device) { return device.port; });
}

}  // namespace

std::vector<inventory_row> model_rows(const inventory_model &model, const std::function<void()> &between) {
    constexpr std::uint16_t vlans_between_pauses = 64;
    std::vector<inventory_row> rows;
    for (std::uint16_t vlan = 1; vlan <= last_vlan; ++vlan) {
        if (between && vlan % vlans_between_pauses == 0) between();
        if (const model_device *device = model_interface(model, vlan)) rows.push_back(interface_row(vlan, *device));
    }
    for (const int ifindex : uplinks_of(model))
        if (const auto at = model.devices.find(ifindex); at != model.devices.end())
            rows.push_back(uplink_row(at->second));
    for (const int ifindex : ports_of(model)) {
        if (between) between();  // a trunk has up to 4094 VLANs
        if (const auto at = model.devices.find(ifindex); at != model.devices.end() && at->second.tap)
            rows.push_back(port_row(model, at->second));
    }
    return rows;
}

}  // namespace ravo::platform

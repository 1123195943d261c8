// SPDX-License-Identifier: Apache-2.0
// Rows for people: devices that are there, as what they are to the switch.
#include "inventory/inventory_rows.h"

#include <algorithm>

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

void sort_by(std::vector<inventory_row> &rows, std::size_t from, bool by_number) {
    std::sort(rows.begin() + static_cast<std::ptrdiff_t>(from), rows.end(),
              [&](const inventory_row &a, const inventory_row &b) {
                  return by_number ? a.ifindex < b.ifindex : a.kernel_ifindex < b.kernel_ifindex;
              });
}

}  // namespace

std::vector<inventory_row> model_rows(const inventory_model &model) {
    std::vector<inventory_row> rows;
    for (std::uint16_t vlan = 1; vlan <= last_vlan; ++vlan)
        if (const model_device *device = model_interface(model, vlan)) rows.push_back(interface_row(vlan, *device));
    const std::size_t uplinks = rows.size();
    for (const auto &[ifindex, device] : model.devices)
        if (device.uplink) rows.push_back(uplink_row(device));
    sort_by(rows, uplinks, /*by_number=*/false);
    const std::size_t ports = rows.size();
    for (const auto &[ifindex, device] : model.devices)
        if (device.tap) rows.push_back(port_row(model, device));
    sort_by(rows, ports, /*by_number=*/true);
    return rows;
}

}  // namespace ravo::platform

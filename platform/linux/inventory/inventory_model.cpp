// SPDX-License-Identifier: Apache-2.0
// Following the kernel's devices, and which of them is the interface of which VLAN.
//
// A device claims a VLAN by what it is (a VLAN device, a device called vlanN) or because the description names it. The
// first claimant of a VLAN is its interface, the others wait. A device that is a member of a bridge or a bond has no IP
// of its own, so it claims nothing unless described: eth0.10 in a bridge vlan10 is that bridge's way to the wire.
//
// Each change touches only what hangs on the device it is about; inventory_ingress.cpp says where the frames of an
// interface come in and is asked only about the devices below such a change ("suspects").
#include "inventory/inventory_model.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "base/clock.h"
#include "inventory/inventory_lookup.h"
#include "inventory/inventory_names.h"
#include "log/log.h"

namespace ravo::platform {

namespace {

model_device *find(inventory_model *model, int ifindex) {
    const auto found = model->devices.find(ifindex);
    return found == model->devices.end() ? nullptr : &found->second;
}

void remove_from(std::unordered_map<int, std::vector<int>> *lists, int key, int value) {
    const auto list = lists->find(key);
    if (list == lists->end()) return;
    std::erase(list->second, value);
    if (list->second.empty()) lists->erase(list);
}

// ---- Claims ----

bool is_member(const inventory_model &model, const device_record &device) {
    if (device.master == 0) return false;
    const model_device *master = model_find(model, device.master);
    return master == nullptr || master->record.kind != device_kind::vrf;
}

// The VLAN whose interface a device is without being described as such.
std::uint16_t natural_vlan(const inventory_model &model, const device_record &device) {
    if (is_member(model, device)) return 0;
    if (device.kind != device_kind::vlan) return vlan_of_name(device.name);
    const model_device *lower = model_find(model, device.lower);
    // Of two tags the packet channel sees the outer one only.
    if (lower != nullptr && lower->record.kind == device_kind::vlan) return 0;
    return device.vlan_id;
}

struct claim {
    std::uint16_t vlan = 0;
    bool described = false;
};

claim claim_of(const inventory_model &model, const device_record &device) {
    const auto described = model.described_vlan.find(device.name);
    if (described != model.described_vlan.end()) return {described->second, true};
    const std::uint16_t vlan = natural_vlan(model, device);
    return model.described_device.contains(vlan) ? claim{} : claim{vlan, false};
}

void warn_claimed_twice(const inventory_model &model, std::uint16_t vlan, const std::string &second) {
    const model_device *first = model_interface(model, vlan);
    log_line(
        log_level_warning,
        "interfaces: %s would be interface vlan%u too, but that is %s; %s is not used (an [[interface]] entry in the "
        "switch description settles it)",
        second.c_str(), vlan, first == nullptr ? "another" : first->record.name.c_str(), second.c_str());
}

void give_up_claim(inventory_model *model, model_device *device) {
    if (device->claim == 0) return;
    std::vector<int> &claimants = model->claimants[device->claim];
    const bool was_interface = !claimants.empty() && claimants.front() == device->record.ifindex;
    std::erase(claimants, device->record.ifindex);
    if (was_interface) {
        model->changed_vlans.insert(device->claim);
        model->interface_addresses_known = false;
        suspect_below(model, device->record.ifindex);
        if (!claimants.empty()) suspect_below(model, claimants.front());
    }
    device->claim = 0;
    device->described = false;
}

void raise_claim(inventory_model *model, model_device *device, claim wanted) {
    std::vector<int> &claimants = model->claimants[wanted.vlan];
    if (!claimants.empty()) warn_claimed_twice(*model, wanted.vlan, device->record.name);
    claimants.push_back(device->record.ifindex);
    device->claim = wanted.vlan;
    device->described = wanted.described;
    if (claimants.size() > 1) return;
    model->changed_vlans.insert(wanted.vlan);
    model->interface_addresses_known = false;
    suspect_below(model, device->record.ifindex);
}

// Only devices with an Ethernet address can be interfaces: the relay asserts that it has one.
bool refuse(inventory_model *model, const device_record &device, std::uint16_t vlan) {
    if (device.ethernet) return false;
    if (model->refused.insert(device.name).second)
        log_line(log_level_warning, "interfaces: %s cannot be interface vlan%u: it is no Ethernet device",
                 device.name.c_str(), vlan);
    return true;
}

void reclassify(inventory_model *model, int ifindex) {
    model_device *device = find(model, ifindex);
    if (device == nullptr) return;
    claim wanted = claim_of(*model, device->record);
    if (wanted.vlan != 0 && refuse(model, device->record, wanted.vlan)) wanted = {};
    if (wanted.vlan == device->claim && wanted.described == device->described) return;
    give_up_claim(model, device);
    if (wanted.vlan != 0) raise_claim(model, device, wanted);
}

void mark_changed(inventory_model *model, const model_device &device) {
    if (model_interface(*model, device.claim) == &device) model->changed_vlans.insert(device.claim);
}

// ---- Devices ----

void link_record(inventory_model *model, const device_record &device) {
    model->by_name[device.name] = device.ifindex;
    if (device.master != 0) model->members[device.master].push_back(device.ifindex);
    if (device.kind != device_kind::vlan || device.lower == 0) return;
    model->vlan_devices[device.lower].push_back(device.ifindex);
    model->vlan_device_of[model_vlan_key(device.lower, device.vlan_id)] = device.ifindex;
}

void unlink_record(inventory_model *model, const device_record &device) {
    const auto name = model->by_name.find(device.name);
    if (name != model->by_name.end() && name->second == device.ifindex) model->by_name.erase(name);
    if (device.master != 0) remove_from(&model->members, device.master, device.ifindex);
    if (device.kind != device_kind::vlan || device.lower == 0) return;
    remove_from(&model->vlan_devices, device.lower, device.ifindex);
    const auto own = model->vlan_device_of.find(model_vlan_key(device.lower, device.vlan_id));
    if (own != model->vlan_device_of.end() && own->second == device.ifindex) model->vlan_device_of.erase(own);
}

// What a device is to its members and to the VLAN devices on it may have changed.
void reclassify_dependants(inventory_model *model, int ifindex) {
    for (const auto *lists : {&model->members, &model->vlan_devices}) {
        const auto list = lists->find(ifindex);
        if (list == lists->end()) continue;
        for (const int dependant : std::vector<int>(list->second)) {
            reclassify(model, dependant);
            model->suspects.insert(dependant);
        }
    }
}

bool same_place(const device_record &a, const device_record &b) {
    return a.name == b.name && a.kind == b.kind && a.ethernet == b.ethernet && a.lower == b.lower &&
           a.master == b.master && a.vlan_id == b.vlan_id;
}

void move_device(inventory_model *model, model_device *device, const device_record &now) {
    const device_record before = device->record;
    suspect_below(model, now.ifindex);
    unlink_record(model, before);
    device->record = now;
    link_record(model, now);
    suspect_below(model, now.ifindex);
    if (before.name != now.name && (device->tap || device->uplink)) model->taps_changed = true;
    if (before.name != now.name && device->tap) port_table_gone(&model->ports, before.name, wall_clock_us());
    if (before.master != now.master) {
        device->vlans.reset();
        device->pvid = 0;
    }
    reclassify(model, now.ifindex);
    if (before.kind != now.kind) reclassify_dependants(model, now.ifindex);
}

void apply(inventory_model *model, const device_seen &change) {
    const device_record &now = change.device;
    if (now.ifindex <= 0) return;
    const auto [entry, is_new] = model->devices.try_emplace(now.ifindex);
    model_device &device = entry->second;
    if (!is_new && device.record == now) return;
    if (is_new || device.record.mac != now.mac || device.record.ethernet != now.ethernet) model->own_macs_known = false;
    if (is_new) {
        device.record = now;
        link_record(model, now);
        suspect_below(model, now.ifindex);
        reclassify(model, now.ifindex);
        reclassify_dependants(model, now.ifindex);
        return;
    }
    if (same_place(device.record, now))
        device.record = now;
    else
        move_device(model, &device, now);
    mark_changed(model, device);
}

void apply(inventory_model *model, const device_gone &change) {
    model_device *device = find(model, change.ifindex);
    if (device == nullptr) return;
    suspect_below(model, change.ifindex);
    give_up_claim(model, device);
    if (device->tap || device->uplink) model->taps_changed = true;
    if (device->tap) port_table_gone(&model->ports, device->record.name, wall_clock_us());
    model->own_macs_known = false;
    unlink_record(model, device->record);
    model->refused.erase(device->record.name);
    model->devices.erase(change.ifindex);
    reclassify_dependants(model, change.ifindex);
}

// ---- VLANs on bridges ----

void note_closed(model_device *device, const vlan_range &range) {
    if (!device->closed && !range.closed) return;
    if (!device->closed) device->closed = std::make_unique<std::bitset<4096>>();
    const unsigned last = std::min(range.last, last_vlan);
    for (unsigned vlan = range.first; vlan <= last; ++vlan) device->closed->set(vlan, range.closed);
}

void add_vlans(model_device *device, const std::vector<vlan_range> &ranges) {
    if (!device->vlans) device->vlans = std::make_unique<std::bitset<4096>>();
    for (const vlan_range &range : ranges) {
        const unsigned last = std::min(range.last, last_vlan);
        for (unsigned vlan = range.first; vlan != 0 && vlan <= last; ++vlan) device->vlans->set(vlan);
        if (range.pvid && range.first <= last_vlan) device->pvid = range.first;
        // Nothing is said of the former PVID when another VLAN takes its place, but it is when it just ceases to be
        // one.
        if (!range.pvid && device->pvid >= range.first && device->pvid <= range.last) device->pvid = 0;
    }
}

void apply(inventory_model *model, const vlans_seen &change) {
    model_device *device = find(model, change.ifindex);
    if (device == nullptr) return;
    device->vlans.reset();
    device->pvid = 0;
    // It says nothing of states: those of the VLANs that it has still stay.
    if (!change.vlans.empty()) add_vlans(device, change.vlans);
    if (!device->vlans) device->closed.reset();
    if (device->closed) *device->closed &= *device->vlans;
    if (change.on_bridge) device->record.on_bridge = *change.on_bridge;
}

void apply(inventory_model *model, const bridge_port_seen &change) {
    model_device *device = find(model, change.ifindex);
    if (device != nullptr) device->record.on_bridge = change.on_bridge;
}

void apply(inventory_model *model, const vlans_added &change) {
    model_device *device = find(model, change.ifindex);
    if (device == nullptr) return;
    add_vlans(device, change.vlans);
    for (const vlan_range &range : change.vlans) note_closed(device, range);
}

void apply(inventory_model *model, const vlans_removed &change) {
    model_device *device = find(model, change.ifindex);
    if (device == nullptr || !device->vlans) return;
    for (const vlan_range &range : change.vlans) {
        const unsigned last = std::min(range.last, last_vlan);
        for (unsigned vlan = range.first; vlan <= last; ++vlan) device->vlans->reset(vlan);
        note_closed(device, {range.first, range.last, false});
        if (device->pvid >= range.first && device->pvid <= range.last) device->pvid = 0;
    }
}

// ---- Addresses ----

bool same_address(const address_record &a, const address_record &b) {
    return a.address == b.address && a.peer == b.peer && a.prefix_length == b.prefix_length;
}

// Primary addresses from the widest scope to the narrowest, each after those of its scope, then the secondary ones.
// deliberate: the kernel begins with the narrowest scope. The relay takes the first address for its own, and servers
// have no road back to a link-local one.
void insert_address(std::vector<address_record> *list, const address_record &added) {
    auto place = list->begin();
    if (added.secondary)
        place = list->end();
    else
        while (place != list->end() && !place->secondary && place->scope <= added.scope) ++place;
    list->insert(place, added);
}

// Without an address a device is no uplink, with one it may be.
void note_addresses(inventory_model *model, const model_device &device) {
    mark_changed(model, device);
    model->suspects.insert(device.record.ifindex);
    model->interface_addresses_known = false;
}

void apply(inventory_model *model, const address_seen &change) {
    model_device *device = find(model, change.ifindex);
    if (device == nullptr) return;
    auto &list = device->addresses;
    const auto known = std::find_if(list.begin(), list.end(),
                                    [&](const address_record &other) { return same_address(other, change.address); });
    if (known != list.end()) {
        if (*known == change.address) return;
        list.erase(known);
    }
    insert_address(&list, change.address);
    note_addresses(model, *device);
}

void apply(inventory_model *model, const address_gone &change) {
    model_device *device = find(model, change.ifindex);
    if (device == nullptr) return;
    const auto gone = std::erase_if(device->addresses,
                                    [&](const address_record &other) { return same_address(other, change.address); });
    if (gone != 0) note_addresses(model, *device);
}

void replace_addresses(inventory_model *model, model_device *device, std::vector<address_record> now) {
    if (device->addresses == now) return;
    device->addresses = std::move(now);
    note_addresses(model, *device);
}

}  // namespace

std::uint16_t model_vlan_of_address(inventory_model *model, std::uint32_t address) {
    auto &all = model->interface_addresses;
    if (!std::exchange(model->interface_addresses_known, true)) {
        all.clear();
        for (std::uint16_t vlan = 1; vlan <= last_vlan; ++vlan)
            if (const model_device *device = model_interface(*model, vlan))
                for (const address_record &one : device->addresses) all.emplace(one.address, vlan);
    }
    const auto found = all.find(address);
    return found == all.end() ? std::uint16_t{0} : found->second;
}

bool model_owns_mac(inventory_model *model, const mac_address &mac) {
    const auto number_of = [](const mac_address &of) {
        std::uint64_t number = 0;
        std::memcpy(&number, of.data(), of.size());
        return number;
    };
    if (!std::exchange(model->own_macs_known, true)) {
        model->own_macs.clear();
        for (const auto &[ifindex, device] : model->devices)
            if (device.record.ethernet) model->own_macs.insert(number_of(device.record.mac));
    }
    return model->own_macs.contains(number_of(mac));
}

void model_describe(inventory_model *model, const switch_description &description) {
    model->described_vlan.clear();
    model->described_device.clear();
    for (const described_interface &entry : description.interfaces) {
        if (entry.vlan == 0 || entry.vlan > last_vlan) continue;
        const auto vlan = static_cast<std::uint16_t>(entry.vlan);
        model->described_vlan.emplace(entry.device, vlan);
        model->described_device.emplace(vlan, entry.device);
    }
    port_table_describe(&model->ports, description);

    // In the order of kernel numbers, so that of two devices that claim a VLAN the older one is the interface. A claim
    // that is to go must go before the one that takes its place comes.
    std::set<int> all;
    for (const auto &[ifindex, device] : model->devices) all.insert(ifindex);
    for (const int ifindex : all) {
        model_device *device = find(model, ifindex);
        const claim wanted = claim_of(*model, device->record);
        if (wanted.vlan != device->claim) give_up_claim(model, device);
    }
    for (const int ifindex : all) reclassify(model, ifindex);
    model->suspects.insert(all.begin(), all.end());
}

void model_apply(inventory_model *model, const inventory_change &change) {
    std::visit([model](const auto &one) { apply(model, one); }, change);
}

void model_reconcile(inventory_model *model, const std::vector<inventory_change> &snapshot) {
    std::unordered_map<int, std::vector<address_record>> addresses;
    std::unordered_set<int> with_vlans;
    for (const inventory_change &change : snapshot) {
        if (const auto *device = std::get_if<device_seen>(&change)) addresses.try_emplace(device->device.ifindex);
        if (const auto *address = std::get_if<address_seen>(&change)) {
            const auto list = addresses.find(address->ifindex);
            if (list != addresses.end()) insert_address(&list->second, address->address);
        }
        if (const auto *vlans = std::get_if<vlans_seen>(&change)) with_vlans.insert(vlans->ifindex);
    }

    std::vector<int> gone;
    for (const auto &[ifindex, device] : model->devices)
        if (!addresses.contains(ifindex)) gone.push_back(ifindex);
    for (const int ifindex : gone) apply(model, device_gone{ifindex});
    for (const inventory_change &change : snapshot)
        if (std::holds_alternative<device_seen>(change)) model_apply(model, change);
    for (auto &[ifindex, list] : addresses)
        if (model_device *device = find(model, ifindex)) replace_addresses(model, device, std::move(list));
    for (auto &[ifindex, device] : model->devices)
        if (!with_vlans.contains(ifindex)) apply(model, vlans_seen{ifindex, {}});
    for (const inventory_change &change : snapshot)
        if (std::holds_alternative<vlans_seen>(change)) model_apply(model, change);
    for (const inventory_change &change : snapshot)
        if (std::holds_alternative<vlans_added>(change)) model_apply(model, change);
}

}  // namespace ravo::platform

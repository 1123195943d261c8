// SPDX-License-Identifier: Apache-2.0
// The road of a frame through stacked devices.
//
// A frame comes in on the lowest device of a stack and goes up: a tagged one to the VLAN device with its tag if there
// is one, else, on a member of a bridge, to the bridge, which passes it on as it is or, when VLAN-aware, to the VLAN
// device or the bridge itself. Where it ends is a device that is an interface or none. The relay listens on the lowest
// devices only, and on each once, so that it sees a message once however many devices it climbs.
//
// Servers may be reached over a device of no VLAN. Where such an "uplink" has an address of its own, what comes in on
// it is for the box, and read there: a reply needs no VLAN, as its destination names the interface it is for. An uplink
// is no port, and has no number.
//
// A bridge on the road may refuse the frame: its port is not forwarding, or locked. The relay listens below the bridge,
// so it has to ask itself.
#include <set>
#include <utility>

#include "base/clock.h"
#include "inventory/inventory_lookup.h"

namespace ravo::platform {

namespace {

const model_device *vlan_device_on(const inventory_model &model, int ifindex, std::uint16_t vlan) {
    const auto found = model.vlan_device_of.find(model_vlan_key(ifindex, vlan));
    return found == model.vlan_device_of.end() ? nullptr : model_find(model, found->second);
}

// The VLAN of the interface that this device is, 0 when it is none.
std::uint16_t own_vlan(const inventory_model &model, const model_device &device) {
    if (device.claim == 0) return 0;
    return model.claimants[device.claim].front() == device.record.ifindex ? device.claim : 0;
}

const model_device *bridge_of(const inventory_model &model, const model_device &device) {
    const model_device *master = device.record.master == 0 ? nullptr : model_find(model, device.record.master);
    return master != nullptr && master->record.kind == device_kind::bridge ? master : nullptr;
}

// Notes what a bridge has to say against a frame from a member. The first locked port on the road is asked.
void pass_bridge(const model_device &member, const model_device &bridge, std::uint16_t vlan, ingress *out) {
    if (out == nullptr) return;
    if (!member.record.on_bridge.forwarding && !bridge.record.trees) out->closed = true;
    if (member.closed && member.closed->test(vlan)) out->closed = true;
    if (!member.record.on_bridge.locked || out->locked_member != 0) return;
    out->locked_member = member.record.ifindex;
    out->locked_vlan = vlan;
}

const model_device *resolve(const inventory_model &model, const model_device &device, std::uint16_t tag, int depth,
                            ingress *out);

// A frame that a VLAN-aware bridge takes from a member.
const model_device *resolve_aware(const inventory_model &model, const model_device &member, const model_device &bridge,
                                  std::uint16_t tag, int depth, ingress *out) {
    const std::uint16_t vlan = tag != 0 ? tag : member.pvid;
    if (vlan == 0 || !member.vlans || !member.vlans->test(vlan)) return nullptr;
    pass_bridge(member, bridge, vlan, out);
    if (const model_device *upper = vlan_device_on(model, bridge.record.ifindex, vlan))
        return resolve(model, *upper, 0, depth + 1, out);
    return vlan == bridge.pvid ? resolve(model, bridge, 0, depth + 1, out) : nullptr;
}

// Follows a frame up from a device; tag 0: untagged. out: where to note what bridges say, NULL when nobody wants to
// know. Returns the device it ends at, NULL for none.
const model_device *resolve(const inventory_model &model, const model_device &device, std::uint16_t tag, int depth,
                            ingress *out) {
    if (depth > max_stack_depth) return nullptr;
    if (tag == 0 && device.described) return &device;
    if (tag != 0)
        if (const model_device *upper = vlan_device_on(model, device.record.ifindex, tag))
            return resolve(model, *upper, 0, depth + 1, out);
    if (const model_device *bridge = bridge_of(model, device)) {
        if (bridge->record.vlan_filtering) return resolve_aware(model, device, *bridge, tag, depth, out);
        pass_bridge(device, *bridge, 0, out);
        return resolve(model, *bridge, tag, depth + 1, out);
    }
    return tag == 0 ? &device : nullptr;
}

// Tells whether any frame that comes in on the device can end at an interface.
bool reaches_interface(const inventory_model &model, const model_device &device, int depth) {
    if (depth > max_stack_depth) return false;
    if (own_vlan(model, device) != 0) return true;
    const auto uppers = model.vlan_devices.find(device.record.ifindex);
    if (uppers != model.vlan_devices.end())
        for (const int upper : uppers->second)
            if (const model_device *found = model_find(model, upper))
                if (reaches_interface(model, *found, depth + 1)) return true;
    const model_device *bridge = bridge_of(model, device);
    return bridge != nullptr && reaches_interface(model, *bridge, depth + 1);
}

bool is_tap(const inventory_model &model, const model_device &device) {
    const device_record &record = device.record;
    return record.ethernet && record.kind != device_kind::bridge && !stands_on_another(model, record) &&
           reaches_interface(model, device, 0);
}

bool is_uplink(const inventory_model &model, const model_device &device) {
    return device.record.ethernet && !device.addresses.empty() && own_vlan(model, device) == 0 &&
           resolve(model, device, 0, 0, nullptr) == &device;
}

// The tags that frames from a device may have and still end somewhere.
void collect_tags(const inventory_model &model, const model_device &device, std::set<std::uint16_t> *tags, int depth) {
    if (depth > max_stack_depth) return;
    const auto add_uppers = [&](int ifindex, const auto &passes) {
        const auto uppers = model.vlan_devices.find(ifindex);
        if (uppers == model.vlan_devices.end()) return;
        for (const int upper : uppers->second)
            if (const model_device *found = model_find(model, upper))
                if (passes(found->record.vlan_id)) tags->insert(found->record.vlan_id);
    };
    add_uppers(device.record.ifindex, [](std::uint16_t) { return true; });
    const model_device *bridge = bridge_of(model, device);
    if (bridge == nullptr) return;
    if (!bridge->record.vlan_filtering) return collect_tags(model, *bridge, tags, depth + 1);
    add_uppers(bridge->record.ifindex, [&](std::uint16_t vlan) { return device.vlans && device.vlans->test(vlan); });
    tags->insert(bridge->pvid);
}

// All together, so that no port gets what another one has a better claim to.
void number_ports(inventory_model *model, const std::vector<model_device *> &taps) {
    std::vector<port_device> devices;
    devices.reserve(taps.size());
    for (const model_device *tap : taps)
        devices.push_back({tap->record.name, tap->record.ifindex, tap->record.physical_name});
    port_table_give(&model->ports, devices, model->number_in_use);
    for (model_device *tap : taps) tap->port = port_table_number(model->ports, tap->record.name);
}

}  // namespace

bool model_settle_taps(inventory_model *model) {
    std::vector<model_device *> taps;
    for (const int ifindex : model->suspects) {
        const auto found = model->devices.find(ifindex);
        if (found == model->devices.end()) continue;
        model_device &device = found->second;
        const bool tap = is_tap(*model, device);
        const bool uplink = is_uplink(*model, device);
        if (device.tap && !tap) port_table_gone(&model->ports, device.record.name, wall_clock_us());
        if (tap != device.tap || uplink != device.uplink) model->taps_changed = true;
        device.tap = tap;
        device.uplink = uplink;
        device.port = 0;
        if (tap) taps.push_back(&device);
    }
    model->suspects.clear();
    number_ports(model, taps);
    return std::exchange(model->taps_changed, false);
}

std::vector<std::uint16_t> model_port_vlans(const inventory_model &model, const model_device &tap) {
    std::set<std::uint16_t> tags = {0};
    collect_tags(model, tap, &tags, 0);
    std::set<std::uint16_t> vlans;
    for (const std::uint16_t tag : tags)
        if (const model_device *end = resolve(model, tap, tag, 0, nullptr))
            if (const std::uint16_t vlan = own_vlan(model, *end)) vlans.insert(vlan);
    return {vlans.begin(), vlans.end()};
}

ingress_result model_classify(const inventory_model &model, int ifindex, bool tagged, std::uint16_t tag, ingress *out) {
    *out = {};
    const model_device *device = model_find(model, ifindex);
    if (device == nullptr || (!device->tap && !device->uplink)) return ingress_result::unknown_port;
    // What ends at no interface is a port's fault; an uplink that is no port does not answer for other frames.
    const ingress_result lost = device->tap ? ingress_result::unknown_vlan : ingress_result::elsewhere;
    if (tagged && tag > last_vlan) return lost;
    out->port_ifindex = device->port;
    const model_device *end = resolve(model, *device, tagged ? tag : std::uint16_t{0}, 0, out);
    if (end == nullptr) return lost;
    out->vlan = own_vlan(model, *end);
    if (out->vlan != 0) return device->tap ? ingress_result::ok : ingress_result::elsewhere;
    if (!end->uplink) return lost;
    return end == device ? ingress_result::uplink : ingress_result::elsewhere;
}

}  // namespace ravo::platform

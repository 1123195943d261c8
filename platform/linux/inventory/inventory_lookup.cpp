// SPDX-License-Identifier: Apache-2.0
// Which device lies on which: the steps that both the following of changes and the classifying of frames take.
#include "inventory/inventory_lookup.h"

namespace ravo::platform {

namespace {

void suspect(inventory_model *model, int ifindex, int depth) {
    model->suspects.insert(ifindex);
    const model_device *device = model_find(*model, ifindex);
    if (device == nullptr || depth > max_stack_depth) return;
    if (stands_on_another(*model, device->record)) suspect(model, device->record.lower, depth + 1);
    if (device->record.kind != device_kind::bridge) return;
    const auto members = model->members.find(ifindex);
    if (members == model->members.end()) return;
    for (const int member : members->second) suspect(model, member, depth + 1);
}

}  // namespace

bool stands_on_another(const inventory_model &model, const device_record &device) {
    return device.kind == device_kind::vlan && model.devices.contains(device.lower);
}

void suspect_below(inventory_model *model, int ifindex) {
    suspect(model, ifindex, 0);
}

const model_device *model_find(const inventory_model &model, int ifindex) {
    const auto found = model.devices.find(ifindex);
    return found == model.devices.end() ? nullptr : &found->second;
}

const model_device *model_find(const inventory_model &model, const std::string &name) {
    const auto found = model.by_name.find(name);
    return found == model.by_name.end() ? nullptr : model_find(model, found->second);
}

const model_device *model_interface(const inventory_model &model, std::uint32_t vlan) {
    if (vlan == 0 || vlan > last_vlan || model.claimants[vlan].empty()) return nullptr;
    return model_find(model, model.claimants[vlan].front());
}

}  // namespace ravo::platform

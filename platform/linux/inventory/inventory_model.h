// SPDX-License-Identifier: Apache-2.0
// The inventory's model: devices as records, and what they are to the switch. No sockets, no events, no globals.
//
// It is fed with changes in any order, also contradicting ones, and collects what has to be reported: the VLANs whose
// interface changed, and whether the taps did.
#ifndef PLATFORM_LINUX_INVENTORY_INVENTORY_MODEL_H
#define PLATFORM_LINUX_INVENTORY_INVENTORY_MODEL_H

#include <bitset>
#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "inventory/inventory.h"
#include "inventory/inventory_change.h"
#include "inventory/inventory_names.h"
#include "inventory/inventory_ports.h"

namespace ravo::platform {

struct model_device {
    device_record record;
    std::unique_ptr<std::bitset<4096>> vlans;   // VLANs it has on its bridge; null: none known
    std::unique_ptr<std::bitset<4096>> closed;  // of these, those it does not forward for; null: none
    std::uint16_t pvid = 0;                     // its PVID there, 0 none
    std::vector<address_record> addresses;      // the relay's own would be the first
    std::uint16_t claim = 0;                    // VLAN whose interface it could be, 0 none
    bool described = false;                     // the claim comes from the description
    bool tap = false;                           // frames of VLANs are read here
    bool uplink = false;                        // replies are read here that come in on no VLAN
    std::uint32_t port = 0;                     // of a tap: its port number, 0 none
};

struct inventory_model {
    std::unordered_map<int, model_device> devices;           // by kernel number
    std::unordered_map<std::string, int> by_name;            // kernel number by device name
    std::unordered_map<int, std::vector<int>> members;       // of a bridge, bond or VRF
    std::unordered_map<int, std::vector<int>> vlan_devices;  // VLAN devices on a device
    std::unordered_map<std::uint64_t, int> vlan_device_of;   // by device and VLAN id, see model_vlan_key
    std::vector<std::vector<int>> claimants;                 // by VLAN, the interface first, then who would be next
    std::unordered_map<std::string, std::uint16_t> described_vlan;  // by device name
    std::unordered_map<std::uint16_t, std::string> described_device;
    port_table ports;
    port_in_use number_in_use;  // empty: none is

    std::set<std::uint16_t> changed_vlans;    // to be reported to the interface service
    std::set<int> suspects;                   // devices that may have become, or ceased to be, taps
    std::unordered_set<std::string> refused;  // names of devices refused with a line in the log
    bool taps_changed = false;
    std::unordered_map<std::uint32_t, std::uint16_t> interface_addresses;  // VLAN by address, once asked for
    bool interface_addresses_known = false;
    std::unordered_set<std::uint64_t> own_macs;  // of all devices, once asked for
    bool own_macs_known = false;

    inventory_model() : claimants(last_vlan + 1) {}
};

// Installs a description; all devices are classified anew.
void model_describe(inventory_model *model, const switch_description &description);

// Takes in one change. What contradicts the model (an unknown device goes, an address it does not have) is ignored.
void model_apply(inventory_model *model, const inventory_change &change);

// Makes the model what a complete reading says: what is not in it is gone.
void model_reconcile(inventory_model *model, const std::vector<inventory_change> &snapshot);

// Brings the taps up to date after changes. Returns whether any appeared, went or got another name.
bool model_settle_taps(inventory_model *model);

// Returns the device that carries a VLAN's interface, or NULL.
const model_device *model_interface(const inventory_model &model, std::uint32_t vlan);
const model_device *model_find(const inventory_model &model, int ifindex);
const model_device *model_find(const inventory_model &model, const std::string &name);

// As inventory_classify.
ingress_result model_classify(const inventory_model &model, int ifindex, bool tagged, std::uint16_t tag, ingress *out);

// The VLANs of the interfaces at which frames from a tap end, in order.
std::vector<std::uint16_t> model_port_vlans(const inventory_model &model, const model_device &tap);

// As inventory_vlan_of_address.
std::uint16_t model_vlan_of_address(inventory_model *model, std::uint32_t address);

// Tells whether a hardware address is that of a device of this box.
bool model_owns_mac(inventory_model *model, const mac_address &mac);

constexpr std::uint64_t model_vlan_key(int ifindex, std::uint16_t vlan) {
    return (static_cast<std::uint64_t>(static_cast<std::uint32_t>(ifindex)) << 16) | vlan;
}

}  // namespace ravo::platform

#endif

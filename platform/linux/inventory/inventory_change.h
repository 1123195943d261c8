// SPDX-License-Identifier: Apache-2.0
// What the inventory learns about the kernel's devices, as plain records without netlink in them.
//
// The reader of netlink produces changes, the inventory's model consumes them; tests feed the model by hand.
#ifndef PLATFORM_LINUX_INVENTORY_INVENTORY_CHANGE_H
#define PLATFORM_LINUX_INVENTORY_INVENTORY_CHANGE_H

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace ravo::platform {

using mac_address = std::array<std::uint8_t, 6>;

enum class device_kind {
    other,   // NIC, veth, bond, tunnel, ...
    bridge,  // VLAN-aware or not
    vlan,    // 802.1Q device on top of another device
    vrf,     // a routing domain: has members, but takes no frames from them
};

// What a bridge does with frames from one of its members.
struct bridge_port {
    bool forwarding = true;  // false: disabled, listening, learning or blocking, so that it takes none
    bool locked = false;     // it takes those of stations alone that its table of stations has at the port
    bool operator==(const bridge_port &) const = default;
};

// A device of the kernel.
struct device_record {
    int ifindex = 0;  // the kernel's number, above 0
    std::string name;
    device_kind kind = device_kind::other;
    bool up = false;        // administratively up
    bool ethernet = false;  // Ethernet with a 6-byte hardware address
    std::array<std::uint8_t, 6> mac{};
    int lower = 0;                // of a VLAN device: the device below it; 0 when that is in another namespace
    int master = 0;               // the bridge, bond or VRF it is a member of; 0 none
    std::uint16_t vlan_id = 0;    // of a VLAN device
    bool vlan_filtering = false;  // of a bridge: it is VLAN-aware
    bool trees = false;           // of a bridge: members have states by VLAN (MSTP), and none for all
    std::string physical_name{};  // what its driver calls the port ("p7"), mostly empty
    bridge_port on_bridge{};      // of a bridge's member
    bool operator==(const device_record &) const = default;
};

// VLANs of a bridge's member, or of the bridge itself.
struct vlan_range {
    std::uint16_t first;  // 1 to 4094
    std::uint16_t last;   // first to 4094
    bool pvid;            // untagged frames belong to it; then first == last
    bool closed = false;  // it is not forwarding for them; known from VLAN messages alone
    bool operator==(const vlan_range &) const = default;
};

// An IPv4 address of a device. Two addresses are the same when address, peer and prefix length are.
struct address_record {
    std::uint32_t address = 0;  // network byte order
    std::uint32_t peer = 0;     // network byte order; the same as address but on point-to-point links
    std::uint8_t prefix_length = 0;
    std::uint8_t scope = 0;  // RT_SCOPE_...: the lower, the wider
    bool secondary = false;
    bool operator==(const address_record &) const = default;
};

struct device_seen {  // new or changed
    device_record device;
};
struct device_gone {
    int ifindex;
};
struct vlans_seen {  // all VLANs a device has on its bridge
    int ifindex;
    std::vector<vlan_range> vlans;
    std::optional<bridge_port> on_bridge{};  // comes beside
};
struct bridge_port_seen {  // of a member that has no VLANs
    int ifindex;
    bridge_port on_bridge;
};
struct vlans_added {  // these, beside those it has
    int ifindex;
    std::vector<vlan_range> vlans;
};
struct vlans_removed {
    int ifindex;
    std::vector<vlan_range> vlans;
};
struct address_seen {  // new or changed
    int ifindex;
    address_record address;
};
struct address_gone {
    int ifindex;
    address_record address;
};

using inventory_change = std::variant<device_seen, device_gone, vlans_seen, bridge_port_seen, vlans_added,
                                      vlans_removed, address_seen, address_gone>;

}  // namespace ravo::platform

#endif

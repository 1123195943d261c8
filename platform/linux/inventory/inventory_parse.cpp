// SPDX-License-Identifier: Apache-2.0
// What a netlink message says. Three families of messages matter: links (devices), links of the bridge family and VLAN
// messages (states and VLANs of a bridge's members), and IPv4 addresses. Attributes are taken only after their type and
// length were checked; a message that fails a check says nothing.
#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/if_bridge.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <net/if_arp.h>

#include <array>
#include <cstring>
#include <string_view>

#include "inventory/inventory_names.h"
#include "inventory/inventory_netlink.h"

namespace ravo::platform {

namespace {

constexpr std::uint16_t ethertype_vlan = 0x8100;
constexpr std::uint32_t mst_enabled = 1U << 2;  // BR_BOOLOPT_MST_ENABLE, which older headers do not name

template <std::size_t size>
using attributes = std::array<const nlattr *, size>;

// Attributes by type; of two of the same type the last one counts.
struct collector {
    const nlattr **table;
    std::size_t size;
};

int collect(const nlattr *attribute, void *data) {
    const auto *to = static_cast<const collector *>(data);
    const std::uint16_t type = mnl_attr_get_type(attribute);
    if (type < to->size) to->table[type] = attribute;
    return MNL_CB_OK;
}

template <std::size_t size>
attributes<size> attributes_of(const nlmsghdr *message, unsigned header) {
    attributes<size> table{};
    collector to{table.data(), size};
    mnl_attr_parse(message, header, collect, &to);
    return table;
}

template <std::size_t size>
attributes<size> attributes_in(const nlattr *nest) {
    attributes<size> table{};
    if (nest == nullptr) return table;
    collector to{table.data(), size};
    mnl_attr_parse_nested(nest, collect, &to);
    return table;
}

// Calls visit with each attribute of a message behind its header, or of a nest.
template <typename visitor>
int call_visitor(const nlattr *attribute, void *data) {
    (*static_cast<visitor *>(data))(attribute);
    return MNL_CB_OK;
}

template <typename visitor>
void visit_attributes(const nlmsghdr *message, unsigned header, visitor visit) {
    mnl_attr_parse(message, header, call_visitor<visitor>, &visit);
}

template <typename visitor>
void visit_nested(const nlattr *nest, visitor visit) {
    mnl_attr_parse_nested(nest, call_visitor<visitor>, &visit);
}

// Copies a fixed-size value. Returns false, and leaves it alone, when the attribute is absent or too short.
template <typename value_type>
bool get(const nlattr *attribute, value_type *value) {
    if (attribute == nullptr || mnl_attr_get_payload_len(attribute) < sizeof *value) return false;
    std::memcpy(value, mnl_attr_get_payload(attribute), sizeof *value);
    return true;
}

std::string_view get_text(const nlattr *attribute) {
    if (attribute == nullptr) return {};
    const auto *text = static_cast<const char *>(mnl_attr_get_payload(attribute));
    return {text, strnlen(text, mnl_attr_get_payload_len(attribute))};
}

template <typename header_type>
const header_type *header_of(const nlmsghdr *message) {
    if (mnl_nlmsg_get_payload_len(message) < sizeof(header_type)) return nullptr;
    return static_cast<const header_type *>(mnl_nlmsg_get_payload(message));
}

// ---- Devices ----

void read_vlan_device(const nlattr *data, device_record *device) {
    const auto info = attributes_in<IFLA_VLAN_PROTOCOL + 1>(data);
    std::uint16_t protocol = htons(ethertype_vlan);
    std::uint16_t id = 0;
    get(info[IFLA_VLAN_PROTOCOL], &protocol);
    // A device for another tag type takes none of the frames that the packet channel understands as tagged.
    if (ntohs(protocol) != ethertype_vlan || !get(info[IFLA_VLAN_ID], &id) || id == 0 || id > last_vlan) return;
    device->kind = device_kind::vlan;
    device->vlan_id = id;
}

void read_bridge(const nlattr *data, device_record *device) {
    const auto info = attributes_in<IFLA_BR_MULTI_BOOLOPT + 1>(data);
    std::uint8_t filtering = 0;
    br_boolopt_multi switches{};
    get(info[IFLA_BR_MULTI_BOOLOPT], &switches);
    device->trees = (switches.optval & mst_enabled) != 0;
    get(info[IFLA_BR_VLAN_FILTERING], &filtering);
    device->kind = device_kind::bridge;
    device->vlan_filtering = filtering != 0;
}

// What is not said is as on a kernel that does not know it: not locked.
bridge_port read_bridge_port(const nlattr *data) {
    const auto info = attributes_in<IFLA_BRPORT_LOCKED + 1>(data);
    std::uint8_t state = BR_STATE_FORWARDING;
    std::uint8_t locked = 0;
    get(info[IFLA_BRPORT_STATE], &state);
    get(info[IFLA_BRPORT_LOCKED], &locked);
    return {.forwarding = state == BR_STATE_FORWARDING, .locked = locked != 0};
}

void read_kind(const nlattr *link_info, device_record *device) {
    const auto info = attributes_in<IFLA_INFO_SLAVE_DATA + 1>(link_info);
    const std::string_view kind = get_text(info[IFLA_INFO_KIND]);
    if (kind == "vlan") read_vlan_device(info[IFLA_INFO_DATA], device);
    if (kind == "bridge") read_bridge(info[IFLA_INFO_DATA], device);
    if (kind == "vrf") device->kind = device_kind::vrf;
    if (get_text(info[IFLA_INFO_SLAVE_KIND]) == "bridge")
        device->on_bridge = read_bridge_port(info[IFLA_INFO_SLAVE_DATA]);
}

std::optional<inventory_change> read_device(const nlmsghdr *message, const ifinfomsg &header) {
    if (message->nlmsg_type == RTM_DELLINK) return device_gone{header.ifi_index};
    const auto found = attributes_of<IFLA_PHYS_PORT_NAME + 1>(message, sizeof header);
    device_record device;
    device.ifindex = header.ifi_index;
    device.name = get_text(found[IFLA_IFNAME]);
    // Wireless drivers send link messages that carry an event of theirs and nothing else.
    if (device.ifindex <= 0 || device.name.empty() || device.name.size() >= IFNAMSIZ) return std::nullopt;
    device.up = (header.ifi_flags & IFF_UP) != 0;
    device.ethernet = header.ifi_type == ARPHRD_ETHER && found[IFLA_ADDRESS] != nullptr &&
                      mnl_attr_get_payload_len(found[IFLA_ADDRESS]) == device.mac.size() &&
                      get(found[IFLA_ADDRESS], &device.mac);
    device.physical_name = get_text(found[IFLA_PHYS_PORT_NAME]);
    read_kind(found[IFLA_LINKINFO], &device);
    get(found[IFLA_MASTER], &device.master);
    // With a namespace id the number is that of a device over there.
    if (device.kind == device_kind::vlan && found[IFLA_LINK_NETNSID] == nullptr) get(found[IFLA_LINK], &device.lower);
    return device_seen{std::move(device)};
}

// ---- VLANs on bridges ----

bool is_vlan(std::uint16_t vlan) {
    return vlan != 0 && vlan <= last_vlan;
}

// The VLANs of a bridge's member as link messages list them: single ones, and pairs that begin and end a range.
struct vlan_list_reader {
    std::vector<vlan_range> vlans;
    std::uint16_t begin = 0;

    void read(const nlattr *attribute) {
        bridge_vlan_info info{};
        if (mnl_attr_get_type(attribute) != IFLA_BRIDGE_VLAN_INFO || !get(attribute, &info) || !is_vlan(info.vid))
            return;
        if ((info.flags & BRIDGE_VLAN_INFO_RANGE_BEGIN) != 0) {
            begin = info.vid;
            return;
        }
        const bool ends_range = (info.flags & BRIDGE_VLAN_INFO_RANGE_END) != 0 && begin != 0 && begin <= info.vid;
        const std::uint16_t first = ends_range ? begin : info.vid;
        vlans.push_back({first, info.vid, first == info.vid && (info.flags & BRIDGE_VLAN_INFO_PVID) != 0});
        begin = 0;
    }
};

std::optional<inventory_change> read_bridge_link(const nlmsghdr *message, const ifinfomsg &header) {
    // The device left its bridge; it is not gone itself.
    if (message->nlmsg_type == RTM_DELLINK) return vlans_seen{header.ifi_index, {}, bridge_port{}};
    const auto found = attributes_of<IFLA_AF_SPEC + 1>(message, sizeof header);
    std::optional<bridge_port> on_bridge;  // not said of the bridge itself
    if (found[IFLA_PROTINFO] != nullptr) on_bridge = read_bridge_port(found[IFLA_PROTINFO]);
    if (found[IFLA_AF_SPEC] == nullptr && !on_bridge) return std::nullopt;
    if (found[IFLA_AF_SPEC] == nullptr) return bridge_port_seen{header.ifi_index, *on_bridge};
    vlan_list_reader reader;
    visit_nested(found[IFLA_AF_SPEC], [&](const nlattr *attribute) { reader.read(attribute); });
    return vlans_seen{header.ifi_index, std::move(reader.vlans), on_bridge};
}

std::optional<vlan_range> read_vlan_entry(const nlattr *nest) {
    const auto entry = attributes_in<BRIDGE_VLANDB_ENTRY_STATE + 1>(nest);
    bridge_vlan_info info{};
    if (!get(entry[BRIDGE_VLANDB_ENTRY_INFO], &info) || !is_vlan(info.vid)) return std::nullopt;
    std::uint16_t last = info.vid;
    get(entry[BRIDGE_VLANDB_ENTRY_RANGE], &last);
    if (!is_vlan(last) || last < info.vid) return std::nullopt;
    std::uint8_t state = BR_STATE_FORWARDING;
    get(entry[BRIDGE_VLANDB_ENTRY_STATE], &state);
    const bool pvid = last == info.vid && (info.flags & BRIDGE_VLAN_INFO_PVID) != 0;
    return vlan_range{.first = info.vid, .last = last, .pvid = pvid, .closed = state != BR_STATE_FORWARDING};
}

std::optional<inventory_change> read_vlans(const nlmsghdr *message) {
    const auto *header = header_of<br_vlan_msg>(message);
    if (header == nullptr || header->family != AF_BRIDGE) return std::nullopt;
    std::vector<vlan_range> ranges;
    visit_attributes(message, sizeof *header, [&](const nlattr *attribute) {
        if (mnl_attr_get_type(attribute) != BRIDGE_VLANDB_ENTRY) return;
        if (const auto range = read_vlan_entry(attribute)) ranges.push_back(*range);
    });
    const int ifindex = static_cast<int>(header->ifindex);
    if (ranges.empty()) return std::nullopt;
    if (message->nlmsg_type == RTM_DELVLAN) return vlans_removed{ifindex, std::move(ranges)};
    return vlans_added{ifindex, std::move(ranges)};
}

// ---- Addresses ----

std::optional<inventory_change> read_address(const nlmsghdr *message) {
    const auto *header = header_of<ifaddrmsg>(message);
    if (header == nullptr || header->ifa_family != AF_INET || header->ifa_prefixlen > 32) return std::nullopt;
    const auto found = attributes_of<IFA_FLAGS + 1>(message, sizeof *header);
    address_record address;
    // On a point-to-point link the one is ours and the other the peer's; elsewhere both are ours.
    if (!get(found[IFA_ADDRESS], &address.peer)) return std::nullopt;
    address.address = address.peer;
    get(found[IFA_LOCAL], &address.address);
    std::uint32_t flags = header->ifa_flags;
    get(found[IFA_FLAGS], &flags);
    address.prefix_length = header->ifa_prefixlen;
    address.scope = header->ifa_scope;
    address.secondary = (flags & IFA_F_SECONDARY) != 0;
    const int ifindex = static_cast<int>(header->ifa_index);
    if (message->nlmsg_type == RTM_DELADDR) return address_gone{ifindex, address};
    return address_seen{ifindex, address};
}

std::optional<inventory_change> read_link(const nlmsghdr *message) {
    const auto *header = header_of<ifinfomsg>(message);
    if (header == nullptr) return std::nullopt;
    if (header->ifi_family == AF_UNSPEC) return read_device(message, *header);
    if (header->ifi_family == AF_BRIDGE) return read_bridge_link(message, *header);
    return std::nullopt;
}

}  // namespace

std::optional<inventory_change> netlink_parse(const nlmsghdr *message) {
    switch (message->nlmsg_type) {
        case RTM_NEWLINK:
        case RTM_DELLINK:
            return read_link(message);
        case RTM_NEWVLAN:
        case RTM_DELVLAN:
            return read_vlans(message);
        case RTM_NEWADDR:
        case RTM_DELADDR:
            return read_address(message);
        default:
            return std::nullopt;
    }
}

}  // namespace ravo::platform

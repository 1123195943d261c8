// SPDX-License-Identifier: Apache-2.0
// What netlink messages say, on messages built by hand: whole, cut at every length, and with every byte changed.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <libmnl/libmnl.h>
#include <linux/if_bridge.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <net/if_arp.h>

#include <array>
#include <cstring>
#include <initializer_list>
#include <memory>

#include "inventory/inventory_netlink.h"

namespace ravo::platform {
namespace {

using testing::ElementsAre;

// A message under construction.
class message {
  public:
    explicit message(std::uint16_t type) {
        mnl_nlmsg_put_header(room_);
        head()->nlmsg_type = type;
    }
    message &link(unsigned char family, int ifindex, unsigned flags = IFF_UP, unsigned short type = ARPHRD_ETHER) {
        auto *header = static_cast<ifinfomsg *>(mnl_nlmsg_put_extra_header(head(), sizeof(ifinfomsg)));
        header->ifi_family = family;
        header->ifi_index = ifindex;
        header->ifi_flags = flags;
        header->ifi_type = type;
        return *this;
    }
    message &address(unsigned char family, unsigned ifindex, unsigned char prefix_length, unsigned char flags = 0) {
        auto *header = static_cast<ifaddrmsg *>(mnl_nlmsg_put_extra_header(head(), sizeof(ifaddrmsg)));
        header->ifa_family = family;
        header->ifa_index = ifindex;
        header->ifa_prefixlen = prefix_length;
        header->ifa_flags = flags;
        return *this;
    }
    message &vlan_header(unsigned char family, unsigned ifindex) {
        auto *header = static_cast<br_vlan_msg *>(mnl_nlmsg_put_extra_header(head(), sizeof(br_vlan_msg)));
        header->family = family;
        header->ifindex = ifindex;
        return *this;
    }
    message &text(std::uint16_t type, const char *value) {
        mnl_attr_put_strz(head(), type, value);
        return *this;
    }
    template <typename value_type>
    message &put(std::uint16_t type, const value_type &value) {
        mnl_attr_put(head(), type, sizeof value, &value);
        return *this;
    }
    message &begin(std::uint16_t type) {
        nests_.push_back(mnl_attr_nest_start(head(), type));
        return *this;
    }
    message &end() {
        mnl_attr_nest_end(head(), nests_.back());
        nests_.pop_back();
        return *this;
    }
    nlmsghdr *head() { return reinterpret_cast<nlmsghdr *>(room_); }

  private:
    alignas(nlmsghdr) char room_[2048] = {};
    std::vector<nlattr *> nests_;
};

const std::array<std::uint8_t, 6> mac = {2, 0, 0, 0, 0, 7};

message vlan_link() {
    message made(RTM_NEWLINK);
    made.link(AF_UNSPEC, 12).text(IFLA_IFNAME, "br0.10").put(IFLA_ADDRESS, mac).put(IFLA_LINK, 3).put(IFLA_MASTER, 4);
    made.begin(IFLA_LINKINFO).text(IFLA_INFO_KIND, "vlan").begin(IFLA_INFO_DATA);
    made.put(IFLA_VLAN_ID, std::uint16_t{10}).put(IFLA_VLAN_PROTOCOL, htons(0x8100)).end().end();
    return made;
}

message bridge_link() {
    message made(RTM_NEWLINK);
    made.link(AF_UNSPEC, 3, 0).text(IFLA_IFNAME, "br0").put(IFLA_ADDRESS, mac);
    made.begin(IFLA_LINKINFO).text(IFLA_INFO_KIND, "bridge").begin(IFLA_INFO_DATA);
    made.put(IFLA_BR_VLAN_FILTERING, std::uint8_t{1}).end().end();
    return made;
}

message member_vlans() {
    const auto info = [](unsigned short flags, unsigned short vid) { return bridge_vlan_info{flags, vid}; };
    message made(RTM_NEWLINK);
    made.link(AF_BRIDGE, 5).text(IFLA_IFNAME, "swp1").begin(IFLA_AF_SPEC);
    made.put(IFLA_BRIDGE_VLAN_INFO, info(BRIDGE_VLAN_INFO_PVID | BRIDGE_VLAN_INFO_UNTAGGED, 1));
    made.put(IFLA_BRIDGE_VLAN_INFO, info(BRIDGE_VLAN_INFO_RANGE_BEGIN, 10));
    made.put(IFLA_BRIDGE_VLAN_INFO, info(BRIDGE_VLAN_INFO_RANGE_END, 20));
    made.put(IFLA_BRIDGE_VLAN_INFO, info(0, 4094)).end();
    return made;
}

// A member as the bridge tells of it when its state changes.
message member_state(std::uint8_t state, std::uint8_t locked) {
    message made(RTM_NEWLINK);
    made.link(AF_BRIDGE, 5).text(IFLA_IFNAME, "swp1").begin(IFLA_PROTINFO | NLA_F_NESTED);
    made.put(IFLA_BRPORT_STATE, state).put(IFLA_BRPORT_LOCKED, locked).end();
    return made;
}

message member_link(std::uint8_t state, std::uint8_t locked, const char *master = "bridge") {
    message made(RTM_NEWLINK);
    made.link(AF_UNSPEC, 5).text(IFLA_IFNAME, "swp1").put(IFLA_ADDRESS, mac).begin(IFLA_LINKINFO);
    made.text(IFLA_INFO_SLAVE_KIND, master).begin(IFLA_INFO_SLAVE_DATA);
    made.put(IFLA_BRPORT_STATE, state).put(IFLA_BRPORT_LOCKED, locked).end().end();
    return made;
}

message vlan_change(std::uint16_t type) {
    message made(type);
    made.vlan_header(AF_BRIDGE, 5);
    made.begin(BRIDGE_VLANDB_ENTRY).put(BRIDGE_VLANDB_ENTRY_INFO, bridge_vlan_info{BRIDGE_VLAN_INFO_PVID, 10}).end();
    made.begin(BRIDGE_VLANDB_ENTRY).put(BRIDGE_VLANDB_ENTRY_INFO, bridge_vlan_info{0, 20});
    made.put(BRIDGE_VLANDB_ENTRY_RANGE, std::uint16_t{30}).end();
    return made;
}

message new_address() {
    message made(RTM_NEWADDR);
    made.address(AF_INET, 12, 24, IFA_F_SECONDARY).put(IFA_ADDRESS, inet_addr("10.0.0.2"));
    made.put(IFA_LOCAL, inet_addr("10.0.0.1")).put(IFA_FLAGS, std::uint32_t{IFA_F_SECONDARY | IFA_F_PERMANENT});
    return made;
}

template <typename change_type>
change_type parse_as(message made) {
    const auto change = netlink_parse(made.head());
    if (!change || !std::holds_alternative<change_type>(*change)) {
        ADD_FAILURE() << "not the expected kind of change";
        return {};
    }
    return std::get<change_type>(*change);
}

TEST(NetlinkParse, VlanDevice) {
    const device_record device = parse_as<device_seen>(vlan_link()).device;
    const device_record expected = {.ifindex = 12,
                                    .name = "br0.10",
                                    .kind = device_kind::vlan,
                                    .up = true,
                                    .ethernet = true,
                                    .mac = mac,
                                    .lower = 3,
                                    .master = 4,
                                    .vlan_id = 10,
                                    .vlan_filtering = false};
    EXPECT_EQ(device, expected);
}

TEST(NetlinkParse, VlanDeviceOfAnotherNamespacesNic) {
    message made = vlan_link();
    made.put(IFLA_LINK_NETNSID, 0);
    EXPECT_EQ(parse_as<device_seen>(made).device.lower, 0);
}

TEST(NetlinkParse, VlanDeviceForOtherTagsIsAnOrdinaryDevice) {
    message made(RTM_NEWLINK);
    made.link(AF_UNSPEC, 12).text(IFLA_IFNAME, "s10").put(IFLA_ADDRESS, mac).put(IFLA_LINK, 3);
    made.begin(IFLA_LINKINFO).text(IFLA_INFO_KIND, "vlan").begin(IFLA_INFO_DATA);
    made.put(IFLA_VLAN_ID, std::uint16_t{10}).put(IFLA_VLAN_PROTOCOL, htons(0x88A8)).end().end();
    const device_record device = parse_as<device_seen>(made).device;
    EXPECT_EQ(device.kind, device_kind::other);
    EXPECT_EQ(device.lower, 0);
}

TEST(NetlinkParse, BridgeThatIsDown) {
    const device_record device = parse_as<device_seen>(bridge_link()).device;
    EXPECT_EQ(device.kind, device_kind::bridge);
    EXPECT_TRUE(device.vlan_filtering);
    EXPECT_FALSE(device.up);
}

TEST(NetlinkParse, OnlySixByteEthernetIsEthernet) {
    message tunnel(RTM_NEWLINK);
    tunnel.link(AF_UNSPEC, 2, IFF_UP, ARPHRD_TUNNEL).text(IFLA_IFNAME, "tun0").put(IFLA_ADDRESS, mac);
    EXPECT_FALSE(parse_as<device_seen>(tunnel).device.ethernet);
    message long_address(RTM_NEWLINK);
    long_address.link(AF_UNSPEC, 2).text(IFLA_IFNAME, "ib0").put(IFLA_ADDRESS, std::array<std::uint8_t, 20>{});
    EXPECT_FALSE(parse_as<device_seen>(long_address).device.ethernet);
    message no_address(RTM_NEWLINK);
    no_address.link(AF_UNSPEC, 2).text(IFLA_IFNAME, "x0");
    EXPECT_FALSE(parse_as<device_seen>(no_address).device.ethernet);
}

TEST(NetlinkParse, TheDriversNameOfAPort) {
    message named(RTM_NEWLINK);
    named.link(AF_UNSPEC, 2).text(IFLA_IFNAME, "swp7").put(IFLA_ADDRESS, mac).text(IFLA_PHYS_PORT_NAME, "p7");
    EXPECT_EQ(parse_as<device_seen>(named).device.physical_name, "p7");
    EXPECT_EQ(parse_as<device_seen>(bridge_link()).device.physical_name, "");
}

TEST(NetlinkParse, DeviceGone) {
    EXPECT_EQ(parse_as<device_gone>(message(RTM_DELLINK).link(AF_UNSPEC, 12)).ifindex, 12);
}

TEST(NetlinkParse, MemberThatLeavesItsBridgeIsNotGone) {
    const vlans_seen seen = parse_as<vlans_seen>(message(RTM_DELLINK).link(AF_BRIDGE, 12));
    EXPECT_EQ(seen.ifindex, 12);
    EXPECT_TRUE(seen.vlans.empty());
}

TEST(NetlinkParse, VlansOfAMember) {
    const vlans_seen seen = parse_as<vlans_seen>(member_vlans());
    EXPECT_EQ(seen.ifindex, 5);
    EXPECT_THAT(seen.vlans,
                ElementsAre(vlan_range{1, 1, true}, vlan_range{10, 20, false}, vlan_range{4094, 4094, false}));
}

TEST(NetlinkParse, StateOfAMember) {
    for (const std::uint8_t state : std::initializer_list<std::uint8_t>{
             BR_STATE_DISABLED, BR_STATE_LISTENING, BR_STATE_LEARNING, BR_STATE_FORWARDING, BR_STATE_BLOCKING}) {
        const bool forwarding = state == BR_STATE_FORWARDING;
        for (const bool locked : {false, true}) {
            const bridge_port expected{.forwarding = forwarding, .locked = locked};
            EXPECT_EQ(parse_as<device_seen>(member_link(state, locked)).device.on_bridge, expected);
            const bridge_port_seen seen = parse_as<bridge_port_seen>(member_state(state, locked));
            EXPECT_EQ(seen.ifindex, 5);
            EXPECT_EQ(seen.on_bridge, expected);
        }
    }
    EXPECT_EQ(parse_as<device_seen>(member_link(BR_STATE_BLOCKING, 1, "bond")).device.on_bridge, bridge_port{});
    EXPECT_EQ(parse_as<device_seen>(bridge_link()).device.on_bridge, bridge_port{});
}

TEST(NetlinkParse, StateOfAMemberBesideItsVlans) {
    EXPECT_EQ(parse_as<vlans_seen>(member_vlans()).on_bridge, std::nullopt);
    message both = member_vlans();
    both.begin(IFLA_PROTINFO | NLA_F_NESTED).put(IFLA_BRPORT_STATE, std::uint8_t{BR_STATE_LEARNING}).end();
    const vlans_seen seen = parse_as<vlans_seen>(both);
    EXPECT_EQ(seen.vlans.size(), 3U);
    EXPECT_EQ(seen.on_bridge, (bridge_port{.forwarding = false, .locked = false}));
}

TEST(NetlinkParse, StatesOfAMemberByVlan) {
    message made(RTM_NEWVLAN);
    made.vlan_header(AF_BRIDGE, 5);
    for (std::uint16_t state = 0; state <= 4; ++state) {
        made.begin(BRIDGE_VLANDB_ENTRY);
        made.put(BRIDGE_VLANDB_ENTRY_INFO, bridge_vlan_info{0, static_cast<std::uint16_t>(10 + state)});
        made.put(BRIDGE_VLANDB_ENTRY_STATE, static_cast<std::uint8_t>(state)).end();
    }
    const std::vector<vlan_range> vlans = parse_as<vlans_added>(made).vlans;
    ASSERT_EQ(vlans.size(), 5U);
    for (int state = 0; state <= 4; ++state) EXPECT_EQ(vlans[state].closed, state != 3) << state;
}

TEST(NetlinkParse, BridgeWithTrees) {
    EXPECT_FALSE(parse_as<device_seen>(bridge_link()).device.trees);
    message made(RTM_NEWLINK);
    made.link(AF_UNSPEC, 3).text(IFLA_IFNAME, "br0").put(IFLA_ADDRESS, mac);
    made.begin(IFLA_LINKINFO).text(IFLA_INFO_KIND, "bridge").begin(IFLA_INFO_DATA);
    made.put(IFLA_BR_MULTI_BOOLOPT, br_boolopt_multi{.optval = 1U << 2, .optmask = 7}).end().end();
    EXPECT_TRUE(parse_as<device_seen>(made).device.trees);
}

TEST(NetlinkParse, VlansThatChange) {
    const vlans_added added = parse_as<vlans_added>(vlan_change(RTM_NEWVLAN));
    EXPECT_EQ(added.ifindex, 5);
    EXPECT_THAT(added.vlans, ElementsAre(vlan_range{10, 10, true}, vlan_range{20, 30, false}));
    const vlans_removed removed = parse_as<vlans_removed>(vlan_change(RTM_DELVLAN));
    EXPECT_EQ(removed.ifindex, 5);
    EXPECT_THAT(removed.vlans, ElementsAre(vlan_range{10, 10, true}, vlan_range{20, 30, false}));
}

TEST(NetlinkParse, VlansOutOfRangeAreSkipped) {
    message made(RTM_NEWVLAN);
    made.vlan_header(AF_BRIDGE, 5);
    for (const std::uint16_t vid : std::initializer_list<std::uint16_t>{0, 4095, 65535})
        made.begin(BRIDGE_VLANDB_ENTRY).put(BRIDGE_VLANDB_ENTRY_INFO, bridge_vlan_info{0, vid}).end();
    made.begin(BRIDGE_VLANDB_ENTRY).put(BRIDGE_VLANDB_ENTRY_INFO, bridge_vlan_info{0, 20});
    made.put(BRIDGE_VLANDB_ENTRY_RANGE, std::uint16_t{19}).end();
    EXPECT_FALSE(netlink_parse(made.head()).has_value());
}

TEST(NetlinkParse, Addresses) {
    const address_seen seen = parse_as<address_seen>(new_address());
    EXPECT_EQ(seen.ifindex, 12);
    EXPECT_EQ(seen.address, (address_record{inet_addr("10.0.0.1"), inet_addr("10.0.0.2"), 24, 0, true}));
    message gone(RTM_DELADDR);
    gone.address(AF_INET, 12, 32).put(IFA_ADDRESS, inet_addr("10.0.0.3"));
    EXPECT_EQ(parse_as<address_gone>(gone).address,
              (address_record{inet_addr("10.0.0.3"), inet_addr("10.0.0.3"), 32, 0, false}));
}

TEST(NetlinkParse, WhatDoesNotConcernUsSaysNothing) {
    message other_type(RTM_NEWROUTE);
    other_type.link(AF_UNSPEC, 1);
    message other_family(RTM_NEWLINK);
    other_family.link(AF_INET6, 1).text(IFLA_IFNAME, "eth0");
    message wireless(RTM_NEWLINK);
    wireless.link(AF_UNSPEC, 1);
    message long_name(RTM_NEWLINK);
    long_name.link(AF_UNSPEC, 1).text(IFLA_IFNAME, "sixteen-letters-");
    message bridge_without_vlans(RTM_NEWLINK);
    bridge_without_vlans.link(AF_BRIDGE, 1);
    message ipv6(RTM_NEWADDR);
    ipv6.address(AF_INET6, 1, 64).put(IFA_ADDRESS, std::array<std::uint8_t, 16>{});
    message long_prefix(RTM_NEWADDR);
    long_prefix.address(AF_INET, 1, 33).put(IFA_ADDRESS, std::uint32_t{1});
    for (message *one : {&other_type, &other_family, &wireless, &long_name, &bridge_without_vlans, &ipv6, &long_prefix})
        EXPECT_FALSE(netlink_parse(one->head()).has_value());
}

// Reads a message from memory that ends where it ends, padded to 4 bytes as each message is, so that the sanitizer sees
// every byte read beyond it.
void parse_exactly(const nlmsghdr *whole, std::size_t length, std::size_t changed_byte, unsigned char xored) {
    const std::unique_ptr<char[]> copy(new char[MNL_ALIGN(length)]());
    std::memcpy(copy.get(), whole, length);
    if (changed_byte < length) copy[changed_byte] = static_cast<char>(copy[changed_byte] ^ xored);
    auto *message = reinterpret_cast<nlmsghdr *>(copy.get());
    message->nlmsg_len = static_cast<std::uint32_t>(length);
    const auto change = netlink_parse(message);
    if (!change) return;
    std::visit(
        [](const auto &one) {
            if constexpr (requires { one.vlans; })
                for (const vlan_range &range : one.vlans) {
                    EXPECT_GE(range.first, 1);
                    EXPECT_LE(range.first, range.last);
                    EXPECT_LE(range.last, 4094);
                }
            if constexpr (requires { one.device; }) {
                EXPECT_LT(one.device.name.size(), std::size_t{IFNAMSIZ});
                EXPECT_LE(one.device.vlan_id, 4094);
            }
            if constexpr (requires { one.address; }) {
                EXPECT_LE(one.address.prefix_length, 32);
            }
        },
        *change);
}

TEST(NetlinkParse, CutAtEveryLengthAndChangedInEveryByte) {
    message messages[] = {vlan_link(),
                          bridge_link(),
                          member_vlans(),
                          vlan_change(RTM_NEWVLAN),
                          new_address(),
                          message(RTM_DELLINK).link(AF_UNSPEC, 12),
                          member_state(BR_STATE_BLOCKING, 1),
                          member_link(BR_STATE_BLOCKING, 1)};
    for (message &one : messages) {
        const std::size_t whole = one.head()->nlmsg_len;
        for (std::size_t length = sizeof(nlmsghdr); length <= whole; ++length)
            parse_exactly(one.head(), length, whole, 0);
        for (std::size_t at = sizeof(nlmsghdr); at < whole; ++at)
            for (const std::uint8_t xored : std::initializer_list<std::uint8_t>{0x01, 0x04, 0x10, 0x80, 0xFF})
                parse_exactly(one.head(), whole, at, xored);
    }
}

}  // namespace
}  // namespace ravo::platform

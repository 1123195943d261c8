// SPDX-License-Identifier: Apache-2.0
// One captured Ethernet frame: checked, and turned into the layer-2 channel's message layout.
//
// Pure functions over bytes, without a socket and without an allocation, so that every length a frame can have or claim
// is tested and fuzzed by itself.
#ifndef PLATFORM_LINUX_CHANNEL_CHANNEL_FRAME_H
#define PLATFORM_LINUX_CHANNEL_CHANNEL_FRAME_H

#include <linux/if_packet.h>

#include <cstddef>
#include <cstdint>
#include <span>

namespace ravo::platform {

inline constexpr std::size_t channel_ip_part_size = 16;  // IPv4 header from its fifth byte to its twentieth
inline constexpr std::size_t channel_udp_header_size = 8;
inline constexpr std::size_t channel_headers_size = channel_ip_part_size + channel_udp_header_size;

// The largest frame there is: Ethernet header, one inline tag, an IPv4 packet of 65535 bytes.
inline constexpr std::size_t channel_frame_max = 14 + 4 + 65535;

// What the kernel says of a frame besides its bytes.
struct frame_aux {
    bool tagged = false;              // a VLAN tag was taken out of the frame
    std::uint16_t tpid = 0x8100;      // the tag's protocol, host byte order
    std::uint16_t tci = 0;            // the tag: 3 bits priority, 1 bit, 12 bits VLAN id; host byte order
    bool checksum_not_ready = false;  // the UDP checksum field is not filled in yet: sent by a neighbour on this host
    bool checksum_valid = false;      // the device or the kernel has verified the UDP checksum
};

// Translates what the kernel's record of a received frame says, a tpacket_auxdata or a slot of a ring.
template <typename Record>
frame_aux channel_frame_aux(const Record &record) {
    const bool tagged = (record.tp_status & TP_STATUS_VLAN_VALID) != 0;
    const bool has_tpid = tagged && (record.tp_status & TP_STATUS_VLAN_TPID_VALID) != 0;
    return {.tagged = tagged,
            .tpid = has_tpid ? record.tp_vlan_tpid : std::uint16_t{0x8100},
            .tci = tagged ? record.tp_vlan_tci : std::uint16_t{0},
            .checksum_not_ready = (record.tp_status & TP_STATUS_CSUMNOTREADY) != 0,
            .checksum_valid = (record.tp_status & TP_STATUS_CSUM_VALID) != 0};
}

enum class frame_result {
    ok,
    truncated,         // shorter than its headers say or need, or its lengths contradict each other
    fragment,          // part of a fragmented packet
    bad_ip_checksum,   // IPv4 header checksum
    bad_udp_checksum,  // UDP checksum present, ready and wrong
    unknown_vlan,      // more than one VLAN tag, or a tag that is no 802.1Q tag: no VLAN interface takes these
    not_ours,          // no UDP datagram to port 67 over IPv4: what the socket filter keeps away
};

// A good frame's parts, inside the caller's bytes. Valid as long as those.
struct dhcp_frame {
    std::span<const std::uint8_t> ip_part;  // 16 bytes: bytes 4 to 19 of the IPv4 header
    std::span<const std::uint8_t> udp;      // UDP header and DHCP message, cut to the UDP length
    bool tagged = false;
    std::uint16_t vid = 0;  // 0 to 4095; 0 is a priority tag
};

// Checks a frame (RFC 791, RFC 768) and finds its parts. frame: from the Ethernet destination address on. *out is
// meaningful for frame_result::ok only.
frame_result channel_frame_decode(std::span<const std::uint8_t> frame, const frame_aux &aux, dhcp_frame *out);

// The VLAN id of a frame's tag as the gate's program reads it, of frames that may be broken too: 0 for none and for a
// priority tag, 4095 for tags that can belong to no VLAN interface.
std::uint16_t channel_frame_vlan(std::span<const std::uint8_t> frame, const frame_aux &aux);

// Copies a good frame in the channel's layout (osal.h), cut to size bytes. Returns the length of the whole message.
std::size_t channel_frame_copy(const dhcp_frame &frame, void *buffer, std::size_t size);

}  // namespace ravo::platform

#endif

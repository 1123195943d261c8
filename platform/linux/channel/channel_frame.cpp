// SPDX-License-Identifier: Apache-2.0
// A frame goes down a ladder of checks: Ethernet and VLAN tag, IPv4 header, UDP header. Each step either takes its
// bytes from the front of what is left or gives the one reason why the frame is dropped. The lengths in the headers are
// believed only after they were held against the bytes that arrived: the frame may be longer than the IPv4 packet
// (Ethernet pads to 60 bytes), and the packet longer than the datagram, never the other way round.
//
// The kernel has usually taken the VLAN tag out of the frame and tells it beside. A tag can still stand inside: behind
// another one, or when a device driver hands the frame up as it was.

#include "channel/channel_frame.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>

namespace ravo::platform {
namespace {

using bytes = std::span<const std::uint8_t>;

constexpr std::uint16_t ethertype_ipv4 = 0x0800;
constexpr std::uint16_t ethertype_vlan = 0x8100;      // IEEE 802.1Q customer tag
constexpr std::uint16_t ethertype_provider = 0x88A8;  // IEEE 802.1ad service tag
constexpr std::uint16_t vid_mask = 0x0FFF;
constexpr std::size_t ethernet_addresses_size = 12;
constexpr std::size_t ip_header_min = 20;                 // RFC 791 section 3.1
constexpr std::uint16_t fragment_mask = 0x2000 | 0x1FFF;  // RFC 791 section 3.1: more fragments, or an offset
constexpr std::uint8_t protocol_udp = 17;
constexpr std::uint16_t dhcp_server_port = 67;

// Takes values from the front of some bytes. What is not there reads as zero or empty and latches the failure.
class byte_reader {
  public:
    explicit byte_reader(bytes from) : rest_(from) {}

    bytes take(std::size_t count) {
        if (count > rest_.size()) {
            failed_ = true;
            rest_ = {};
            return {};
        }
        const bytes taken = rest_.first(count);
        rest_ = rest_.subspan(count);
        return taken;
    }
    std::uint8_t u8() {
        const bytes b = take(1);
        return b.empty() ? std::uint8_t{0} : b[0];
    }
    std::uint16_t u16() {
        const bytes b = take(2);
        return b.empty() ? std::uint16_t{0} : static_cast<std::uint16_t>(b[0] << 8 | b[1]);
    }
    bytes rest() const { return rest_; }
    bool failed() const { return failed_; }

  private:
    bytes rest_;
    bool failed_ = false;
};

// RFC 1071: a ones' complement sum may be built in any word size and byte order and folded at the end. The bytes must
// start at an even place of what is summed.
std::uint64_t add_words(std::uint64_t sum, bytes of) {
    std::uint32_t word;
    while (of.size() >= sizeof word) {
        std::memcpy(&word, of.data(), sizeof word);
        sum += word;
        of = of.subspan(sizeof word);
    }
    word = 0;
    if (!of.empty()) std::memcpy(&word, of.data(), of.size());
    return sum + word;
}

bool sums_to_ones(std::uint64_t sum) {
    while (sum >> 16 != 0) sum = (sum & 0xFFFF) + (sum >> 16);
    return sum == 0xFFFF;
}

// RFC 768: over a pseudo header of both addresses, protocol and length, then the datagram.
bool udp_checksum_holds(bytes addresses, bytes datagram) {
    std::uint64_t sum = htons(protocol_udp);
    sum += htons(static_cast<std::uint16_t>(datagram.size()));
    return sums_to_ones(add_words(add_words(sum, addresses), datagram));
}

frame_result decode_udp(bytes addresses, bytes payload, const frame_aux &aux, dhcp_frame *out) {
    byte_reader reader(payload);
    reader.take(2);  // source port
    const std::uint16_t destination_port = reader.u16();
    const std::size_t length = reader.u16();
    const std::uint16_t checksum = reader.u16();
    if (reader.failed()) return frame_result::truncated;
    if (destination_port != dhcp_server_port) return frame_result::not_ours;
    if (length < channel_udp_header_size || length > payload.size()) return frame_result::truncated;

    out->udp = payload.first(length);
    // RFC 768: a checksum of zero means that the sender made none.
    if (checksum == 0 || aux.checksum_not_ready || aux.checksum_valid) return frame_result::ok;
    return udp_checksum_holds(addresses, out->udp) ? frame_result::ok : frame_result::bad_udp_checksum;
}

frame_result decode_ipv4(bytes packet, const frame_aux &aux, dhcp_frame *out) {
    byte_reader reader(packet);
    const std::uint8_t version_ihl = reader.u8();
    reader.take(1);  // type of service
    const std::size_t total_length = reader.u16();
    reader.take(2);  // identification
    const std::uint16_t fragment = reader.u16();
    reader.take(1);  // time to live
    const std::uint8_t protocol = reader.u8();
    reader.take(2);  // checksum
    const bytes addresses = reader.take(8);
    if (reader.failed()) return frame_result::truncated;

    const std::size_t header_length = std::size_t{4} * (version_ihl & 0x0F);
    if (version_ihl >> 4 != 4 || header_length < ip_header_min) return frame_result::truncated;
    if (total_length > packet.size() || header_length > total_length) return frame_result::truncated;
    if (!sums_to_ones(add_words(0, packet.first(header_length)))) return frame_result::bad_ip_checksum;
    if (protocol != protocol_udp) return frame_result::not_ours;
    if ((fragment & fragment_mask) != 0) return frame_result::fragment;

    out->ip_part = packet.subspan(ip_header_min - channel_ip_part_size, channel_ip_part_size);
    return decode_udp(addresses, packet.first(total_length).subspan(header_length), aux, out);
}

}  // namespace

frame_aux channel_frame_aux(const tpacket_auxdata &aux) {
    frame_aux result;
    result.tagged = (aux.tp_status & TP_STATUS_VLAN_VALID) != 0;
    if (result.tagged) result.tci = aux.tp_vlan_tci;
    if (result.tagged && (aux.tp_status & TP_STATUS_VLAN_TPID_VALID) != 0) result.tpid = aux.tp_vlan_tpid;
    result.checksum_not_ready = (aux.tp_status & TP_STATUS_CSUMNOTREADY) != 0;
    result.checksum_valid = (aux.tp_status & TP_STATUS_CSUM_VALID) != 0;
    return result;
}

frame_result channel_frame_decode(std::span<const std::uint8_t> frame, const frame_aux &aux, dhcp_frame *out) {
    byte_reader reader(frame);
    *out = {};
    out->tagged = aux.tagged;
    out->vid = aux.tagged ? aux.tci & vid_mask : 0;
    reader.take(ethernet_addresses_size);
    std::uint16_t ethertype = reader.u16();
    if (aux.tagged && aux.tpid != ethertype_vlan) return frame_result::unknown_vlan;

    if (ethertype == ethertype_vlan) {
        // A tag behind a tag belongs to no VLAN interface; behind a priority tag it is the frame's only VLAN.
        if (out->vid != 0) return frame_result::unknown_vlan;
        out->tagged = true;
        out->vid = reader.u16() & vid_mask;
        ethertype = reader.u16();
    }
    if (reader.failed()) return frame_result::truncated;
    if (ethertype == ethertype_vlan || ethertype == ethertype_provider) return frame_result::unknown_vlan;
    if (ethertype != ethertype_ipv4) return frame_result::not_ours;
    return decode_ipv4(reader.rest(), aux, out);
}

std::uint16_t channel_frame_vlan(std::span<const std::uint8_t> frame, const frame_aux &aux) {
    constexpr std::uint16_t no_vlan = 4095;
    byte_reader reader(frame);
    reader.take(ethernet_addresses_size);
    if (aux.tagged && aux.tpid != ethertype_vlan) return no_vlan;
    const std::uint16_t outer = aux.tagged ? aux.tci & vid_mask : 0;
    if (reader.u16() != ethertype_vlan) return outer;
    return outer != 0 ? no_vlan : reader.u16() & vid_mask;
}

std::size_t channel_frame_copy(const dhcp_frame &frame, void *buffer, std::size_t size) {
    auto *to = static_cast<std::uint8_t *>(buffer);
    const std::size_t from_ip = std::min(size, frame.ip_part.size());
    const std::size_t from_udp = std::min(size - from_ip, frame.udp.size());
    if (from_ip != 0) std::memcpy(to, frame.ip_part.data(), from_ip);
    if (from_udp != 0) std::memcpy(to + from_ip, frame.udp.data(), from_udp);
    return frame.ip_part.size() + frame.udp.size();
}

}  // namespace ravo::platform

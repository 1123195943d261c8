// SPDX-License-Identifier: Apache-2.0
// A frame goes down a ladder of checks: Ethernet and VLAN tag, IPv4 header, UDP header. Each step either takes its
// bytes from the front of what is left or gives the one reason why the frame is dropped. The lengths in the headers are
// believed only after they were held against the bytes that arrived: the frame may be longer than the IPv4 packet
// (Ethernet pads to 60 bytes), and the packet longer than the datagram, never the other way round.
//
// The kernel has usually taken the VLAN tag out of the frame and hands it over separately. A frame can still hold a
// tag: behind the one that was taken out, or when a device driver hands the frame up as it was.

#include "channel/channel_frame.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>
#include <utility>

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

// A word as the machine holds it.
template <typename Word>
inline std::uint64_t word_at(const std::uint8_t *from) {
    Word word;
    std::memcpy(&word, from, sizeof word);
    return word;
}

// A carry out of 64 bits counts as 1.
inline std::uint64_t plus(std::uint64_t sum, std::uint64_t word) {
    const bool carry = __builtin_add_overflow(sum, word, &sum);
    return sum + (carry ? 1 : 0);
}

// RFC 1071: a ones' complement sum may be built in any word size and byte order and folded at the end. The bytes must
// start at an even place of what is summed.
std::uint64_t add_words(std::uint64_t sum, bytes of) {
    const std::uint8_t *at = of.data();
    std::size_t left = of.size();
    std::uint64_t other = 0;  // two sums do not wait for each other
    for (; left >= 32; at += 32, left -= 32) {
        sum = plus(sum, word_at<std::uint64_t>(at));
        other = plus(other, word_at<std::uint64_t>(at + 8));
        sum = plus(sum, word_at<std::uint64_t>(at + 16));
        other = plus(other, word_at<std::uint64_t>(at + 24));
    }
    for (; left >= 8; at += 8, left -= 8) sum = plus(sum, word_at<std::uint64_t>(at));
    if ((left & 4) != 0) other = plus(other, word_at<std::uint32_t>(std::exchange(at, at + 4)));
    if ((left & 2) != 0) other = plus(other, word_at<std::uint16_t>(std::exchange(at, at + 2)));
    const std::uint8_t last[2] = {(left & 1) != 0 ? *at : std::uint8_t{0}, 0};  // a zero follows an odd one
    return plus(plus(sum, word_at<std::uint16_t>(last)), other);
}

bool sums_to_ones(std::uint64_t sum) {
    sum = (sum & 0xFFFFFFFF) + (sum >> 32);  // 33 bits
    sum = (sum & 0xFFFF) + (sum >> 16);      // 18 bits
    sum = (sum & 0xFFFF) + (sum >> 16);      // 17 bits
    return (sum & 0xFFFF) + (sum >> 16) == 0xFFFF;
}

// RFC 768: over a pseudo header of both addresses, protocol and length, then the datagram.
bool udp_checksum_holds(std::uint64_t addresses, bytes datagram) {
    const std::uint64_t rest = htons(protocol_udp) + std::uint64_t{htons(static_cast<std::uint16_t>(datagram.size()))};
    return sums_to_ones(add_words(plus(addresses, rest), datagram));
}

std::uint16_t u16_at(bytes of, std::size_t at) {
    return static_cast<std::uint16_t>(of.data()[at] << 8 | of.data()[at + 1]);
}

// addresses: both, in the order of the IPv4 header.
frame_result decode_udp(std::uint64_t addresses, bytes payload, const frame_aux &aux, dhcp_frame *out) {
    constexpr std::size_t destination_at = 2, length_at = 4, checksum_at = 6;  // RFC 768
    if (payload.size() < channel_udp_header_size) return frame_result::truncated;
    if (u16_at(payload, destination_at) != dhcp_server_port) return frame_result::not_ours;
    const std::size_t length = u16_at(payload, length_at);
    if (length < channel_udp_header_size || length > payload.size()) return frame_result::truncated;

    out->udp = payload.first(length);
    // RFC 768: a checksum of zero means that the sender made none.
    const bool unchecked = u16_at(payload, checksum_at) == 0 || aux.checksum_not_ready || aux.checksum_valid;
    return unchecked || udp_checksum_holds(addresses, out->udp) ? frame_result::ok : frame_result::bad_udp_checksum;
}

frame_result decode_ipv4(bytes packet, const frame_aux &aux, dhcp_frame *out) {
    constexpr std::size_t length_at = 2, fragment_at = 6, protocol_at = 9;  // RFC 791 section 3.1
    constexpr std::size_t addresses_at = 12;
    if (packet.size() < ip_header_min) return frame_result::truncated;
    const std::uint8_t version_ihl = packet.front();
    const std::size_t total_length = u16_at(packet, length_at);
    const std::size_t header_length = std::size_t{4} * (version_ihl & 0x0F);
    if (version_ihl >> 4 != 4 || header_length < ip_header_min) return frame_result::truncated;
    if (total_length > packet.size() || header_length > total_length) return frame_result::truncated;
    if (!sums_to_ones(add_words(0, packet.first(header_length)))) return frame_result::bad_ip_checksum;
    if (packet.data()[protocol_at] != protocol_udp) return frame_result::not_ours;
    if ((u16_at(packet, fragment_at) & fragment_mask) != 0) return frame_result::fragment;

    out->ip_part = packet.subspan(ip_header_min - channel_ip_part_size, channel_ip_part_size);
    const bytes payload = packet.first(total_length).subspan(header_length);
    return decode_udp(word_at<std::uint64_t>(packet.data() + addresses_at), payload, aux, out);
}

}  // namespace

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
    if (from_ip == channel_ip_part_size) [[likely]]
        std::copy_n(frame.ip_part.data(), channel_ip_part_size, to);
    else if (from_ip != 0)
        std::memcpy(to, frame.ip_part.data(), from_ip);
    if (from_udp != 0) std::memcpy(to + from_ip, frame.udp.data(), from_udp);
    return frame.ip_part.size() + frame.udp.size();
}

}  // namespace ravo::platform

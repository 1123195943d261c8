// SPDX-License-Identifier: Apache-2.0
// Surface: one frame as a packet socket hands it to the layer-2 channel, with the kernel's word on its tag and
// checksum. The input's first five bytes are that word (bits, tag protocol, tag), the rest is the frame.
//
// Contract: whatever the bytes, nothing outside them is read. What is delivered is part of the frame: the IPv4 header's
// bytes as they stand, then as many bytes as the UDP length says, which are within the IPv4 packet, whose checksum
// holds. A frame is judged by its packet alone: with padding behind it the result is the same, without its last byte it
// is dropped.

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <span>
#include <vector>

#include "channel/channel_frame.h"

namespace {

using ravo::platform::channel_frame_copy;
using ravo::platform::channel_frame_decode;
using ravo::platform::channel_headers_size;
using ravo::platform::dhcp_frame;
using ravo::platform::frame_aux;
using ravo::platform::frame_result;

void require(bool condition) {
    if (!condition) std::abort();
}

unsigned half(const std::uint8_t *at) {
    return static_cast<unsigned>(at[0] << 8 | at[1]);
}

frame_aux read_aux(const std::uint8_t *data) {
    frame_aux aux;
    aux.tagged = (data[0] & 1) != 0;
    aux.checksum_not_ready = (data[0] & 2) != 0;
    aux.checksum_valid = (data[0] & 4) != 0;
    if ((data[0] & 8) == 0) aux.tpid = static_cast<std::uint16_t>(half(data + 1));
    aux.tci = static_cast<std::uint16_t>(half(data + 3));
    return aux;
}

void mend_ip_checksum(std::span<std::uint8_t> frame) {
    const std::size_t at = frame.size() > 18 && half(&frame[12]) == 0x8100 ? 18 : 14;
    const std::size_t length = at < frame.size() ? std::size_t{4} * (frame[at] & 15) : 0;
    if (length < 20 || at + length > frame.size()) return;
    std::uint8_t *ip = &frame[at];
    ip[10] = ip[11] = 0;
    std::uint32_t sum = 0;
    for (std::size_t i = 0; i < length; i += 2) sum += half(ip + i);
    sum = 0xFFFF - sum % 0xFFFF;
    ip[10] = static_cast<std::uint8_t>(sum >> 8);
    ip[11] = static_cast<std::uint8_t>(sum);
}

// Checks what a good frame's parts promise.
void check_parts(std::span<const std::uint8_t> frame, const dhcp_frame &parts) {
    const std::uint8_t *ip = parts.ip_part.data() - 4;
    require(parts.ip_part.size() == 16);
    require(ip >= frame.data() + 14);
    require(half(parts.udp.data() + 4) == parts.udp.size());
    require(half(parts.udp.data() + 2) == 67);
    require(parts.udp.data() == ip + 4 * (ip[0] & 15));
    const std::uint8_t *packet_end = ip + half(ip + 2);
    require(packet_end <= frame.data() + frame.size());
    require(parts.udp.data() + parts.udp.size() <= packet_end);
    std::uint32_t sum = 0;
    for (const std::uint8_t *at = ip; at < parts.udp.data(); at += 2) sum += half(at);
    require(sum % 0xFFFF == 0);
    require(parts.vid <= 4095);
}

frame_result decode_exact(std::span<const std::uint8_t> frame, const frame_aux &aux) {
    const auto exact = std::make_unique<std::uint8_t[]>(frame.size());
    std::copy(frame.begin(), frame.end(), exact.get());
    dhcp_frame parts;
    return channel_frame_decode({exact.get(), frame.size()}, aux, &parts);
}

void check_ends(std::span<const std::uint8_t> frame, const frame_aux &aux, const dhcp_frame &parts) {
    std::vector<std::uint8_t> padded(frame.begin(), frame.end());
    padded.insert(padded.end(), 18, 0xEE);
    require(decode_exact(padded, aux) == frame_result::ok);
    const std::uint8_t *ip = parts.ip_part.data() - 4;
    const auto packet_end = static_cast<std::size_t>(ip + half(ip + 2) - frame.data());
    require(decode_exact(frame.first(packet_end), aux) == frame_result::ok);
    require(decode_exact(frame.first(packet_end - 1), aux) == frame_result::truncated);
}

void check_copy(const dhcp_frame &parts, std::size_t size) {
    const auto buffer = std::make_unique<std::uint8_t[]>(size);
    const std::size_t whole = channel_frame_copy(parts, buffer.get(), size);
    require(whole == 16 + parts.udp.size() && whole >= channel_headers_size);
    for (std::size_t i = 0; i < size && i < whole; ++i) {
        require(buffer[i] == (i < 16 ? parts.ip_part[i] : parts.udp[i - 16]));
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    if (size < 5) return 0;
    const frame_aux aux = read_aux(data);
    const auto exact = std::make_unique<std::uint8_t[]>(size - 5);
    std::memcpy(exact.get(), data + 5, size - 5);
    if ((data[0] & 16) != 0) mend_ip_checksum({exact.get(), size - 5});
    const std::span<const std::uint8_t> frame(exact.get(), size - 5);
    dhcp_frame parts;
    if (channel_frame_decode(frame, aux, &parts) != frame_result::ok) return 0;
    check_parts(frame, parts);
    check_ends(frame, aux, parts);
    for (const std::size_t room :
         {std::size_t{0}, std::size_t{15}, std::size_t{16}, std::size_t{17}, std::size_t{1024}}) {
        check_copy(parts, room);
    }
    return 0;
}

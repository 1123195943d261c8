// SPDX-License-Identifier: Apache-2.0
// Checksums of the frames that the relay builds itself.
#include "checksum.h"

#include <arpa/inet.h>

#include <cstring>

namespace {

constexpr std::size_t ip_header_size = 20;  // never from the header's own length field
constexpr std::size_t pseudo_header_size = 12;
constexpr std::size_t udp_header_size = 8;

// Adds what stands above 16 bits to what stands below until there is nothing above.
std::uint16_t folded(std::uint64_t sum) {
    while (sum >> 16 != 0) sum = (sum & 0xFFFF) + (sum >> 16);
    return static_cast<std::uint16_t>(sum);
}

}  // namespace

// The sum does not depend on the order of bytes but for that of its result (RFC 1071 section 2), so words are added as
// the machine holds them, 8 bytes at a time; a carry out of 64 bits counts as 1, as one out of 16 bits does.
std::uint16_t checksumAdd(const void *data, std::size_t length, std::uint32_t initial) {
    const auto *bytes = static_cast<const std::uint8_t *>(data);
    std::uint64_t sum = 0;
    const auto add = [&sum](const std::uint8_t *from, std::size_t size) {
        std::uint64_t word = 0;  // an odd last byte is followed by a zero
        std::memcpy(&word, from, size);
        sum += word;
        sum += sum < word ? 1 : 0;
    };
    for (; length >= 32; bytes += 32, length -= 32) {
        add(bytes, 8);
        add(bytes + 8, 8);
        add(bytes + 16, 8);
        add(bytes + 24, 8);
    }
    for (; length >= 8; bytes += 8, length -= 8) add(bytes, 8);
    if (length > 0) add(bytes, length);
    return folded(std::uint64_t{htons(folded(sum))} + initial);
}

void ipChecksum(std::uint8_t *ip_header) {
    store16(ip_header + 10, 0);
    store16(ip_header + 10, static_cast<std::uint16_t>(~checksumAdd(ip_header, ip_header_size, 0)));
}

void udpChecksum(std::uint8_t *udp_header, const std::uint8_t *ip_header, const std::uint8_t *payload) {
    // RFC 768: source, destination, zero, protocol, UDP length, and the UDP header behind them.
    std::uint8_t headers[pseudo_header_size + udp_header_size];
    store16(udp_header + 6, 0);
    std::memcpy(headers, ip_header + 12, 8);
    headers[8] = 0;
    headers[9] = ip_header[9];
    std::memcpy(headers + 10, udp_header + 4, 2);
    std::memcpy(headers + pseudo_header_size, udp_header, udp_header_size);
    const std::uint16_t sum = checksumAdd(headers, sizeof headers, 0);
    const std::uint16_t whole = checksumAdd(payload, load16(udp_header + 4) - udp_header_size, sum);
    // deliberate: a checksum of 0x0000 is sent as it is, not as 0xFFFF.
    store16(udp_header + 6, static_cast<std::uint16_t>(~whole));
}

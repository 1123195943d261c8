// SPDX-License-Identifier: Apache-2.0
// Checksums of the frames that the relay builds itself.
#include "checksum.h"

#include <arpa/inet.h>

#include <cstring>

namespace {

constexpr std::size_t ip_header_size = 20;  // never from the header's own length field
constexpr std::size_t udp_header_size = 8;

// Adds what is above 16 bits to what is below until there is nothing above.
inline std::uint16_t folded(std::uint64_t sum) {
    sum = (sum & 0xFFFFFFFF) + (sum >> 32);  // 33 bits
    sum = (sum & 0xFFFF) + (sum >> 16);      // 18 bits
    sum = (sum & 0xFFFF) + (sum >> 16);      // 17 bits
    sum = (sum & 0xFFFF) + (sum >> 16);
    return static_cast<std::uint16_t>(sum);
}

// A word as the machine holds it. A carry out of 64 bits counts as 1, as one out of 16 bits does.
template <typename Word>
inline void add(std::uint64_t *sum, const std::uint8_t *bytes) {
    Word word;
    std::memcpy(&word, bytes, sizeof word);
    *sum += word;
    *sum += *sum < word ? 1 : 0;
}

// The sum does not depend on the order of bytes but for that of its result (RFC 1071 section 2), so words are added as
// the machine holds them, 8 bytes at a time, and what is left in ever smaller ones.
inline std::uint64_t sum_of(const std::uint8_t *bytes, std::size_t length, std::uint64_t sum) {
    std::uint64_t other = 0;  // two sums do not wait for each other
    for (; length >= 32; bytes += 32, length -= 32) {
        add<std::uint64_t>(&sum, bytes);
        add<std::uint64_t>(&other, bytes + 8);
        add<std::uint64_t>(&sum, bytes + 16);
        add<std::uint64_t>(&other, bytes + 24);
    }
    for (; length >= 8; bytes += 8, length -= 8) add<std::uint64_t>(&sum, bytes);
    for (; length >= 2; bytes += 2, length -= 2) add<std::uint16_t>(&sum, bytes);
    const std::uint8_t last[2] = {length != 0 ? *bytes : std::uint8_t{0}, 0};  // a zero follows an odd one
    add<std::uint16_t>(&sum, last);
    add<std::uint64_t>(&sum, reinterpret_cast<const std::uint8_t *>(&other));
    return sum;
}

}  // namespace

std::uint16_t checksumAdd(const void *data, std::size_t length, std::uint32_t initial) {
    const std::uint64_t sum = sum_of(static_cast<const std::uint8_t *>(data), length, 0);
    return folded(std::uint64_t{htons(folded(sum))} + initial);
}

void ipChecksum(std::uint8_t *ip_header) {
    store16(ip_header + 10, 0);
    const auto sum = static_cast<std::uint16_t>(~folded(sum_of(ip_header, ip_header_size, 0)));
    std::memcpy(ip_header + 10, &sum, sizeof sum);
}

void udpChecksum(std::uint8_t *udp_header, const std::uint8_t *ip_header, const std::uint8_t *payload) {
    store16(udp_header + 6, 0);
    // RFC 768: source, destination, zero, protocol, UDP length; the UDP header and the data behind them.
    std::uint64_t sum = htons(ip_header[9]);
    add<std::uint64_t>(&sum, ip_header + 12);
    add<std::uint16_t>(&sum, udp_header + 4);
    add<std::uint64_t>(&sum, udp_header);
    sum = sum_of(payload, load16(udp_header + 4) - udp_header_size, sum);
    // deliberate: a checksum of 0x0000 is sent as it is, not as 0xFFFF.
    const auto whole = static_cast<std::uint16_t>(~folded(sum));
    std::memcpy(udp_header + 6, &whole, sizeof whole);
}

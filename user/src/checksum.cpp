// SPDX-License-Identifier: Apache-2.0
// Checksums of the frames that the relay builds itself.
#include "checksum.h"

#include <arpa/inet.h>

#include <cstring>

namespace {

constexpr std::size_t ip_header_size = 20;  // never from the header's own length field
constexpr std::size_t udp_header_size = 8;

// A sum of words as the machine holds them. What is carried out of 64 bits counts as 1, as what is carried out of 16
// bits does; it is kept apart, so that no word waits for the carry of the one before.
struct words_sum {
    std::uint64_t low = 0;
    std::uint64_t carried = 0;
};

template <typename Word>
inline void add(words_sum &sum, const std::uint8_t *bytes) {
    Word word;
    std::memcpy(&word, bytes, sizeof word);
    sum.low += word;
    sum.carried += sum.low < word ? 1 : 0;
}

// The sum does not depend on the order of bytes but for that of its result (RFC 1071 section 2), so words are added as
// the machine holds them, 8 bytes at a time, and what is left in ever smaller ones.
inline void add_all(words_sum &sum, const std::uint8_t *bytes, std::size_t length) {
    for (; length >= 32; bytes += 32, length -= 32) {
        add<std::uint64_t>(sum, bytes);
        add<std::uint64_t>(sum, bytes + 8);
        add<std::uint64_t>(sum, bytes + 16);
        add<std::uint64_t>(sum, bytes + 24);
    }
    for (; length >= 8; bytes += 8, length -= 8) add<std::uint64_t>(sum, bytes);
    for (; length >= 2; bytes += 2, length -= 2) add<std::uint16_t>(sum, bytes);
    const std::uint8_t last[2] = {length != 0 ? *bytes : std::uint8_t{0}, 0};  // a zero follows an odd one
    add<std::uint16_t>(sum, last);
}

// Adds what is above 16 bits to what is below until there is nothing above.
inline std::uint16_t folded(std::uint64_t sum) {
    sum = (sum & 0xFFFFFFFF) + (sum >> 32);  // 33 bits
    sum = (sum & 0xFFFF) + (sum >> 16);      // 18 bits
    sum = (sum & 0xFFFF) + (sum >> 16);      // 17 bits
    sum = (sum & 0xFFFF) + (sum >> 16);
    return static_cast<std::uint16_t>(sum);
}

inline std::uint16_t folded(const words_sum &sum) {
    return folded(sum.carried + folded(sum.low));
}

}  // namespace

std::uint16_t checksumAdd(const void *data, std::size_t length, std::uint32_t initial) {
    words_sum sum;
    add_all(sum, static_cast<const std::uint8_t *>(data), length);
    return folded(std::uint64_t{htons(folded(sum))} + initial);
}

void ipChecksum(std::uint8_t *ip_header) {
    store16(ip_header + 10, 0);
    words_sum sum;
    add_all(sum, ip_header, ip_header_size);
    const auto whole = static_cast<std::uint16_t>(~folded(sum));
    std::memcpy(ip_header + 10, &whole, sizeof whole);
}

void udpChecksum(std::uint8_t *udp_header, const std::uint8_t *ip_header, const std::uint8_t *payload) {
    store16(udp_header + 6, 0);
    // RFC 768: source, destination, zero, protocol, UDP length; the UDP header and the data behind them.
    words_sum sum{.low = htons(ip_header[9]), .carried = 0};
    add<std::uint64_t>(sum, ip_header + 12);
    add<std::uint16_t>(sum, udp_header + 4);
    add<std::uint64_t>(sum, udp_header);
    add_all(sum, payload, load16(udp_header + 4) - udp_header_size);
    // deliberate: a checksum of 0x0000 is sent as it is, not as 0xFFFF.
    const auto whole = static_cast<std::uint16_t>(~folded(sum));
    std::memcpy(udp_header + 6, &whole, sizeof whole);
}

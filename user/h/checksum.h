// SPDX-License-Identifier: Apache-2.0
// Internet checksums (RFC 1071), and 16-bit numbers in network byte order.
#ifndef RAVO_CHECKSUM_H
#define RAVO_CHECKSUM_H

#include <cstddef>
#include <cstdint>

// Stores the low 16 bits of a value, high byte first.
inline void store16(std::uint8_t *at, std::size_t value) {
    at[0] = static_cast<std::uint8_t>(value >> 8);
    at[1] = static_cast<std::uint8_t>(value);
}

// Reads 16 bits, high byte first.
[[nodiscard]] inline std::size_t load16(const std::uint8_t *at) {
    return static_cast<std::size_t>(at[0]) << 8 | at[1];
}

// Ones' complement sum (RFC 1071) of length bytes as big-endian words, from an initial sum. Returns the 16-bit sum.
[[nodiscard]] std::uint16_t checksumAdd(const void *data, std::size_t length, std::uint32_t initial);
// Stores the checksum of a 20-byte IPv4 header into it.
void ipChecksum(std::uint8_t *ip_header);
// Stores the checksum of a UDP datagram into its header. payload: UDP length - 8 bytes.
void udpChecksum(std::uint8_t *udp_header, const std::uint8_t *ip_header, const std::uint8_t *payload);

#endif

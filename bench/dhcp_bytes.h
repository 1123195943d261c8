// SPDX-License-Identifier: Apache-2.0
// Bytes of DHCP messages and frames, for the load and the minimal loop. Independent of the relay's own code.
#ifndef BENCH_DHCP_BYTES_H
#define BENCH_DHCP_BYTES_H

#include <arpa/inet.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace bench {

inline constexpr std::size_t frame_header = 42;  // Ethernet, IPv4 without options, UDP
inline constexpr std::size_t options_at = 240;   // in a DHCP message

inline void put16(std::uint8_t *at, std::size_t value) {
    at[0] = static_cast<std::uint8_t>(value >> 8);
    at[1] = static_cast<std::uint8_t>(value);
}

// Adds what is summed as the machine holds it, 4 bytes at a time, which makes the same sum but for its byte order
// (RFC 1071 section 2). data: at an even place of what is summed as a whole.
inline std::uint32_t sum_words(const std::uint8_t *data, std::size_t size, std::uint32_t sum) {
    std::uint64_t native = 0;
    std::uint32_t word = 0;
    for (; size >= sizeof word; data += sizeof word, size -= sizeof word) {
        std::memcpy(&word, data, sizeof word);
        native += word;
    }
    word = 0;
    std::memcpy(&word, data, size);
    for (native += word; native >> 16 != 0;) native = (native & 0xFFFF) + (native >> 16);
    return sum + ntohs(static_cast<std::uint16_t>(native));
}

inline std::uint16_t fold(std::uint32_t sum) {
    while (sum >> 16 != 0) sum = (sum & 0xFFFF) + (sum >> 16);
    return static_cast<std::uint16_t>(~sum);
}

// What a frame header is made of; addresses in network byte order.
struct frame_fields {
    const std::uint8_t *destination_mac;
    const std::uint8_t *source_mac;
    std::uint32_t source;
    std::uint32_t destination;
    std::uint16_t source_port;
    std::uint16_t destination_port;
};

// Writes the 42 header bytes in front of a message of length bytes that stands behind them.
inline void write_frame_header(std::uint8_t *frame, const frame_fields &fields, std::size_t length) {
    std::memset(frame, 0, frame_header);
    std::memcpy(frame, fields.destination_mac, 6);
    std::memcpy(frame + 6, fields.source_mac, 6);
    put16(frame + 12, 0x0800);
    std::uint8_t *ip = frame + 14;
    ip[0] = 0x45;
    put16(ip + 2, 28 + length);
    put16(ip + 6, 0x4000);
    ip[8] = 64;
    ip[9] = 17;
    std::memcpy(ip + 12, &fields.source, 4);
    std::memcpy(ip + 16, &fields.destination, 4);
    put16(ip + 10, fold(sum_words(ip, 20, 0)));
    std::uint8_t *udp = frame + 34;
    put16(udp, fields.source_port);
    put16(udp + 2, fields.destination_port);
    put16(udp + 4, 8 + length);
    const std::uint32_t pseudo = sum_words(ip + 12, 8, static_cast<std::uint32_t>(17 + 8 + length));
    const std::uint16_t checksum = fold(sum_words(udp, 8 + length, pseudo));
    put16(udp + 6, checksum == 0 ? 0xFFFF : checksum);
}

}  // namespace bench

#endif

// Checksums of the frames that the relay builds itself.
#include "checksum.h"

#include <cstring>

namespace {

constexpr std::size_t ip_header_size = 20;  // never from the header's own length field
constexpr std::size_t udp_header_size = 8;

}  // namespace

std::uint16_t checksumAdd(const void *data, std::size_t length, std::uint32_t initial) {
    const auto *bytes = static_cast<const std::uint8_t *>(data);
    std::uint64_t sum = initial;
    for (std::size_t at = 0; at + 1 < length; at += 2) sum += load16(bytes + at);
    if (length % 2 == 1) sum += static_cast<std::uint64_t>(bytes[length - 1]) << 8;
    while (sum >> 16 != 0) sum = (sum & 0xFFFF) + (sum >> 16);
    return static_cast<std::uint16_t>(sum);
}

void ipChecksum(std::uint8_t *ip_header) {
    store16(ip_header + 10, 0);
    store16(ip_header + 10, static_cast<std::uint16_t>(~checksumAdd(ip_header, ip_header_size, 0)));
}

void udpChecksum(std::uint8_t *udp_header, const std::uint8_t *ip_header, const std::uint8_t *payload) {
    std::uint8_t pseudo[12];  // RFC 768: source, destination, zero, protocol, UDP length
    std::memcpy(pseudo, ip_header + 12, 8);
    pseudo[8] = 0;
    pseudo[9] = ip_header[9];
    std::memcpy(pseudo + 10, udp_header + 4, 2);
    store16(udp_header + 6, 0);
    std::uint16_t sum = checksumAdd(pseudo, sizeof pseudo, 0);
    sum = checksumAdd(udp_header, udp_header_size, sum);
    sum = checksumAdd(payload, load16(udp_header + 4) - udp_header_size, sum);
    // deliberate: a checksum of 0x0000 is sent as it is, not as 0xFFFF.
    store16(udp_header + 6, static_cast<std::uint16_t>(~sum));
}

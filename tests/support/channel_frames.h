// SPDX-License-Identifier: Apache-2.0
// Frames for the channel's tests: built field by field, each field with a good default, so that a test names only what
// is peculiar to it. The checksums are computed here, by the book and apart from the code under test.
#ifndef TESTS_CHANNEL_FRAMES_H
#define TESTS_CHANNEL_FRAMES_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace channel_frames {

using octets = std::vector<std::uint8_t>;

inline void put16(octets &to, unsigned value) {
    to.push_back(static_cast<std::uint8_t>(value >> 8));
    to.push_back(static_cast<std::uint8_t>(value));
}

inline void put32(octets &to, std::uint32_t value) {
    put16(to, value >> 16);
    put16(to, value & 0xFFFF);
}

inline void append(octets &to, const octets &more) {
    to.insert(to.end(), more.begin(), more.end());
}

// RFC 1071, a 16-bit word at a time in network order.
inline std::uint16_t internet_checksum(const octets &of) {
    std::uint32_t sum = 0;
    for (std::size_t i = 0; i < of.size(); i += 2) {
        sum += static_cast<std::uint32_t>(of[i] << 8);
        if (i + 1 < of.size()) sum += of[i + 1];
        sum = (sum & 0xFFFF) + (sum >> 16);
    }
    return static_cast<std::uint16_t>(~sum);
}

// A recognisable message of any length.
inline octets message_of(std::size_t length, std::uint8_t start = 1) {
    octets message(length);
    for (std::size_t i = 0; i < length; ++i) message[i] = static_cast<std::uint8_t>(start + i * 7);
    return message;
}

struct frame_fields {
    octets destination = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
    octets source = {0x02, 0x00, 0x00, 0x00, 0x00, 0x0A};
    std::vector<std::uint32_t> tags = {};  // each tag protocol and tag: 0x81000064 is VLAN 100
    unsigned ethertype = 0x0800;
    unsigned version = 4;
    octets ip_options = {};            // a multiple of 4 bytes
    std::optional<unsigned> ihl = {};  // words
    std::optional<unsigned> total_length = {};
    unsigned identification = 0x1234;
    unsigned fragment = 0x4000;  // flags and offset
    unsigned ttl = 64;
    unsigned protocol = 17;
    std::optional<unsigned> ip_checksum = {};
    std::uint32_t source_ip = 0;
    std::uint32_t destination_ip = 0xFFFFFFFF;
    unsigned source_port = 68;
    unsigned destination_port = 67;
    std::optional<unsigned> udp_length = {};
    std::optional<unsigned> udp_checksum = {};
    octets message = message_of(300);
    std::size_t padding = 0;  // bytes behind the IPv4 packet
};

inline octets ip_header(const frame_fields &f) {
    const unsigned words = 5 + static_cast<unsigned>(f.ip_options.size() / 4);
    const std::size_t total = words * 4 + 8 + f.message.size();
    octets header;
    header.push_back(static_cast<std::uint8_t>(f.version << 4 | f.ihl.value_or(words)));
    header.push_back(0);
    put16(header, f.total_length.value_or(static_cast<unsigned>(total)));
    put16(header, f.identification);
    put16(header, f.fragment);
    header.push_back(static_cast<std::uint8_t>(f.ttl));
    header.push_back(static_cast<std::uint8_t>(f.protocol));
    put16(header, 0);
    put32(header, f.source_ip);
    put32(header, f.destination_ip);
    append(header, f.ip_options);
    const unsigned checksum = f.ip_checksum.value_or(internet_checksum(header));
    header[10] = static_cast<std::uint8_t>(checksum >> 8);
    header[11] = static_cast<std::uint8_t>(checksum);
    return header;
}

inline octets udp_datagram(const frame_fields &f) {
    octets datagram;
    put16(datagram, f.source_port);
    put16(datagram, f.destination_port);
    put16(datagram, f.udp_length.value_or(static_cast<unsigned>(8 + f.message.size())));
    put16(datagram, 0);
    append(datagram, f.message);
    octets summed;
    put32(summed, f.source_ip);
    put32(summed, f.destination_ip);
    put16(summed, 17);
    put16(summed, static_cast<unsigned>(datagram.size()));
    append(summed, datagram);
    unsigned checksum = internet_checksum(summed);
    if (checksum == 0) checksum = 0xFFFF;  // RFC 768: zero would mean "none"
    checksum = f.udp_checksum.value_or(checksum);
    datagram[6] = static_cast<std::uint8_t>(checksum >> 8);
    datagram[7] = static_cast<std::uint8_t>(checksum);
    return datagram;
}

inline octets frame_of(const frame_fields &f) {
    octets frame = f.destination;
    append(frame, f.source);
    for (const std::uint32_t tag : f.tags) put32(frame, tag);
    put16(frame, f.ethertype);
    append(frame, ip_header(f));
    append(frame, udp_datagram(f));
    frame.insert(frame.end(), f.padding, 0xEE);
    return frame;
}

// What the channel delivers for the frame: the IPv4 header from its fifth byte to its twentieth, UDP header, message.
inline octets delivery_of(const frame_fields &f) {
    const octets header = ip_header(f);
    octets delivery(header.begin() + 4, header.begin() + 20);
    append(delivery, udp_datagram(f));
    return delivery;
}

inline std::string hex(const octets &of) {
    std::string text;
    for (const std::uint8_t byte : of) {
        text += "0123456789abcdef"[byte >> 4];
        text += "0123456789abcdef"[byte & 15];
        text += ' ';
    }
    return text;
}

}  // namespace channel_frames

#endif

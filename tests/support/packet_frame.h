// SPDX-License-Identifier: Apache-2.0
// Ethernet frames that the relay sends: the expected bytes, put together and summed by the tests' own code.
#ifndef PACKET_FRAME_H
#define PACKET_FRAME_H

#include <sys/socket.h>

#include <cstdint>
#include <cstring>
#include <string>

#include "fake_socket.h"
#include "packet_bytes.h"
#include "packet_message.h"

namespace packet {

inline const bytes everybody = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};

// What a frame is expected to say.
struct frame_of {
    bytes to_mac = client_mac;
    bytes from_mac = relay_mac;
    std::string from_ip = "192.0.2.1";
    std::string to_ip = "255.255.255.255";
    unsigned from_port = 67;
    unsigned to_port = 68;
    bytes payload = {};
};

// The Internet checksum (RFC 1071) as the complement of a sum modulo 65535; a sum of zero only stands for no data.
inline unsigned internet_checksum(const bytes &data) {
    std::uint64_t sum = 0;
    for (std::size_t i = 0; i < data.size(); ++i) sum += i % 2 == 0 ? data[i] * 256U : data[i];
    if (sum == 0) return 0xFFFF;
    return 0xFFFF - static_cast<unsigned>((sum - 1) % 0xFFFF + 1);
}

inline void store16(bytes &to, std::size_t at, unsigned value) {
    to[at] = static_cast<std::uint8_t>(value >> 8);
    to[at + 1] = static_cast<std::uint8_t>(value);
}

// The whole frame: 42 bytes of headers and the payload.
inline bytes encode(const frame_of &frame) {
    bytes addresses;
    put_address(addresses, frame.from_ip);
    put_address(addresses, frame.to_ip);

    bytes ip = {0x45, 0};                                             // version 4, five words; type of service
    put16(ip, static_cast<unsigned>(28 + frame.payload.size()));      // total length
    ip = join({ip, {0, 0}, {0x40, 0}, {64, 17}, {0, 0}, addresses});  // id, don't fragment, TTL, UDP, checksum
    store16(ip, 10, internet_checksum(ip));

    bytes udp;
    put16(udp, frame.from_port);
    put16(udp, frame.to_port);
    put16(udp, static_cast<unsigned>(8 + frame.payload.size()));
    put16(udp, 0);
    const bytes pseudo = join({addresses, {0, 17}, {udp[4], udp[5]}});
    store16(udp, 6, internet_checksum(join({pseudo, udp, frame.payload})));

    return join({frame.to_mac, frame.from_mac, {0x08, 0x00}, ip, udp, frame.payload});
}

inline bytes words32(std::uint32_t first, std::uint32_t second) {
    bytes data(8);
    std::memcpy(data.data(), &first, 4);
    std::memcpy(data.data() + 4, &second, 4);
    return data;
}

// Where a frame is expected to leave, and the ingress that goes along with it.
struct leaving {
    int fd = 101;  // the raw socket: the second one that the relay opens
    int ifindex = 1124;
    std::uint32_t vlan = 100;
    std::uint32_t port = 5185;
};

// Checks the send descriptor of a frame: socket, link-layer address, gather list, control message, flags.
inline void expect_descriptor(const fake::frame &sent, const leaving &where) {
    EXPECT_EQ(sent.fd, where.fd);
    EXPECT_EQ(sent.flags, 0);
    EXPECT_EQ(sent.to_length, 20U);
    sockaddr_ll to{};
    to.sll_family = 17;
    to.sll_ifindex = where.ifindex;
    EXPECT_EQ(std::memcmp(&sent.to, &to, sizeof to), 0)
        << "family " << sent.to.sll_family << ", protocol " << sent.to.sll_protocol << ", index " << sent.to.sll_ifindex
        << ", hatype " << sent.to.sll_hatype << ", pkttype " << int{sent.to.sll_pkttype} << ", halen "
        << int{sent.to.sll_halen};
    EXPECT_EQ(sent.parts, 2U);
    ASSERT_EQ(sent.controls.size(), 1U);
    EXPECT_EQ(sent.controls[0].level, 0);
    EXPECT_EQ(sent.controls[0].type, 254);
    EXPECT_EQ(sent.controls[0].length, CMSG_LEN(8));
    EXPECT_EQ(sent.control_length, CMSG_LEN(8));
    EXPECT_BYTES(words32(where.vlan, where.port), sent.controls[0].data);
}

}  // namespace packet

#endif

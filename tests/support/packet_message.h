// SPDX-License-Identifier: Apache-2.0
// DHCP messages for tests, built field by field with defaults that make a good DISCOVER, and read back by a decoder of
// the tests' own (RFC 2131 section 2, RFC 2132, RFC 3046).
#ifndef PACKET_MESSAGE_H
#define PACKET_MESSAGE_H

#include <arpa/inet.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "packet_bytes.h"

namespace packet {

inline constexpr std::uint8_t request_op = 1;
inline constexpr std::uint8_t reply_op = 2;

inline constexpr std::uint8_t discover = 1;
inline constexpr std::uint8_t offer = 2;
inline constexpr std::uint8_t request = 3;
inline constexpr std::uint8_t decline = 4;
inline constexpr std::uint8_t ack = 5;
inline constexpr std::uint8_t nak = 6;
inline constexpr std::uint8_t release = 7;
inline constexpr std::uint8_t inform = 8;

inline const bytes client_mac = {0x02, 0xc1, 0x1e, 0x00, 0x00, 0x01};
inline const bytes relay_mac = {0x00, 0x00, 0x5e, 0x00, 0x53, 0x01};

// ---- Options ----

// One option: code, length, data.
inline bytes opt(std::uint8_t code, const bytes &data) {
    return join({{code, static_cast<std::uint8_t>(data.size())}, data});
}

// An option whose length byte says something else than it has.
inline bytes lying_opt(std::uint8_t code, std::uint8_t claimed, const bytes &data) {
    return join({{code, claimed}, data});
}

inline bytes text(const std::string &value) {
    return {value.begin(), value.end()};
}
inline bytes type(std::uint8_t value) {
    return opt(53, {value});
}
inline bytes end() {
    return {255};
}
inline bytes pad(std::size_t count) {
    return bytes(count, 0);
}

// What the relay's option 82 says.
struct agent_info {
    unsigned vlan = 100;
    std::uint8_t module = 2;
    std::uint8_t port = 1;
    bytes mac = relay_mac;
};

inline bytes circuit_id(const agent_info &info) {
    const auto low = static_cast<std::uint8_t>(info.vlan);
    const auto high = static_cast<std::uint8_t>(info.vlan >> 8);
    return {1, 6, 0, 4, low, high, info.module, info.port};
}

inline bytes remote_id(const agent_info &info) {
    return join({{2, 8, 0, 6}, info.mac});
}

inline bytes option82(const agent_info &info = {}) {
    return opt(82, join({circuit_id(info), remote_id(info)}));
}

// ---- Messages ----

inline const bytes cookie = {0x63, 0x82, 0x53, 0x63};

struct message {
    std::uint8_t op = request_op;
    std::uint8_t htype = 1;
    std::uint8_t hlen = 6;
    std::uint8_t hops = 0;
    std::uint32_t xid = 0xA1B2C3D4;
    std::uint16_t secs = 0;
    std::uint16_t flags = 0;
    std::string ciaddr = "0.0.0.0";
    std::string yiaddr = "0.0.0.0";
    std::string siaddr = "0.0.0.0";
    std::string giaddr = "0.0.0.0";
    bytes chaddr = client_mac;
    std::vector<bytes> options = {type(discover), end()};
    bytes magic = cookie;
};

// A client's message of this type, with no other option.
inline message typed(std::uint8_t value) {
    message msg;
    msg.options = {type(value), end()};
    return msg;
}

inline void put16(bytes &to, unsigned value) {
    to.push_back(static_cast<std::uint8_t>(value >> 8));
    to.push_back(static_cast<std::uint8_t>(value));
}

inline void put32(bytes &to, std::uint32_t value) {
    put16(to, value >> 16);
    put16(to, value & 0xFFFF);
}

inline void put_address(bytes &to, const std::string &address) {
    in_addr in{};
    inet_pton(AF_INET, address.c_str(), &in);
    put32(to, ntohl(in.s_addr));
}

// The message as its datagram carries it.
inline bytes encode(const message &msg) {
    bytes data = {msg.op, msg.htype, msg.hlen, msg.hops};
    put32(data, msg.xid);
    put16(data, msg.secs);
    put16(data, msg.flags);
    for (const std::string &address : {msg.ciaddr, msg.yiaddr, msg.siaddr, msg.giaddr}) put_address(data, address);
    data.insert(data.end(), msg.chaddr.begin(), msg.chaddr.end());
    data.resize(236);
    data.insert(data.end(), msg.magic.begin(), msg.magic.end());
    for (const bytes &option : msg.options) data.insert(data.end(), option.begin(), option.end());
    return data;
}

// A server's answer with its defaults.
inline message reply_message(const std::vector<bytes> &options) {
    message msg;
    msg.op = reply_op;
    msg.yiaddr = "192.0.2.50";
    msg.siaddr = "198.51.100.1";
    msg.giaddr = "192.0.2.1";
    msg.options = options;
    return msg;
}

// The transaction id as the relay keeps it: the four bytes in the order of the message.
inline std::uint32_t stored_xid(const message &msg) {
    return htonl(msg.xid);
}

// ---- The tests' own decoder ----

struct decoded_option {
    std::uint8_t code;
    bytes data;

    bool operator==(const decoded_option &) const = default;
};

// The options of a message up to its end option. Empty with *whole false when the chain leaves the message.
inline std::vector<decoded_option> options_of(const bytes &msg, bool *whole = nullptr) {
    std::vector<decoded_option> result;
    if (whole != nullptr) *whole = false;
    std::size_t at = 240;
    while (at < msg.size()) {
        const std::uint8_t code = msg[at++];
        if (code == 0) continue;
        if (code == 255) {
            if (whole != nullptr) *whole = true;
            return result;
        }
        if (at >= msg.size() || at + 1 + msg[at] > msg.size()) return {};
        result.push_back({code, part_of(msg, at + 1, msg[at])});
        at += 1U + msg[at];
    }
    return {};
}

// The bytes of a message from its start through its first end option; all of it when there is none.
inline bytes up_to_end(const bytes &msg) {
    std::size_t at = 240;
    while (at < msg.size() && msg[at] != 255) at += msg[at] == 0 ? 1U : at + 1 < msg.size() ? 2U + msg[at + 1] : 2U;
    return part_of(msg, 0, at + 1);
}

// A copy with one byte changed.
inline bytes with_byte(bytes data, std::size_t at, std::uint8_t value) {
    data.at(at) = value;
    return data;
}

}  // namespace packet

#endif

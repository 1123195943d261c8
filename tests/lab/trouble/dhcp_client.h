// SPDX-License-Identifier: Apache-2.0
// What the lab's clients have in common: the messages that they send and read, and the namespaces that they are in.
#ifndef TESTS_LAB_TROUBLE_DHCP_CLIENT_H
#define TESTS_LAB_TROUBLE_DHCP_CLIENT_H

#include <fcntl.h>
#include <linux/if_ether.h>
#include <netinet/in.h>
#include <sched.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

using bytes = std::vector<std::uint8_t>;
using mac_address = std::array<std::uint8_t, 6>;

constexpr std::size_t headers = 42;  // Ethernet, IPv4, UDP
constexpr std::size_t at_xid = 4, at_yiaddr = 16, at_giaddr = 24, at_chaddr = 28, at_options = 240;
constexpr std::uint8_t discover = 1, offer = 2, request = 3, ack = 5;
constexpr std::uint8_t option_type = 53, option_server = 54, option_address = 50, option_agent = 82, option_end = 255;

// Returns whether the calling thread is in the network namespace of this path now.
inline bool enter_namespace(const char *path) {
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    const bool entered = fd >= 0 && setns(fd, CLONE_NEWNET) == 0;
    if (fd >= 0) close(fd);
    return entered;
}

inline std::size_t find_option(const std::uint8_t *message, std::size_t size, std::uint8_t code) {
    for (std::size_t at = at_options; at + 1 < size && message[at] != option_end;) {
        if (message[at] == code) return at;
        at += message[at] == 0 ? 1 : 2U + message[at + 1];
    }
    return 0;
}

inline std::uint8_t type_of(const std::uint8_t *message, std::size_t size) {
    const std::size_t at = find_option(message, size, option_type);
    return at != 0 && at + 2 < size ? message[at + 2] : std::uint8_t{0};
}

inline bytes make_message(std::uint8_t op, std::uint8_t type, std::uint32_t xid, const mac_address &mac) {
    bytes message(at_options);
    message[0] = op;
    message[1] = 1;
    message[2] = 6;
    std::memcpy(&message[at_xid], &xid, sizeof xid);
    std::memcpy(&message[at_chaddr], mac.data(), mac.size());
    const std::uint8_t cookie[] = {99, 130, 83, 99};
    std::memcpy(&message[236], cookie, sizeof cookie);
    for (const std::uint8_t byte : {option_type, std::uint8_t{1}, type}) message.push_back(byte);
    return message;
}

inline void add_option(bytes &message, std::uint8_t code, const void *value, std::uint8_t size) {
    message.push_back(code);
    message.push_back(size);
    const auto *from = static_cast<const std::uint8_t *>(value);
    message.insert(message.end(), from, from + size);
}

inline void put16(std::uint8_t *at, std::size_t value) {
    at[0] = static_cast<std::uint8_t>(value >> 8);
    at[1] = static_cast<std::uint8_t>(value);
}

inline bytes broadcast_frame(const bytes &message, const mac_address &mac) {
    bytes frame(headers + message.size());
    std::memset(frame.data(), 0xFF, 6);
    std::memcpy(&frame[6], mac.data(), 6);
    put16(&frame[12], ETH_P_IP);
    std::uint8_t *ip = &frame[14];
    ip[0] = 0x45;
    put16(ip + 2, 28 + message.size());
    ip[8] = 64;
    ip[9] = IPPROTO_UDP;
    std::memset(ip + 16, 0xFF, 4);
    std::uint32_t sum = 0;
    for (std::size_t i = 0; i < 20; i += 2) sum += static_cast<std::uint32_t>(ip[i] << 8 | ip[i + 1]);
    while (sum >> 16 != 0) sum = (sum & 0xFFFF) + (sum >> 16);
    put16(ip + 10, ~sum & 0xFFFF);
    put16(&frame[34], 68);
    put16(&frame[36], 67);
    put16(&frame[38], 8 + message.size());
    std::memcpy(&frame[headers], message.data(), message.size());
    return frame;
}

// What a server answers to a message that a relay brought: the address that is asked for next, and the relay's option
// as it came.
inline bytes make_answer(const std::uint8_t *message, std::size_t size, std::uint32_t server) {
    std::uint32_t xid;
    mac_address mac;
    std::memcpy(&xid, message + at_xid, sizeof xid);
    std::memcpy(mac.data(), message + at_chaddr, mac.size());
    bytes answer = make_message(2, type_of(message, size) == discover ? offer : ack, xid, mac);
    std::memcpy(&answer[at_giaddr], message + at_giaddr, 4);
    std::memcpy(&answer[at_yiaddr], message + at_giaddr, 3);
    answer[at_yiaddr + 3] = 99;
    add_option(answer, option_server, &server, 4);
    const std::size_t agent = find_option(message, size, option_agent);
    if (agent != 0 && agent + 2 + message[agent + 1] <= size)
        add_option(answer, option_agent, message + agent + 2, message[agent + 1]);
    answer.push_back(option_end);
    return answer;
}

// The relay that sent a message, on its server port.
inline sockaddr_in relay_of(const std::uint8_t *message) {
    sockaddr_in relay{};
    relay.sin_family = AF_INET;
    relay.sin_port = htons(67);
    std::memcpy(&relay.sin_addr, message + at_giaddr, 4);
    return relay;
}

#endif

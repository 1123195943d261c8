// SPDX-License-Identifier: Apache-2.0
// The filter is checked against every layout of a frame that it is to tell apart (channel_test.cpp); jumps are written
// with the numbers of instructions, so that the table can be read.

#include "gate/socket_filter.h"

#include <linux/filter.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <cstddef>
#include <cstdint>

namespace ravo::platform {
namespace {

// Offsets in a frame; with an inline 802.1Q tag everything behind the addresses is 4 bytes later.
constexpr std::uint32_t at_ethertype = 12;
constexpr std::uint32_t at_inner_ethertype = 16;
constexpr std::uint32_t at_ip = 14;
constexpr std::uint32_t at_tagged_ip = 18;
constexpr std::uint32_t in_ip_fragment = 6;
constexpr std::uint32_t in_ip_protocol = 9;
constexpr std::uint32_t in_udp_destination = 2;
constexpr std::uint32_t fragment_offset = 0x1FFF;  // RFC 791 section 3.1
constexpr std::uint32_t dhcp_server_port = 67;
constexpr std::uint32_t whole_frame = 0x40000;
constexpr std::uint32_t packet_direction = static_cast<std::uint32_t>(SKF_AD_OFF + SKF_AD_PKTTYPE);

constexpr sock_filter load_byte(std::uint32_t at) {
    return BPF_STMT(BPF_LD | BPF_B | BPF_ABS, at);
}
constexpr sock_filter load_word(std::uint32_t at) {
    return BPF_STMT(BPF_LD | BPF_W | BPF_ABS, at);
}
constexpr sock_filter load_half(std::uint32_t at) {
    return BPF_STMT(BPF_LD | BPF_H | BPF_ABS, at);
}
// Loads the length of the IPv4 header at this place, options included, into the index register.
constexpr sock_filter index_ip_header(std::uint32_t at) {
    return BPF_STMT(BPF_LDX | BPF_B | BPF_MSH, at);
}
constexpr sock_filter load_half_indexed(std::uint32_t at) {
    return BPF_STMT(BPF_LD | BPF_H | BPF_IND, at);
}
constexpr sock_filter accept_bytes(std::uint32_t count) {
    return BPF_STMT(BPF_RET | BPF_K, count);
}

// Jumps are written with the numbers of instructions; the kernel wants distances from the next instruction.
constexpr std::uint8_t distance(unsigned from, unsigned to) {
    return static_cast<std::uint8_t>(to - from - 1);
}
constexpr sock_filter go(unsigned here, unsigned to) {
    return BPF_STMT(BPF_JMP | BPF_JA, distance(here, to));
}
constexpr sock_filter if_equal(unsigned here, std::uint32_t value, unsigned yes, unsigned no) {
    return BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, value, distance(here, yes), distance(here, no));
}
constexpr sock_filter if_any_set(unsigned here, std::uint32_t bits, unsigned yes, unsigned no) {
    return BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, bits, distance(here, yes), distance(here, no));
}

// "IPv4, UDP, no later fragment, destination port 67", with and without an inline tag. A load beyond the frame refuses
// it. A first fragment says that it is for DHCP, so it is let through to be dropped with its reason known; the later
// ones say nothing of ports. What the box sends itself is refused: sockets that share frames (fan_out.h) get that too.
constexpr unsigned untagged = 12;
constexpr unsigned port = 18;
constexpr unsigned yes = 21;
constexpr unsigned no = 22;
constexpr std::array dhcp_filter{
    /*  0 */ load_half(at_ethertype),
    /*  1 */ if_equal(1, ETH_P_IP, untagged, 2),
    /*  2 */ if_equal(2, ETH_P_8021Q, 3, no),
    /*  3 */ load_half(at_inner_ethertype),
    /*  4 */ if_equal(4, ETH_P_IP, 5, no),
    /*  5 */ load_byte(at_tagged_ip + in_ip_protocol),
    /*  6 */ if_equal(6, IPPROTO_UDP, 7, no),
    /*  7 */ load_half(at_tagged_ip + in_ip_fragment),
    /*  8 */ if_any_set(8, fragment_offset, no, 9),
    /*  9 */ index_ip_header(at_tagged_ip),
    /* 10 */ load_half_indexed(at_tagged_ip + in_udp_destination),
    /* 11 */ go(11, port),
    /* 12 */ load_byte(at_ip + in_ip_protocol),
    /* 13 */ if_equal(13, IPPROTO_UDP, 14, no),
    /* 14 */ load_half(at_ip + in_ip_fragment),
    /* 15 */ if_any_set(15, fragment_offset, no, 16),
    /* 16 */ index_ip_header(at_ip),
    /* 17 */ load_half_indexed(at_ip + in_udp_destination),
    /* 18 */ if_equal(port, dhcp_server_port, 19, no),
    /* 19 */ load_word(packet_direction),
    /* 20 */ if_equal(20, PACKET_OUTGOING, no, yes),
    /* 21 */ accept_bytes(whole_frame),
    /* 22 */ accept_bytes(0),
};
static_assert(dhcp_filter.size() == no + 1);

constexpr std::array refuse_filter{accept_bytes(0)};

template <std::size_t Size>
int attach_filter(int fd, const std::array<sock_filter, Size> &instructions) {
    std::array<sock_filter, Size> program = instructions;
    const sock_fprog filter{.len = Size, .filter = program.data()};
    return ::setsockopt(fd, SOL_SOCKET, SO_ATTACH_FILTER, &filter, sizeof filter);
}

}  // namespace

int socket_take_dhcp(int fd) {
    return attach_filter(fd, dhcp_filter);
}

int socket_refuse_all(int fd) {
    return attach_filter(fd, refuse_filter);
}

}  // namespace ravo::platform

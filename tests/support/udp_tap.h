// SPDX-License-Identifier: Apache-2.0
// A packet socket for programs that play clients or a relay. Independent of the relay's own code.
#ifndef TESTS_SUPPORT_UDP_TAP_H
#define TESTS_SUPPORT_UDP_TAP_H

#include <arpa/inet.h>
#include <linux/filter.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

struct udp_tap {
    std::uint16_t port;                  // UDP destination port of what it hears
    std::uint16_t protocol = ETH_P_ALL;  // host byte order
    int device = 0;                      // 0: all devices
    int flags = 0;                       // of the socket's type
};

// Opens a packet socket that hears the IPv4 frames without IP options that come in for one UDP port, and nothing that
// goes out. Returns -1 and errno when it cannot.
inline int open_udp_tap(const udp_tap &what) {
    sock_filter code[] = {
        BPF_STMT(BPF_LD | BPF_H | BPF_ABS, 12), BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, ETH_P_IP, 0, 5),
        BPF_STMT(BPF_LD | BPF_B | BPF_ABS, 23), BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, IPPROTO_UDP, 0, 3),
        BPF_STMT(BPF_LD | BPF_H | BPF_ABS, 36), BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, what.port, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, 0xFFFF),      BPF_STMT(BPF_RET | BPF_K, 0),
    };
    const sock_fprog filter{sizeof code / sizeof *code, code};
    const int on = 1;
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(what.protocol);
    address.sll_ifindex = what.device;
    const int fd = socket(AF_PACKET, SOCK_RAW | what.flags, 0);
    if (fd < 0) return -1;
    if (setsockopt(fd, SOL_SOCKET, SO_ATTACH_FILTER, &filter, sizeof filter) == 0 &&
        setsockopt(fd, SOL_PACKET, PACKET_IGNORE_OUTGOING, &on, sizeof on) == 0 &&
        bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0)
        return fd;
    const int reason = errno;
    close(fd);
    errno = reason;
    return -1;
}

#endif

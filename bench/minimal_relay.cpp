// SPDX-License-Identifier: Apache-2.0
// The least a relay can do, as a yardstick: one packet-socket receive, a new relay address and hop count, one sendto;
// for the reply one receive and one frame. No checks, no option 82, no configuration.
//
//   minimal_relay CLIENT_PORT VLAN_DEVICE UPLINK_PORT GIADDR SERVER
#include <arpa/inet.h>
#include <linux/filter.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "dhcp_bytes.h"

namespace {

[[noreturn]] void fail(const char *what) {
    std::perror(what);
    std::exit(1);
}

// IPv4 without options, UDP, destination port 67.
int open_tap(const char *device) {
    static sock_filter code[] = {
        BPF_STMT(BPF_LD | BPF_H | BPF_ABS, 12), BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, ETH_P_IP, 0, 5),
        BPF_STMT(BPF_LD | BPF_B | BPF_ABS, 23), BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, IPPROTO_UDP, 0, 3),
        BPF_STMT(BPF_LD | BPF_H | BPF_ABS, 36), BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, 67, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, 0xFFFF),      BPF_STMT(BPF_RET | BPF_K, 0),
    };
    const sock_fprog filter{sizeof code / sizeof *code, code};
    const int fd = socket(AF_PACKET, SOCK_RAW, 0);
    const int on = 1;
    const int room = 4 << 20;
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(ETH_P_ALL);
    address.sll_ifindex = static_cast<int>(if_nametoindex(device));
    if (fd < 0 || setsockopt(fd, SOL_SOCKET, SO_ATTACH_FILTER, &filter, sizeof filter) != 0 ||
        setsockopt(fd, SOL_PACKET, PACKET_IGNORE_OUTGOING, &on, sizeof on) != 0 ||
        setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &room, sizeof room) != 0 ||
        bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
        fail(device);
    return fd;
}

int open_udp(std::uint16_t port) {
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    static sock_filter nothing[] = {BPF_STMT(BPF_RET | BPF_K, 0)};
    const sock_fprog filter{1, nothing};
    if (fd < 0 || setsockopt(fd, SOL_SOCKET, SO_ATTACH_FILTER, &filter, sizeof filter) != 0 ||
        bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
        fail("UDP socket");
    return fd;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc != 6) {
        std::fprintf(stderr, "usage: %s CLIENT_PORT VLAN_DEVICE UPLINK_PORT GIADDR SERVER\n", argv[0]);
        return 2;
    }
    const int clients = open_tap(argv[1]);
    const int uplink = open_tap(argv[3]);
    const int udp = open_udp(68);
    open_udp(67);  // so that the kernel answers nobody with "port unreachable"
    ifreq request{};
    std::strncpy(request.ifr_name, argv[2], IFNAMSIZ - 1);
    if (ioctl(udp, SIOCGIFHWADDR, &request) != 0) fail(argv[2]);
    std::uint8_t mac[6];
    std::memcpy(mac, request.ifr_hwaddr.sa_data, 6);
    const std::uint32_t giaddr = inet_addr(argv[4]);
    sockaddr_in server{};
    server.sin_family = AF_INET;
    server.sin_port = htons(67);
    server.sin_addr.s_addr = inet_addr(argv[5]);
    sockaddr_ll vlan{};
    vlan.sll_family = AF_PACKET;
    vlan.sll_ifindex = static_cast<int>(if_nametoindex(argv[2]));

    static std::uint8_t frame[2048];
    pollfd ready[2] = {{clients, POLLIN, 0}, {uplink, POLLIN, 0}};
    std::uint8_t *message = frame + bench::frame_header;
    while (poll(ready, 2, -1) >= 0 || errno == EINTR) {
        if ((ready[0].revents & POLLIN) != 0) {
            const ssize_t n = recv(clients, frame, sizeof frame, 0);
            if (n > static_cast<ssize_t>(bench::frame_header + bench::options_at)) {
                ++message[3];
                std::memcpy(message + 24, &giaddr, 4);
                sendto(udp, message, static_cast<std::size_t>(n) - bench::frame_header, 0,
                       reinterpret_cast<const sockaddr *>(&server), sizeof server);
            }
        }
        if ((ready[1].revents & POLLIN) != 0) {
            const ssize_t n = recv(uplink, frame, sizeof frame, 0);
            if (n > static_cast<ssize_t>(bench::frame_header + bench::options_at)) {
                std::uint8_t client[6];
                std::uint32_t address;
                std::memcpy(client, message + 28, 6);
                std::memcpy(&address, message + 16, 4);
                const std::size_t length = static_cast<std::size_t>(n) - bench::frame_header;
                bench::write_frame_header(frame,
                                          {.destination_mac = client,
                                           .source_mac = mac,
                                           .source = giaddr,
                                           .destination = address,
                                           .source_port = 67,
                                           .destination_port = 68},
                                          length);
                sendto(clients, frame, static_cast<std::size_t>(n), 0, reinterpret_cast<const sockaddr *>(&vlan),
                       sizeof vlan);
            }
        }
    }
    fail("poll");
}

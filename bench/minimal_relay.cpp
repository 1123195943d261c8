// SPDX-License-Identifier: Apache-2.0
// The least a relay can do, as a yardstick: one packet-socket receive, a new relay address and hop count, one sendto;
// for the reply one receive and one frame. No checks, no option 82, no configuration, one system call for each.
//
//   minimal_relay SERVER CLIENT_DEVICE...
#include <arpa/inet.h>
#include <linux/filter.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <unordered_map>

#include "dhcp_bytes.h"
#include "udp_tap.h"

namespace {

[[noreturn]] void fail(const char *what) {
    std::perror(what);
    std::exit(1);
}

// IPv4 without options, UDP, destination port 67, on any device.
int open_tap() {
    const int fd = open_udp_tap({.port = 67, .protocol = ETH_P_IP});
    if (fd < 0) fail("packet socket");
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

struct device {
    int ifindex;
    std::uint32_t address;  // network byte order
    std::uint8_t mac[6];
};

device look_up(int fd, const char *name) {
    device found{.ifindex = static_cast<int>(if_nametoindex(name)), .address = 0, .mac = {}};
    ifreq request{};
    std::strncpy(request.ifr_name, name, IFNAMSIZ - 1);
    if (ioctl(fd, SIOCGIFHWADDR, &request) != 0) fail(name);
    std::memcpy(found.mac, request.ifr_hwaddr.sa_data, sizeof found.mac);
    if (ioctl(fd, SIOCGIFADDR, &request) != 0) fail(name);
    sockaddr_in address;
    std::memcpy(&address, &request.ifr_addr, sizeof address);
    found.address = address.sin_addr.s_addr;
    return found;
}

struct relay {
    int tap = -1;
    int udp = -1;
    sockaddr_in server{};
    std::unordered_map<int, device> by_ifindex;
    std::unordered_map<std::uint32_t, device> by_address;
    std::uint8_t frame[2048] = {};
};

void forward(relay &r, std::size_t length, int ifindex) {
    const auto from = r.by_ifindex.find(ifindex);
    if (from == r.by_ifindex.end()) return;
    std::uint8_t *message = r.frame + bench::frame_header;
    ++message[3];
    std::memcpy(message + 24, &from->second.address, sizeof from->second.address);
    sendto(r.udp, message, length, 0, reinterpret_cast<const sockaddr *>(&r.server), sizeof r.server);
}

void deliver(relay &r, std::size_t length) {
    const std::uint8_t *message = r.frame + bench::frame_header;
    std::uint32_t address, giaddr;
    std::uint8_t client[6];
    std::memcpy(&address, message + 16, sizeof address);
    std::memcpy(&giaddr, message + 24, sizeof giaddr);
    std::memcpy(client, message + 28, sizeof client);
    const auto to = r.by_address.find(giaddr);
    if (to == r.by_address.end()) return;
    bench::write_frame_header(r.frame,
                              {.destination_mac = client,
                               .source_mac = to->second.mac,
                               .source = giaddr,
                               .destination = address,
                               .source_port = 67,
                               .destination_port = 68},
                              length);
    sockaddr_ll out{};
    out.sll_family = AF_PACKET;
    out.sll_ifindex = to->second.ifindex;
    sendto(r.tap, r.frame, bench::frame_header + length, 0, reinterpret_cast<const sockaddr *>(&out), sizeof out);
}

}  // namespace

int main(int argc, char **argv) {
    static relay r;
    if (argc < 3) {
        std::fprintf(stderr, "usage: %s SERVER CLIENT_DEVICE...\n", argv[0]);
        return 2;
    }
    r.tap = open_tap();
    r.udp = open_udp(68);
    open_udp(67);  // so that the kernel answers nobody with "port unreachable"
    r.server.sin_family = AF_INET;
    r.server.sin_port = htons(67);
    r.server.sin_addr.s_addr = inet_addr(argv[1]);
    for (int i = 2; i < argc; ++i) {
        const device found = look_up(r.udp, argv[i]);
        r.by_ifindex[found.ifindex] = found;
        r.by_address[found.address] = found;
    }
    for (;;) {
        sockaddr_ll from{};
        socklen_t size = sizeof from;
        const ssize_t n = recvfrom(r.tap, r.frame, sizeof r.frame, 0, reinterpret_cast<sockaddr *>(&from), &size);
        if (n < 0 && errno != EINTR && errno != ENETDOWN) fail("receive");
        if (n < static_cast<ssize_t>(bench::frame_header + bench::options_at)) continue;
        const std::size_t length = static_cast<std::size_t>(n) - bench::frame_header;
        if (r.frame[bench::frame_header] == 1)
            forward(r, length, from.sll_ifindex);
        else
            deliver(r, length);
    }
}

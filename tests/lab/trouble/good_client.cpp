// SPDX-License-Identifier: Apache-2.0
// A good client and its server: asks for a lease again and again, each time once, and tells how long it waited.
//
//   good_client CLIENT_NETNS DEVICE CLIENT_MAC SERVER_NETNS SERVER_ADDRESS EVERY_MS PATIENCE_MS
//
// Every EVERY_MS the client broadcasts a DISCOVER; the server, on the UDP port 67 of its address, answers what the
// relay brings it with the address that the client asks for next; the client's wait ends with the ACK. Nothing is sent
// a second time: what has no ACK after PATIENCE_MS has failed. Both sides see this client's messages only, whatever
// else goes on. On SIGTERM, one line of JSON: for each try the time it began, in seconds of the monotonic clock, and
// its wait in milliseconds, null for one that failed. "asking" is printed with the first try.
#include <arpa/inet.h>
#include <linux/filter.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "dhcp_client.h"

namespace {

using steady = std::chrono::steady_clock;
volatile std::sig_atomic_t ended = 0;

[[noreturn]] void fail(const std::string &what) {
    std::fprintf(stderr, "good_client: %s: %s\n", what.c_str(), std::strerror(errno));
    std::exit(1);
}

void on_end(int) {
    ended = 1;
}

mac_address read_mac(const char *text) {
    mac_address mac{};
    unsigned parts[6];
    if (std::sscanf(text, "%x:%x:%x:%x:%x:%x", parts, parts + 1, parts + 2, parts + 3, parts + 4, parts + 5) != 6)
        fail(text);
    for (std::size_t i = 0; i < mac.size(); ++i) mac[i] = static_cast<std::uint8_t>(parts[i]);
    return mac;
}

std::uint32_t word(const std::uint8_t *at) {
    return static_cast<std::uint32_t>(at[0]) << 24 | static_cast<std::uint32_t>(at[1]) << 16 |
           static_cast<std::uint32_t>(at[2]) << 8 | at[3];
}

// Lets pass what has the client's hardware address at this place of what the filter sees. On a packet socket: and is to
// the client's port.
void see_only(int fd, const mac_address &mac, std::uint32_t place, bool frames) {
    std::vector<sock_filter> code;
    const auto require = [&](std::uint16_t width, std::uint32_t at, std::uint32_t value) {
        code.push_back(BPF_STMT(static_cast<std::uint16_t>(BPF_LD | BPF_ABS | width), at));
        code.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, value, 1, 0));
        code.push_back(BPF_STMT(BPF_RET | BPF_K, 0));
    };
    if (frames) {
        require(BPF_H, 12, ETH_P_IP);
        require(BPF_H, 36, 68);
    }
    require(BPF_W, place, word(mac.data()));
    require(BPF_H, place + 4, static_cast<std::uint32_t>(mac[4] << 8 | mac[5]));
    code.push_back(BPF_STMT(BPF_RET | BPF_K, 0xFFFF));
    const sock_fprog filter{static_cast<unsigned short>(code.size()), code.data()};
    if (setsockopt(fd, SOL_SOCKET, SO_ATTACH_FILTER, &filter, sizeof filter) != 0) fail("filter");
}

int open_client(const char *device, const mac_address &mac) {
    const int fd = socket(AF_PACKET, SOCK_RAW, 0);
    if (fd < 0) fail("packet socket");
    const int on = 1;
    see_only(fd, mac, headers + at_chaddr, /*frames=*/true);
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(ETH_P_ALL);
    address.sll_ifindex = static_cast<int>(if_nametoindex(device));
    if (setsockopt(fd, SOL_PACKET, PACKET_IGNORE_OUTGOING, &on, sizeof on) != 0 ||
        bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
        fail(device);
    return fd;
}

int open_server(const char *text, const mac_address &mac) {
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    const int on = 1;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(67);
    if (fd < 0 || inet_pton(AF_INET, text, &address.sin_addr) != 1) fail(text);
    see_only(fd, mac, 8 + at_chaddr, /*frames=*/false);
    if (setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
        fail(text);
    return fd;
}

// ---- The two sides ----

struct attempt {
    steady::time_point began;
    double wait_ms;  // below 0: none yet
};

struct scene {
    int client = -1;
    int server = -1;
    mac_address mac{};
    std::uint32_t server_address = 0;
    std::uint32_t xid = 0;
    bool waiting = false;
    std::vector<attempt> attempts;
};

void client_send(const scene &s, bytes message) {
    message.push_back(option_end);
    if (message.size() < 300) message.resize(300);
    const bytes frame = broadcast_frame(message, s.mac);
    if (send(s.client, frame.data(), frame.size(), 0) < 0) fail("send");
}

void ask(scene &s) {
    ++s.xid;
    s.waiting = true;
    s.attempts.push_back({steady::now(), -1});
    client_send(s, make_message(1, discover, s.xid, s.mac));
}

void client_hears(scene &s, const std::uint8_t *frame, std::size_t size) {
    const std::uint8_t *message = frame + headers;
    if (size < headers + at_options || !s.waiting || std::memcmp(message + at_xid, &s.xid, sizeof s.xid) != 0) return;
    const std::uint8_t type = type_of(message, size - headers);
    if (type == offer) {
        bytes next = make_message(1, request, s.xid, s.mac);
        add_option(next, option_server, &s.server_address, 4);
        add_option(next, option_address, message + at_yiaddr, 4);
        client_send(s, next);
    } else if (type == ack) {
        attempt &now = s.attempts.back();
        now.wait_ms = std::chrono::duration<double, std::milli>(steady::now() - now.began).count();
        s.waiting = false;
    }
}

void server_hears(const scene &s, const std::uint8_t *message, std::size_t size) {
    if (size < at_options) return;
    const bytes answer = make_answer(message, size, s.server_address);
    const sockaddr_in relay = relay_of(message);
    if (sendto(s.server, answer.data(), answer.size(), 0, reinterpret_cast<const sockaddr *>(&relay), sizeof relay) < 0)
        std::fprintf(stderr, "good_client: the server cannot send: %s\n", std::strerror(errno));
}

void listen_until(scene &s, steady::time_point end) {
    std::uint8_t room[2048];
    pollfd ends[2] = {{s.client, POLLIN, 0}, {s.server, POLLIN, 0}};
    while (ended == 0) {
        const auto left = std::chrono::duration_cast<std::chrono::nanoseconds>(end - steady::now()).count();
        if (left <= 0) return;
        const timespec limit{left / 1000000000, left % 1000000000};
        if (ppoll(ends, 2, &limit, nullptr) <= 0) continue;
        for (const pollfd &one : ends) {
            const ssize_t size = (one.revents & POLLIN) != 0 ? recv(one.fd, room, sizeof room, MSG_DONTWAIT) : -1;
            if (size <= 0) continue;
            if (one.fd == s.client)
                client_hears(s, room, static_cast<std::size_t>(size));
            else
                server_hears(s, room, static_cast<std::size_t>(size));
        }
    }
}

void tell(const scene &s) {
    std::printf("[");
    const char *comma = "";
    for (const attempt &one : s.attempts) {
        std::printf("%s[%.6f, ", comma, std::chrono::duration<double>(one.began.time_since_epoch()).count());
        one.wait_ms < 0 ? std::printf("null]") : std::printf("%.4f]", one.wait_ms);
        comma = ", ";
    }
    std::printf("]\n");
}

}  // namespace

int main(int argc, char **argv) {
    if (argc != 8) {
        std::fputs(
            "usage: good_client CLIENT_NETNS DEVICE CLIENT_MAC SERVER_NETNS SERVER_ADDRESS EVERY_MS "
            "PATIENCE_MS\n",
            stderr);
        return 2;
    }
    scene s;
    s.mac = read_mac(argv[3]);
    s.xid = static_cast<std::uint32_t>(getpid()) << 16;
    if (inet_pton(AF_INET, argv[5], &s.server_address) != 1) fail(argv[5]);
    const auto every = std::chrono::milliseconds(std::atoi(argv[6]));
    const auto patience = std::chrono::milliseconds(std::atoi(argv[7]));
    if (!enter_namespace(argv[4])) fail(argv[4]);
    s.server = open_server(argv[5], s.mac);
    if (!enter_namespace(argv[1])) fail(argv[1]);
    s.client = open_client(argv[2], s.mac);
    std::signal(SIGTERM, on_end);
    // What is measured is the relay's time, not this process's wait for a core.
    const sched_param first_in_line{1};
    (void)sched_setscheduler(0, SCHED_FIFO, &first_in_line);

    for (auto due = steady::now(); ended == 0;) {
        ask(s);
        if (s.attempts.size() == 1) {
            std::puts("asking");
            std::fflush(stdout);
        }
        due += every;
        const auto give_up = steady::now() + patience;
        listen_until(s, due);
        while (ended == 0 && s.waiting && steady::now() < give_up)
            listen_until(s, std::min(give_up, steady::now() + std::chrono::milliseconds(1)));
        due = std::max(due, steady::now());
    }
    // The last try was cut short: it says nothing.
    if (!s.attempts.empty() && s.attempts.back().wait_ms < 0) s.attempts.pop_back();
    tell(s);
    return 0;
}

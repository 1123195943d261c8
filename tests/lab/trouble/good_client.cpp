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
#include <fcntl.h>
#include <linux/filter.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

using steady = std::chrono::steady_clock;
using bytes = std::vector<std::uint8_t>;
using mac_address = std::array<std::uint8_t, 6>;

constexpr std::size_t headers = 42;  // Ethernet, IPv4, UDP
constexpr std::size_t at_xid = 4, at_yiaddr = 16, at_giaddr = 24, at_chaddr = 28, at_options = 240;
constexpr std::uint8_t discover = 1, offer = 2, request = 3, ack = 5;
constexpr std::uint8_t option_type = 53, option_server = 54, option_address = 50, option_agent = 82, option_end = 255;

volatile std::sig_atomic_t ended = 0;

[[noreturn]] void fail(const std::string &what) {
    std::fprintf(stderr, "good_client: %s: %s\n", what.c_str(), std::strerror(errno));
    std::exit(1);
}

void on_end(int) {
    ended = 1;
}

void enter(const char *netns) {
    const int fd = open(netns, O_RDONLY | O_CLOEXEC);
    if (fd < 0 || setns(fd, CLONE_NEWNET) != 0) fail(netns);
    close(fd);
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

// ---- Messages ----

std::size_t find_option(const std::uint8_t *message, std::size_t size, std::uint8_t code) {
    for (std::size_t at = at_options; at + 1 < size && message[at] != option_end;) {
        if (message[at] == code) return at;
        at += message[at] == 0 ? 1 : 2U + message[at + 1];
    }
    return 0;
}

std::uint8_t type_of(const std::uint8_t *message, std::size_t size) {
    const std::size_t at = find_option(message, size, option_type);
    return at != 0 && at + 2 < size ? message[at + 2] : std::uint8_t{0};
}

bytes make_message(std::uint8_t op, std::uint8_t type, std::uint32_t xid, const mac_address &mac) {
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

void add_option(bytes &message, std::uint8_t code, const void *value, std::uint8_t size) {
    message.push_back(code);
    message.push_back(size);
    const auto *from = static_cast<const std::uint8_t *>(value);
    message.insert(message.end(), from, from + size);
}

void put16(std::uint8_t *at, std::size_t value) {
    at[0] = static_cast<std::uint8_t>(value >> 8);
    at[1] = static_cast<std::uint8_t>(value);
}

bytes broadcast_frame(const bytes &message, const mac_address &mac) {
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
    const std::uint8_t type = type_of(message, size);
    std::uint32_t xid;
    std::memcpy(&xid, message + at_xid, sizeof xid);
    bytes answer = make_message(2, type == discover ? offer : ack, xid, s.mac);
    std::memcpy(&answer[at_giaddr], message + at_giaddr, 4);
    std::memcpy(&answer[at_yiaddr], message + at_giaddr, 3);
    answer[at_yiaddr + 3] = 99;
    add_option(answer, option_server, &s.server_address, 4);
    const std::size_t agent = find_option(message, size, option_agent);
    if (agent != 0 && agent + 2 + message[agent + 1] <= size)
        add_option(answer, option_agent, message + agent + 2, message[agent + 1]);
    answer.push_back(option_end);
    sockaddr_in relay{};
    relay.sin_family = AF_INET;
    relay.sin_port = htons(67);
    std::memcpy(&relay.sin_addr, message + at_giaddr, 4);
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
    enter(argv[4]);
    s.server = open_server(argv[5], s.mac);
    enter(argv[1]);
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

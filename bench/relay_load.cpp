// SPDX-License-Identifier: Apache-2.0
// The load of the relay benchmark: clients on one side, a server on the other, in one process.
//
// A window of clients each send a DISCOVER as broadcast frames into a port of the switch; the server answers what the
// relay sends it with an OFFER to the relay's address, echoing option 82; the client that gets its OFFER sends its next
// DISCOVER. Counts the transactions of a time span and their latencies. Prints one line of JSON.
//
//   relay_load CLIENT_NETNS CLIENT_DEVICE SERVER_NETNS SECONDS WINDOW
//
// Network namespaces are given as paths.
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

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "dhcp_bytes.h"

namespace {

using steady = std::chrono::steady_clock;

constexpr std::size_t batch = 32;
constexpr std::size_t message_size = 300;  // RFC 1542 section 2.1: the least size of a BOOTP message
constexpr std::size_t room = 1500;
constexpr auto patience = std::chrono::milliseconds(250);  // then a transaction counts as lost

[[noreturn]] void fail(const std::string &what) {
    std::fprintf(stderr, "relay_load: %s: %s\n", what.c_str(), std::strerror(errno));
    std::exit(1);
}

void enter(const char *netns) {
    const int fd = open(netns, O_RDONLY | O_CLOEXEC);
    if (fd < 0 || setns(fd, CLONE_NEWNET) != 0) fail(netns);
    close(fd);
}

void widen(int fd) {
    const int bytes = 8 << 20;
    setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &bytes, sizeof bytes);
    setsockopt(fd, SOL_SOCKET, SO_SNDBUFFORCE, &bytes, sizeof bytes);
}

// A packet socket for the clients that sees frames to UDP port 68 only.
int open_clients(const char *device) {
    static sock_filter code[] = {
        BPF_STMT(BPF_LD | BPF_H | BPF_ABS, 12), BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, ETH_P_IP, 0, 5),
        BPF_STMT(BPF_LD | BPF_B | BPF_ABS, 23), BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, IPPROTO_UDP, 0, 3),
        BPF_STMT(BPF_LD | BPF_H | BPF_ABS, 36), BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, 68, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, 0xFFFF),      BPF_STMT(BPF_RET | BPF_K, 0),
    };
    const sock_fprog filter{sizeof code / sizeof *code, code};
    const int on = 1;
    const int fd = socket(AF_PACKET, SOCK_RAW | SOCK_NONBLOCK, 0);
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(ETH_P_ALL);
    address.sll_ifindex = static_cast<int>(if_nametoindex(device));
    if (fd < 0 || setsockopt(fd, SOL_SOCKET, SO_ATTACH_FILTER, &filter, sizeof filter) != 0 ||
        setsockopt(fd, SOL_PACKET, PACKET_IGNORE_OUTGOING, &on, sizeof on) != 0)
        fail("packet socket");
    widen(fd);
    if (bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) fail(device);
    return fd;
}

int open_server() {
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(67);
    widen(fd);
    if (fd < 0 || bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) fail("server socket");
    return fd;
}

// Messages of one recvmmsg or sendmmsg.
struct messages {
    std::uint8_t bytes[batch][room];
    iovec parts[batch];
    mmsghdr headers[batch];
    sockaddr_in peers[batch];

    void prepare(bool with_peers) {
        for (std::size_t i = 0; i < batch; ++i) {
            parts[i] = {bytes[i], room};
            headers[i] = {};
            headers[i].msg_hdr.msg_iov = &parts[i];
            headers[i].msg_hdr.msg_iovlen = 1;
            if (!with_peers) continue;
            headers[i].msg_hdr.msg_name = &peers[i];
            headers[i].msg_hdr.msg_namelen = sizeof peers[i];
        }
    }
};

messages in;
messages out;

int receive(int fd, bool with_peers) {
    in.prepare(with_peers);
    return std::max(0, recvmmsg(fd, in.headers, batch, 0, nullptr));
}

void send_all(int fd, std::size_t count) {
    for (std::size_t sent = 0; sent < count;) {
        const int n = sendmmsg(fd, out.headers + sent, static_cast<unsigned>(count - sent), 0);
        if (n <= 0) return;  // what is not sent is lost and counted so
        sent += static_cast<std::size_t>(n);
    }
}

struct load {
    int clients = -1;
    int server = -1;
    std::size_t window = 0;
    std::vector<std::uint32_t> pending;       // xid of each client, 0: none
    std::vector<steady::time_point> started;  // when its DISCOVER was sent
    std::vector<std::uint32_t> latencies;     // microseconds x 10
    std::uint32_t next_xid = 1;
    std::uint64_t lost = 0;
    bool measuring = false;
};

void write_discover(load &l, std::size_t client, std::size_t slot) {
    std::uint8_t *frame = out.bytes[slot];
    std::uint8_t *message = frame + bench::frame_header;
    std::uint8_t mac[6] = {2, 0, 0, 0x0C, static_cast<std::uint8_t>(client >> 8), static_cast<std::uint8_t>(client)};
    static const std::uint8_t everybody[6] = {255, 255, 255, 255, 255, 255};
    std::memset(message, 0, message_size);
    message[0] = 1;
    message[1] = 1;
    message[2] = 6;
    // The client's number stands in the xid, so that its answer finds it.
    const std::uint32_t xid = l.next_xid++ * static_cast<std::uint32_t>(l.window) + static_cast<std::uint32_t>(client);
    std::memcpy(message + 4, &xid, 4);
    std::memcpy(message + 28, mac, 6);
    static const std::uint8_t options[] = {99, 130, 83, 99, 53, 1, 1, 55, 4, 1, 3, 6, 15, 57, 2, 5, 220, 255};
    std::memcpy(message + 236, options, sizeof options);
    bench::write_frame_header(frame,
                              {.destination_mac = everybody,
                               .source_mac = mac,
                               .source = 0,
                               .destination = INADDR_BROADCAST,
                               .source_port = 68,
                               .destination_port = 67},
                              message_size);
    out.parts[slot].iov_len = bench::frame_header + message_size;
    l.pending[client] = xid;
    l.started[client] = steady::now();
}

void start_clients(load &l, const std::vector<std::size_t> &who) {
    for (std::size_t first = 0; first < who.size(); first += batch) {
        out.prepare(false);
        const std::size_t count = std::min(batch, who.size() - first);
        for (std::size_t i = 0; i < count; ++i) write_discover(l, who[first + i], i);
        send_all(l.clients, count);
    }
}

void serve_clients(load &l) {
    static std::vector<std::size_t> done;
    done.clear();
    const int n = receive(l.clients, false);
    const auto now = steady::now();
    for (int i = 0; i < n; ++i) {
        if (in.headers[i].msg_len < bench::frame_header + bench::options_at) continue;
        std::uint32_t xid;
        std::memcpy(&xid, in.bytes[i] + bench::frame_header + 4, 4);
        const std::size_t client = xid % l.window;
        if (xid == 0 || l.pending[client] != xid) continue;  // answered late, and given up before
        if (l.measuring)
            l.latencies.push_back(static_cast<std::uint32_t>(
                std::chrono::duration_cast<std::chrono::nanoseconds>(now - l.started[client]).count() / 100));
        done.push_back(client);
    }
    start_clients(l, done);
}

// Turns a relayed DISCOVER into its OFFER. Returns its length, 0 for a message that is none.
std::size_t write_offer(const std::uint8_t *request, std::size_t length, std::uint8_t *offer) {
    if (length < bench::options_at || request[0] != 1) return 0;
    std::memset(offer, 0, message_size);
    std::memcpy(offer, request, 236);
    offer[0] = 2;
    const std::uint8_t yiaddr[4] = {10, 10, request[32], static_cast<std::uint8_t>(request[33] | 1)};
    std::memcpy(offer + 16, yiaddr, 4);
    static const std::uint8_t options[] = {99, 130, 83, 99, 53, 1,  2, 54, 4,   192, 0,   2, 11,
                                           51, 4,   0,  0,  14, 16, 1, 4,  255, 255, 255, 0};
    std::memcpy(offer + 236, options, sizeof options);
    std::size_t at = 236 + sizeof options;
    for (std::size_t from = bench::options_at; from + 1 < length && request[from] != 255;) {
        const std::size_t size = request[from] == 0 ? 1 : request[from + 1] + 2U;
        if (request[from] == 82 && from + size <= length && at + size + 1 < room) {
            std::memcpy(offer + at, request + from, size);
            at += size;
        }
        from += size;
    }
    offer[at++] = 255;
    return std::max(at, message_size);
}

void serve_server(load &l) {
    const int n = receive(l.server, true);
    out.prepare(true);
    std::size_t count = 0;
    for (int i = 0; i < n; ++i) {
        const std::size_t length = write_offer(in.bytes[i], in.headers[i].msg_len, out.bytes[count]);
        if (length == 0) continue;
        out.parts[count].iov_len = length;
        out.peers[count] = {};
        out.peers[count].sin_family = AF_INET;
        out.peers[count].sin_port = htons(67);
        std::memcpy(&out.peers[count].sin_addr, in.bytes[i] + 24, 4);
        ++count;
    }
    send_all(l.server, count);
}

void give_up_on_late(load &l) {
    static std::vector<std::size_t> late;
    late.clear();
    const auto now = steady::now();
    for (std::size_t client = 0; client < l.window; ++client)
        if (now - l.started[client] > patience) late.push_back(client);
    if (l.measuring) l.lost += late.size();
    start_clients(l, late);
}

void run(load &l, steady::duration span) {
    pollfd ready[2] = {{l.clients, POLLIN, 0}, {l.server, POLLIN, 0}};
    const auto stop = steady::now() + span;
    auto next_check = steady::now() + patience;
    for (auto now = steady::now(); now < stop; now = steady::now()) {
        poll(ready, 2, 10);
        if ((ready[1].revents & POLLIN) != 0) serve_server(l);
        if ((ready[0].revents & POLLIN) != 0) serve_clients(l);
        if (now < next_check) continue;
        give_up_on_late(l);
        next_check = now + patience / 4;
    }
}

double percentile(const std::vector<std::uint32_t> &sorted, double part) {
    if (sorted.empty()) return 0;
    const auto at = static_cast<std::size_t>(part * static_cast<double>(sorted.size() - 1));
    return sorted[at] / 10.0;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc != 6) {
        std::fprintf(stderr, "usage: %s CLIENT_NETNS CLIENT_DEVICE SERVER_NETNS SECONDS WINDOW\n", argv[0]);
        return 2;
    }
    load l;
    enter(argv[1]);
    l.clients = open_clients(argv[2]);
    enter(argv[3]);
    l.server = open_server();
    const double seconds = std::atof(argv[4]);
    l.window = static_cast<std::size_t>(std::atol(argv[5]));
    if (seconds <= 0 || l.window == 0 || l.window > 4096) fail("SECONDS or WINDOW out of range (WINDOW 1 to 4096)");
    l.pending.resize(l.window);
    l.started.resize(l.window);
    l.latencies.reserve(4 << 20);

    std::vector<std::size_t> everyone(l.window);
    for (std::size_t i = 0; i < l.window; ++i) everyone[i] = i;
    start_clients(l, everyone);
    run(l, std::chrono::milliseconds(500));  // caches, neighbours, bridge tables
    std::printf("{\"started\": true}\n");    // the driver reads the relay's processor time now
    std::fflush(stdout);
    l.measuring = true;
    const auto from = steady::now();
    run(l, std::chrono::duration_cast<steady::duration>(std::chrono::duration<double>(seconds)));
    const double took = std::chrono::duration<double>(steady::now() - from).count();
    std::sort(l.latencies.begin(), l.latencies.end());
    std::printf(
        "{\"seconds\": %.6f, \"transactions\": %zu, \"lost\": %llu, \"p50\": %.1f, \"p90\": %.1f, \"p99\": %.1f, "
        "\"p999\": %.1f, \"max\": %.1f}\n",
        took, l.latencies.size(), static_cast<unsigned long long>(l.lost), percentile(l.latencies, 0.5),
        percentile(l.latencies, 0.9), percentile(l.latencies, 0.99), percentile(l.latencies, 0.999),
        percentile(l.latencies, 1));
    return 0;
}

// SPDX-License-Identifier: Apache-2.0
// The load of the relay benchmark: clients on one side, a server on the other, in one process.
//
// Each DISCOVER is a broadcast frame of a client that nobody saw before, sent into the devices by turns; the server
// answers what the relay sends it with an OFFER to the relay's address, echoing option 82. By default a window of
// clients each wait for their OFFER before the next DISCOVER is sent; with a rate DISCOVERs go out by the clock,
// whatever comes back. Counts the transactions of a time span and their latencies. Prints one line of JSON.
//
//   relay_load [--seconds S] [--window W] [--rate R] [--fill N] CLIENT_NETNS SERVER_NETNS DEVICE...
//
// Network namespaces are given as paths, devices are those of the clients. --fill: before the measurement so many
// requests reach the server and get no answer, which leaves as many transactions open.
#include <arpa/inet.h>
#include <fcntl.h>
#include <getopt.h>
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
#include "udp_tap.h"

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

// A packet socket for the clients on all devices that sees frames to UDP port 68 only.
int open_clients() {
    const int fd = open_udp_tap({.port = 68, .flags = SOCK_NONBLOCK});
    if (fd < 0) fail("packet socket");
    widen(fd);
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

    void prepare() {
        for (std::size_t i = 0; i < batch; ++i) {
            parts[i] = {bytes[i], room};
            headers[i] = {};
            headers[i].msg_hdr.msg_iov = &parts[i];
            headers[i].msg_hdr.msg_iovlen = 1;
        }
    }
    void name(std::size_t slot, void *address, socklen_t size) {
        headers[slot].msg_hdr.msg_name = address;
        headers[slot].msg_hdr.msg_namelen = size;
    }
};

messages in;
messages out;

int receive(int fd) {
    in.prepare();
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
    double rate = 0;                     // DISCOVERs a second, 0: as the window allows
    std::size_t window = 0;              // slots for transactions
    std::vector<sockaddr_ll> devices;    // of the clients
    std::vector<std::uint32_t> pending;  // xid of the transaction in each slot, 0: none
    std::vector<steady::time_point> started;
    std::vector<std::uint32_t> latencies;  // microseconds x 10
    std::uint32_t turn = 1;                // counts DISCOVERs
    std::uint64_t lost = 0;
    bool measuring = false;
};

// The DISCOVER of a client whose hardware address is its transaction's number.
std::size_t write_discover(std::uint32_t xid, std::uint8_t *frame) {
    std::uint8_t *message = frame + bench::frame_header;
    std::uint8_t mac[6] = {2, 0};
    std::memcpy(mac + 2, &xid, sizeof xid);
    static const std::uint8_t everybody[6] = {255, 255, 255, 255, 255, 255};
    std::memset(message, 0, message_size);
    message[0] = 1;
    message[1] = 1;
    message[2] = 6;
    std::memcpy(message + 4, &xid, sizeof xid);
    std::memcpy(message + 28, mac, sizeof mac);
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
    return bench::frame_header + message_size;
}

// Sends DISCOVERs with these numbers, into the devices by turns.
void send_discovers(load &l, const std::vector<std::uint32_t> &xids) {
    for (std::size_t first = 0; first < xids.size(); first += batch) {
        out.prepare();
        const std::size_t count = std::min(batch, xids.size() - first);
        for (std::size_t i = 0; i < count; ++i) {
            out.parts[i].iov_len = write_discover(xids[first + i], out.bytes[i]);
            sockaddr_ll &device = l.devices[l.turn++ % l.devices.size()];
            out.name(i, &device, sizeof device);
        }
        send_all(l.clients, count);
    }
}

// Begins a transaction in each of these slots. The slot is the number's rest, so that the answer finds it.
void start(load &l, const std::vector<std::size_t> &slots) {
    static std::vector<std::uint32_t> xids;
    static std::uint32_t round = 0;
    xids.clear();
    const auto now = steady::now();
    for (const std::size_t slot : slots) {
        const std::uint32_t xid = ++round * static_cast<std::uint32_t>(l.window) + static_cast<std::uint32_t>(slot);
        l.pending[slot] = xid;
        l.started[slot] = now;
        xids.push_back(xid);
    }
    send_discovers(l, xids);
}

void serve_clients(load &l) {
    static std::vector<std::size_t> done;
    done.clear();
    const int n = receive(l.clients);
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
        l.pending[client] = 0;
        done.push_back(client);
    }
    if (l.rate == 0) start(l, done);
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
    const int n = receive(l.server);
    out.prepare();
    std::size_t count = 0;
    for (int i = 0; i < n; ++i) {
        const std::size_t length = write_offer(in.bytes[i], in.headers[i].msg_len, out.bytes[count]);
        if (length == 0) continue;
        out.parts[count].iov_len = length;
        out.peers[count] = {};
        out.peers[count].sin_family = AF_INET;
        out.peers[count].sin_port = htons(67);
        std::memcpy(&out.peers[count].sin_addr, in.bytes[i] + 24, 4);
        out.name(count, &out.peers[count], sizeof out.peers[count]);
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
    start(l, late);
}

// Sends what is due by the clock. Who has no answer when his slot is needed again is lost.
void send_due(load &l, steady::time_point begin, std::uint64_t &sent) {
    static std::vector<std::size_t> slots;
    const double elapsed = std::chrono::duration<double>(steady::now() - begin).count();
    const auto due = static_cast<std::uint64_t>(elapsed * l.rate);
    slots.clear();
    for (; sent < due && slots.size() < batch; ++sent) {
        const std::size_t slot = sent % l.window;
        if (l.pending[slot] != 0 && l.measuring) ++l.lost;
        slots.push_back(slot);
    }
    start(l, slots);
}

void run(load &l, steady::duration span) {
    pollfd ready[2] = {{l.clients, POLLIN, 0}, {l.server, POLLIN, 0}};
    const auto begin = steady::now();
    const auto stop = begin + span;
    auto next_check = begin + patience;
    std::uint64_t sent = 0;
    for (auto now = begin; now < stop; now = steady::now()) {
        if (l.rate > 0) send_due(l, begin, sent);
        poll(ready, 2, l.rate > 0 ? 0 : 10);
        if ((ready[1].revents & POLLIN) != 0) serve_server(l);
        if ((ready[0].revents & POLLIN) != 0) serve_clients(l);
        if (l.rate > 0 || now < next_check) continue;
        give_up_on_late(l);
        next_check = now + patience / 4;
    }
}

// Sends requests until so many have reached the server, which stays silent.
void fill(load &l, std::uint64_t wanted) {
    constexpr std::uint32_t first = 0x80000000;  // numbers that the measurement does not use
    std::vector<std::uint32_t> xids;
    pollfd ready = {l.server, POLLIN, 0};
    std::uint64_t sent = 0, heard = 0, lost = 0;
    while (heard < wanted) {
        xids.clear();
        while (sent - heard - lost < 2 * batch && xids.size() < batch)
            xids.push_back(first + static_cast<std::uint32_t>(sent++));
        send_discovers(l, xids);
        if (poll(&ready, 1, 250) == 0)
            lost = sent - heard;
        else
            heard += static_cast<std::uint64_t>(receive(l.server));
        if (lost > wanted) fail("--fill: requests do not reach the server");
    }
}

double percentile(const std::vector<std::uint32_t> &sorted, double part) {
    if (sorted.empty()) return 0;
    const auto at = static_cast<std::size_t>(part * static_cast<double>(sorted.size() - 1));
    return sorted[at] / 10.0;
}

struct wishes {
    double seconds = 2;
    double rate = 0;
    long window = 64;
    long fill = 0;
};

[[noreturn]] void usage(const char *program) {
    std::fprintf(stderr,
                 "usage: %s [--seconds S] [--window W] [--rate R] [--fill N] CLIENT_NETNS SERVER_NETNS DEVICE...\n",
                 program);
    std::exit(2);
}

wishes read_wishes(int argc, char **argv) {
    static const option options[] = {{"seconds", required_argument, nullptr, 's'},
                                     {"window", required_argument, nullptr, 'w'},
                                     {"rate", required_argument, nullptr, 'r'},
                                     {"fill", required_argument, nullptr, 'f'},
                                     {nullptr, 0, nullptr, 0}};
    wishes w;
    for (int c; (c = getopt_long(argc, argv, "", options, nullptr)) != -1;) {
        if (c == 's') w.seconds = std::atof(optarg);
        if (c == 'r') w.rate = std::atof(optarg);
        if (c == 'w') w.window = std::atol(optarg);
        if (c == 'f') w.fill = std::atol(optarg);
        if (c == '?') usage(argv[0]);
    }
    if (w.seconds <= 0 || w.rate < 0 || w.window < 1 || w.window > 65536 || w.fill < 0 || argc - optind < 3)
        usage(argv[0]);
    return w;
}

void open_both(load &l, char **names, int count) {
    enter(names[0]);
    l.clients = open_clients();
    for (int i = 2; i < count; ++i) {
        sockaddr_ll device{};
        device.sll_family = AF_PACKET;
        device.sll_ifindex = static_cast<int>(if_nametoindex(names[i]));
        if (device.sll_ifindex == 0) fail(names[i]);
        l.devices.push_back(device);
    }
    enter(names[1]);
    l.server = open_server();
}

void report(load &l, double took) {
    std::sort(l.latencies.begin(), l.latencies.end());
    std::printf(
        "{\"seconds\": %.6f, \"transactions\": %zu, \"lost\": %llu, \"p50\": %.1f, \"p90\": %.1f, \"p99\": %.1f, "
        "\"p999\": %.1f, \"max\": %.1f}\n",
        took, l.latencies.size(), static_cast<unsigned long long>(l.lost), percentile(l.latencies, 0.5),
        percentile(l.latencies, 0.9), percentile(l.latencies, 0.99), percentile(l.latencies, 0.999),
        percentile(l.latencies, 1));
}

void tell(const char *what) {
    std::printf("{\"%s\": true}\n", what);
    std::fflush(stdout);
}

}  // namespace

int main(int argc, char **argv) {
    const wishes wanted = read_wishes(argc, argv);
    load l;
    l.rate = wanted.rate;
    l.window = static_cast<std::size_t>(wanted.rate > 0 ? 65536 : wanted.window);
    l.pending.resize(l.window);
    l.started.resize(l.window);
    l.latencies.reserve(4 << 20);
    open_both(l, argv + optind, argc - optind);
    fill(l, static_cast<std::uint64_t>(wanted.fill));
    tell("filled");  // the driver looks at the relay's memory now
    if (l.rate == 0) {
        std::vector<std::size_t> everyone(l.window);
        for (std::size_t i = 0; i < l.window; ++i) everyone[i] = i;
        start(l, everyone);
    }
    run(l, std::chrono::milliseconds(500));  // caches, and what the relay has to find out about the load
    tell("started");                         // and at its processor time
    l.measuring = true;
    const auto from = steady::now();
    run(l, std::chrono::duration_cast<steady::duration>(std::chrono::duration<double>(wanted.seconds)));
    report(l, std::chrono::duration<double>(steady::now() - from).count());
    return 0;
}

// SPDX-License-Identifier: Apache-2.0
// Many clients at once and their server: each asks for a lease when its turn comes, and again when nobody answers.
//
//   many_clients SERVER_NETNS SERVER_ADDRESS CLIENTS RATE AGAIN_MS same|new NETNS:DEVICE...
//
// RATE leases a second are begun by CLIENTS clients by turns, who are spread over the devices. What is not answered
// within AGAIN_MS is sent again, like any client does, until it is. same: a client keeps its hardware address; new:
// each lease is that of a machine that nobody saw before. "asking" is printed with the first lease. On SIGTERM no more
// leases are begun, and when all are had (or nobody answers for a few seconds) there is one line of JSON: "leases" had,
// "unfinished" leases, "again": for each message that was sent again the time when it was sent first (seconds of the
// monotonic clock), its client and its device's number, and "gaps": for each time of 10 ms and more without a message
// for any client when it began and how many milliseconds it took.
#include <arpa/inet.h>
#include <net/if.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <string>

#include "dhcp_client.h"
#include "udp_tap.h"

namespace {

using steady = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr int receive_room = 8 << 20;
constexpr milliseconds told_gap{10};
constexpr int last_tries = 5;  // of what is not answered at the end

volatile std::sig_atomic_t ended = 0;

[[noreturn]] void fail(const std::string &what) {
    std::fprintf(stderr, "many_clients: %s: %s\n", what.c_str(), std::strerror(errno));
    std::exit(1);
}

void on_end(int) {
    ended = 1;
}

// ---- Clients ----

struct client {
    std::uint32_t xid = 0;  // of the lease that it waits for; 0: none
    std::uint8_t sent = 0;  // the message that it waits with
    std::uint32_t address = 0;
    steady::time_point first_sent;
};

// A message that may have to be sent again.
struct reminder {
    steady::time_point due;
    std::uint32_t xid;
    std::uint8_t sent;
};

struct again {
    steady::time_point first_sent;
    std::size_t client;
};

struct gap {
    steady::time_point began;
    steady::duration time;
};

struct scene {
    std::vector<int> devices;
    int server = -1;
    std::uint32_t server_address = 0;
    std::vector<client> clients;
    bool new_machines = false;
    milliseconds patience{0};
    std::deque<reminder> reminders;  // in order, as all wait equally long
    std::uint32_t begun = 0, had = 0;
    std::vector<again> sent_again;
    std::vector<gap> gaps;
    steady::time_point heard_last{};
};

// A client's place is its transaction id's rest, so that the answer finds it.
std::size_t place_of(const scene &s, std::uint32_t xid) {
    return xid % s.clients.size();
}

mac_address mac_of(const scene &s, std::uint32_t xid) {
    const auto number = s.new_machines ? xid : static_cast<std::uint32_t>(place_of(s, xid));
    return {2,
            0xEE,
            static_cast<std::uint8_t>(number >> 24),
            static_cast<std::uint8_t>(number >> 16),
            static_cast<std::uint8_t>(number >> 8),
            static_cast<std::uint8_t>(number)};
}

void send_of(scene &s, std::size_t place) {
    const client &c = s.clients[place];
    const mac_address mac = mac_of(s, c.xid);
    bytes message = make_message(1, c.sent, c.xid, mac);
    if (c.sent == request) {
        add_option(message, option_server, &s.server_address, 4);
        add_option(message, option_address, &c.address, 4);
    }
    message.push_back(option_end);
    if (message.size() < 300) message.resize(300);
    const bytes frame = broadcast_frame(message, mac);
    const int fd = s.devices[place % s.devices.size()];
    if (send(fd, frame.data(), frame.size(), 0) < 0 && errno != ENOBUFS && errno != ENETDOWN) fail("send");
    s.reminders.push_back({steady::now() + s.patience, c.xid, c.sent});
}

void say(scene &s, std::size_t place, std::uint8_t type) {
    s.clients[place].sent = type;
    s.clients[place].first_sent = steady::now();
    send_of(s, place);
}

// The next client's turn; one that still waits is not disturbed.
void begin_lease(scene &s) {
    const std::uint32_t xid = ++s.begun + static_cast<std::uint32_t>(s.clients.size());
    client &c = s.clients[place_of(s, xid)];
    if (c.xid != 0) return;
    c.xid = xid;
    say(s, place_of(s, xid), discover);
}

void note_heard(scene &s) {
    const auto now = steady::now();
    if (s.heard_last != steady::time_point{} && now - s.heard_last >= told_gap)
        s.gaps.push_back({s.heard_last, now - s.heard_last});
    s.heard_last = now;
}

void client_hears(scene &s, const std::uint8_t *frame, std::size_t size) {
    const std::uint8_t *message = frame + headers;
    if (size < headers + at_options) return;
    std::uint32_t xid;
    std::memcpy(&xid, message + at_xid, sizeof xid);
    const std::size_t place = place_of(s, xid);
    client &c = s.clients[place];
    note_heard(s);
    if (xid == 0 || c.xid != xid) return;
    const std::uint8_t type = type_of(message, size - headers);
    if (type == offer && c.sent == discover) {
        std::memcpy(&c.address, message + at_yiaddr, sizeof c.address);
        say(s, place, request);
    } else if (type == ack) {
        c.xid = 0;
        ++s.had;
    }
}

void send_what_is_late(scene &s) {
    while (!s.reminders.empty() && s.reminders.front().due <= steady::now()) {
        const reminder late = s.reminders.front();
        s.reminders.pop_front();
        const std::size_t place = place_of(s, late.xid);
        const client &c = s.clients[place];
        if (c.xid != late.xid || c.sent != late.sent) continue;
        s.sent_again.push_back({c.first_sent, place});
        send_of(s, place);
    }
}

// ---- The server ----

void server_hears(const scene &s, const std::uint8_t *message, std::size_t size) {
    if (size < at_options) return;
    const bytes answer = make_answer(message, size, s.server_address);
    const sockaddr_in relay = relay_of(message);
    if (sendto(s.server, answer.data(), answer.size(), 0, reinterpret_cast<const sockaddr *>(&relay), sizeof relay) < 0)
        std::fprintf(stderr, "many_clients: the server cannot send: %s\n", std::strerror(errno));
}

// ---- Sockets ----

void widen(int fd) {
    if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &receive_room, sizeof receive_room) != 0) fail("receive buffer");
}

int open_device(const std::string &where) {
    const std::size_t colon = where.rfind(':');
    if (colon == std::string::npos || !enter_namespace(where.substr(0, colon).c_str())) fail(where);
    const auto device = static_cast<int>(if_nametoindex(where.c_str() + colon + 1));
    const int fd = device == 0 ? -1 : open_udp_tap({.port = 68, .device = device});
    if (fd < 0) fail(where);
    widen(fd);
    return fd;
}

int open_server(const char *text) {
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    const int on = 1;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(67);
    if (fd < 0 || inet_pton(AF_INET, text, &address.sin_addr) != 1 ||
        setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
        fail(text);
    widen(fd);
    return fd;
}

// ---- Turns ----

void serve(scene &s, std::vector<pollfd> &ends, steady::time_point until) {
    std::uint8_t room[2048];
    const auto left = std::chrono::duration_cast<std::chrono::nanoseconds>(until - steady::now()).count();
    const timespec limit{left > 0 ? left / 1000000000 : 0, left > 0 ? left % 1000000000 : 0};
    if (ppoll(ends.data(), ends.size(), &limit, nullptr) <= 0) return;
    for (const pollfd &one : ends) {
        if ((one.revents & POLLIN) == 0) continue;
        for (ssize_t size; (size = recv(one.fd, room, sizeof room, MSG_DONTWAIT)) > 0;) {
            if (one.fd == s.server)
                server_hears(s, room, static_cast<std::size_t>(size));
            else
                client_hears(s, room, static_cast<std::size_t>(size));
        }
    }
}

bool somebody_waits(const scene &s) {
    for (const client &c : s.clients)
        if (c.xid != 0) return true;
    return false;
}

void run(scene &s, double rate) {
    std::vector<pollfd> ends = {{s.server, POLLIN, 0}};
    for (const int fd : s.devices) ends.push_back({fd, POLLIN, 0});
    const auto every = std::chrono::duration_cast<steady::duration>(std::chrono::duration<double>(1 / rate));
    for (auto due = steady::now(); ended == 0;) {
        for (; due <= steady::now(); due += every) begin_lease(s);
        send_what_is_late(s);
        serve(s, ends, s.reminders.empty() ? due : std::min(due, s.reminders.front().due));
    }
    for (const auto end = steady::now() + s.patience * last_tries; somebody_waits(s) && steady::now() < end;) {
        send_what_is_late(s);
        serve(s, ends, steady::now() + milliseconds(10));
    }
}

double seconds(steady::time_point time) {
    return std::chrono::duration<double>(time.time_since_epoch()).count();
}

void tell(const scene &s) {
    std::size_t unfinished = 0;
    for (const client &c : s.clients) unfinished += c.xid != 0 ? 1 : 0;
    std::printf("{\"leases\": %u, \"unfinished\": %zu, \"again\": [", s.had, unfinished);
    const char *comma = "";
    for (const again &one : s.sent_again) {
        std::printf("%s[%.6f, %zu, %zu]", comma, seconds(one.first_sent), one.client, one.client % s.devices.size());
        comma = ", ";
    }
    std::printf("], \"gaps\": [");
    comma = "";
    for (const gap &one : s.gaps) {
        std::printf("%s[%.6f, %.3f]", comma, seconds(one.began),
                    std::chrono::duration<double, std::milli>(one.time).count());
        comma = ", ";
    }
    std::printf("]}\n");
}

}  // namespace

int main(int argc, char **argv) {
    const std::string machines = argc >= 8 ? argv[6] : "";
    if (machines != "same" && machines != "new") {
        std::fputs("usage: many_clients SERVER_NETNS SERVER_ADDRESS CLIENTS RATE AGAIN_MS same|new NETNS:DEVICE...\n",
                   stderr);
        return 2;
    }
    scene s;
    const double rate = std::atof(argv[4]);
    s.clients.resize(static_cast<std::size_t>(std::max(1, std::atoi(argv[3]))));
    s.patience = milliseconds(std::atoi(argv[5]));
    s.new_machines = machines == "new";
    for (int i = 7; i < argc; ++i) s.devices.push_back(open_device(argv[i]));
    if (!enter_namespace(argv[1])) fail(argv[1]);
    if (inet_pton(AF_INET, argv[2], &s.server_address) != 1 || rate <= 0) fail(argv[2]);
    s.server = open_server(argv[2]);
    std::signal(SIGTERM, on_end);
    // What is measured is the relay's time, not this process's wait for a core.
    const sched_param first_in_line{1};
    (void)sched_setscheduler(0, SCHED_FIFO, &first_in_line);
    std::puts("asking");
    std::fflush(stdout);
    run(s, rate);
    tell(s);
    return 0;
}

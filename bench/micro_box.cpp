// SPDX-License-Identifier: Apache-2.0
// The box of the micro-benchmarks. Its sockets stand in for the platform's: the program is linked with them first, so
// that of the platform's library everything else is taken. The frame at hand goes the channel's way, that is, it is
// decoded, entered into the books and copied; the system calls around that are what is left out.
#include "micro_box.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <string>

#include "base/clock.h"
#include "books/books.h"
#include "dhcp_bytes.h"
#include "osal.h"
#include "ravo_db.h"
#include "ravo_if_receive.h"
#include "ravo_if_socket.h"
#include "ravo_life.h"

namespace bench {

namespace {

constexpr std::size_t least_message = 300;  // RFC 1542 section 2.1
constexpr std::array<std::uint8_t, 6> client_mac = {0x02, 0xC1, 0x1E, 0, 0, 1};
constexpr std::array<std::uint8_t, 6> relay_mac = {0, 0, 0x5E, 0, 0x53, 1};
constexpr std::array<std::uint8_t, 6> everybody = {255, 255, 255, 255, 255, 255};

using ravo::platform::wall_clock_us;

const arrival *at_hand = nullptr;
std::uint64_t sent = 0;
std::int64_t now_us = wall_clock_us();  // the ring brings the time of each frame
iface clients;

std::uint32_t address(const char *text) {
    return inet_addr(text);
}

iface interface_of(unsigned vlan, const char *ip) {
    iface record{};
    const std::string name = "vlan" + std::to_string(vlan);
    std::copy(name.begin(), name.end(), record.name);
    record.in_use = 1;
    record.ifindex = 1024 + vlan;
    record.if_ip = address(ip);
    std::copy(relay_mac.begin(), relay_mac.end(), record.if_mac);
    record.if_maclen = 6;
    return record;
}

// The relay's own address on a VLAN.
std::string relay_address(unsigned vlan) {
    if (vlan == client_vlan) return "10.10.0.1";
    return "10." + std::to_string(100 + vlan / 256) + "." + std::to_string(vlan % 256) + ".1";
}

arrival framed(const octets &message, const frame_fields &fields) {
    arrival result;
    result.frame.resize(frame_header + message.size());
    std::copy(message.begin(), message.end(), result.frame.begin() + frame_header);
    write_frame_header(result.frame.data(), fields, message.size());
    return result;
}

std::size_t waiting = 0;  // copies

void enter_waiting() {
    waiting = 0;
    ravo::platform::books_enter_waiting();
}

void wait() {
    using namespace ravo::platform;
    if (waiting == books_waiting_limit) books_settle_waiting();
    if (!books_may_wait()) return;
    (void)books_wait();
    ++waiting;
}

void name_source(const arrival &what, sockaddr *from, socklen_t *from_length) {
    std::array<std::uint8_t, OSAL_CHANNEL_NAME_SIZE> record{};
    std::memcpy(record.data() + OSAL_CHANNEL_PORT, &what.port, sizeof what.port);
    std::memcpy(record.data() + OSAL_CHANNEL_VLAN, &what.vlan, sizeof what.vlan);
    *from_length = std::min<socklen_t>(*from_length, record.size());
    std::memcpy(from, record.data(), *from_length);
}

ssize_t hand_over(void *buffer, std::size_t size, sockaddr *from, socklen_t *from_length) {
    using namespace ravo::platform;
    books_close();
    dhcp_frame frame;
    if (channel_frame_decode(at_hand->frame, at_hand->aux, &frame) != frame_result::ok) return -1;
    books_open(at_hand->vlan, at_hand->port, at_hand->frame, frame.udp.subspan(channel_udp_header_size), {}, ++now_us);
    name_source(*at_hand, from, from_length);
    return static_cast<ssize_t>(channel_frame_copy(frame, buffer, size));
}

}  // namespace

octets discover_options() {
    return {53, 1, 1,                                          // DISCOVER
            61, 7, 1,   0x02, 0xC1, 0x1E, 0,   0,   1,         // client identifier
            12, 6, 'l', 'a',  'p',  't',  'o', 'p',            // host name
            60, 5, 'p', 'h',  'o',  'n',  'e',                 // vendor class
            57, 2, 5,   220,                                   // largest message
            55, 8, 1,   3,    6,    12,   15,  28,  42, 121};  // parameters asked for
}

octets offer_options() {
    return {53, 1, 2,                  // OFFER
            54, 4, 192, 0,   2,   11,  // server
            51, 4, 0,   0,   14,  16,  // lease time
            1,  4, 255, 255, 255, 0,   // netmask
            3,  4, 10,  10,  0,   1,   // router
            6,  4, 192, 0,   2,   53};
}

octets option82(unsigned vlan) {
    const auto low = static_cast<std::uint8_t>(vlan % 256);
    const auto high = static_cast<std::uint8_t>(vlan / 256);
    return joined({{82, 18, 1, 6, 0, 4, low, high, 1, 1, 2, 8, 0, 6}, {relay_mac.begin(), relay_mac.end()}});
}

octets joined(std::initializer_list<octets> parts) {
    octets result;
    for (const octets &part : parts) result.insert(result.end(), part.begin(), part.end());
    return result;
}

octets message(std::uint8_t op, const octets &options, unsigned vlan) {
    octets result(options_at);
    result[0] = op;
    result[1] = 1;
    result[2] = 6;
    if (op == op_reply) {
        const std::uint32_t yiaddr = address("10.10.0.50");
        const std::uint32_t giaddr = address(relay_address(vlan).c_str());
        std::memcpy(result.data() + 16, &yiaddr, 4);
        std::memcpy(result.data() + 24, &giaddr, 4);
    }
    std::copy(client_mac.begin(), client_mac.end(), result.begin() + 28);
    constexpr std::uint8_t cookie[] = {99, 130, 83, 99};
    std::copy(std::begin(cookie), std::end(cookie), result.begin() + 236);
    result.insert(result.end(), options.begin(), options.end());
    result.push_back(255);
    result.resize(std::max(result.size(), least_message));
    return result;
}

void set_xid(octets &bytes, std::size_t message_at, std::uint32_t xid) {
    std::memcpy(bytes.data() + message_at + 4, &xid, sizeof xid);
}

void start_box(const settings &wanted) {
    ravo::platform::books_close();
    ravo::platform::books_on_wait(enter_waiting);
    ravo_db_init();
    ravo_agent agent{};
    ravo_db_agent_get(&agent);
    agent.relay_enable = 1;
    agent.option_state = wanted.option_state;
    agent.check = wanted.check;
    ravo_db_agent_set(&agent);

    clients = interface_of(client_vlan, relay_address(client_vlan).c_str());
    clients.server_db[0] = address("192.0.2.11");
    clients.server_count = 1;
    const iface uplink = interface_of(99, "192.0.2.1");
    (void)ravo_db_if_add(&clients);
    (void)ravo_db_if_add(&uplink);
    sent = 0;
}

void add_interfaces(unsigned count) {
    for (unsigned vlan = first_added; vlan < first_added + count && vlan <= 4094; ++vlan) {
        iface made = interface_of(vlan, relay_address(vlan).c_str());
        made.server_db[0] = address("192.0.2.11");
        made.server_count = 1;
        (void)ravo_db_if_add(&made);
    }
}

const iface &client_interface() {
    return clients;
}

arrival from_client(const octets &message, unsigned vlan) {
    arrival result = framed(message, {.destination_mac = everybody.data(),
                                      .source_mac = client_mac.data(),
                                      .source = 0,
                                      .destination = INADDR_BROADCAST,
                                      .source_port = 68,
                                      .destination_port = 67});
    result.vlan = static_cast<std::uint16_t>(vlan);
    return result;
}

arrival from_server(const octets &message, unsigned vlan) {
    arrival result = framed(message, {.destination_mac = relay_mac.data(),
                                      .source_mac = everybody.data(),
                                      .source = address("192.0.2.11"),
                                      .destination = address(relay_address(vlan).c_str()),
                                      .source_port = 67,
                                      .destination_port = 67});
    result.vlan = 99;
    result.port = port_1_9;
    return result;
}

void receive(const arrival &what) {
    at_hand = &what;
    ravo_l2_listen_hdlr(/*fd=*/0, /*arg=*/nullptr);
}

std::uint64_t sent_count() {
    return sent;
}

}  // namespace bench

// ---- The sockets ----

int osal_socket(int, int, int) {
    return 0;
}
int osal_bind(int, const sockaddr *, socklen_t) {
    return 0;
}
int osal_setsockopt(int, int, int, const void *, socklen_t) {
    return 0;
}
int osal_close(int) {
    return 0;
}

ssize_t osal_recvfrom(int, void *buffer, std::size_t size, int, sockaddr *from, socklen_t *from_length) {
    return bench::hand_over(buffer, size, from, from_length);
}

ssize_t osal_recvmsg(int, msghdr *, int) {
    errno = EAGAIN;
    return -1;
}

ssize_t osal_sendto(int, const void *, std::size_t size, int, const sockaddr *, socklen_t) {
    bench::wait();
    ++bench::sent;
    return static_cast<ssize_t>(size);
}

void osal_gather(int, osal_refused) {}

ssize_t osal_sendmsg(int, const msghdr *msg, int) {
    bench::wait();
    ++bench::sent;
    std::size_t size = 0;
    for (std::size_t i = 0; i < msg->msg_iovlen; ++i) size += msg->msg_iov[i].iov_len;
    return static_cast<ssize_t>(size);
}

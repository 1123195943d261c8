// SPDX-License-Identifier: Apache-2.0
// A relay under test: settings and interfaces by named fields, messages in by VLAN and port, what was sent out.
#ifndef PACKET_RELAY_H
#define PACKET_RELAY_H

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <ostream>
#include <string>
#include <vector>

#include "dhcp.h"
#include "fake_platform.h"
#include "packet_bytes.h"
#include "packet_frame.h"
#include "packet_message.h"
#include "packet_pcap.h"
#include "pkt_origin.h"
#include "ravo_db.h"
#include "ravo_db_if.h"
#include "ravo_db_xid.h"
#include "ravo_if_receive.h"
#include "ravo_if_socket.h"
#include "ravo_if_state.h"
#include "ravo_life.h"

namespace fake {

inline void PrintTo(const line &entry, std::ostream *out) {
    *out << entry.level << ' ' << testing::PrintToString(entry.text);
}

}  // namespace fake

namespace packet {

// ---- Settings and interfaces ----

struct settings {
    std::uint32_t relay_enable = 1;
    std::uint32_t option_state = 0;
    std::uint32_t policy = 1;
    std::uint32_t check = 1;
    std::uint32_t hops = 4;
};

inline void set(const settings &wanted) {
    ravo_agent agent{};
    ravo_db_agent_get(&agent);
    agent.relay_enable = wanted.relay_enable;
    agent.option_state = wanted.option_state;
    agent.policy = wanted.policy;
    agent.check = wanted.check;
    agent.hops = wanted.hops;
    ravo_db_agent_set(&agent);
}

struct interface_of {
    int vlan = 100;
    std::string address = "192.0.2.1";
    bytes mac = relay_mac;
    std::uint32_t maclen = 6;
    std::uint32_t trusted = 0;
    std::uint32_t local_relay = 0;
    std::vector<std::string> servers = {"198.51.100.1"};
};

inline iface record(const interface_of &wanted = {}) {
    iface result{};
    const std::string name = "vlan" + std::to_string(wanted.vlan);
    std::memcpy(result.name, name.c_str(), name.size());
    result.in_use = 1;
    result.ifindex = static_cast<std::uint32_t>(1024 + wanted.vlan);
    result.if_ip = fake::address(wanted.address.c_str());
    std::copy(wanted.mac.begin(), wanted.mac.end(), result.if_mac);
    result.if_maclen = wanted.maclen;
    result.trusted = wanted.trusted;
    result.local_relay_state = wanted.local_relay;
    for (std::size_t i = 0; i < wanted.servers.size(); ++i)
        result.server_db[i] = fake::address(wanted.servers[i].c_str());
    result.server_count = static_cast<std::uint32_t>(wanted.servers.size());
    return result;
}

inline void store(const interface_of &wanted = {}) {
    const iface result = record(wanted);
    ASSERT_EQ(ravo_db_if_add(&result), 1);
}

// ---- Messages in ----

inline constexpr std::uint32_t port_2_1 = 5185;  // module 2, port 1

struct arriving {
    std::uint16_t vlan = 100;
    std::uint32_t port = port_2_1;
    std::string source = "0.0.0.0";
    std::string destination = "255.255.255.255";
    unsigned source_port = 68;
};

// What the layer-2 channel puts in front of a message: 16 bytes of the IPv4 header and the UDP header.
inline bytes channel_headers(const arriving &from, std::size_t size) {
    bytes data = {0, 0, 0, 0, 64, 17, 0, 0};
    put_address(data, from.source);
    put_address(data, from.destination);
    put16(data, from.source_port);
    put16(data, 67);
    put16(data, static_cast<unsigned>(8 + size));
    put16(data, 0);
    return data;
}

inline bytes channel_bytes(const bytes &msg, const arriving &from = {}) {
    return join({channel_headers(from, msg.size()), msg});
}

// Hands a message to the handler of the channel.
inline void receive(const bytes &msg, const arriving &from = {}) {
    ASSERT_EQ(fake::receive_on_channel({channel_bytes(msg, from), from.port, from.vlan}), 1);
}

// ---- What came out ----

// The counters as one row, in the order they are shown.
inline std::vector<std::uint32_t> counters() {
    const ravo_rx_counter_table &c = ravo_rx_counters;
    return {c.discover, c.offer, c.request, c.ack, c.decline, c.nak, c.inform, c.release};
}

inline std::vector<std::uint32_t> difference(const std::vector<std::uint32_t> &after,
                                             const std::vector<std::uint32_t> &before) {
    std::vector<std::uint32_t> result;
    for (std::size_t i = 0; i < after.size(); ++i) result.push_back(after[i] - before[i]);
    return result;
}

inline const std::vector<std::uint32_t> nothing_counted(8, 0);

// What one message of each type counts, from type 1 on. Shown are DISCOVER, OFFER, REQUEST, ACK, DECLINE, NAK, INFORM,
// RELEASE, in this order.
inline const std::vector<std::vector<std::uint32_t>> counted_by_type = {
    {1, 0, 0, 0, 0, 0, 0, 0},  // 1 DISCOVER
    {0, 1, 0, 0, 0, 0, 0, 0},  // 2 OFFER
    {0, 0, 1, 0, 0, 0, 0, 0},  // 3 REQUEST
    {0, 0, 0, 0, 1, 0, 0, 0},  // 4 DECLINE
    {0, 0, 0, 1, 0, 0, 0, 0},  // 5 ACK
    {0, 0, 0, 0, 0, 1, 0, 0},  // 6 NAK
    {0, 0, 0, 0, 0, 0, 0, 1},  // 7 RELEASE
    {0, 0, 0, 0, 0, 0, 1, 0},  // 8 INFORM
};

// The trace of a new option 82: 60 bytes from its data on.
inline std::vector<fake::line> dump_lines(const bytes &behind_code_and_length) {
    std::vector<fake::line> result = {{101, "addAgentOption (#):(index/value/hex)\n"}};
    for (std::size_t i = 0; i < 60; ++i) {
        if (i % 10 == 0) result.push_back({101, "\n"});
        const unsigned value = i < behind_code_and_length.size() ? behind_code_and_length[i] : 0;
        char text[40];
        std::snprintf(text, sizeof text, "(%zu/%u/%x))\t", i, value, value);
        result.push_back({101, text});
    }
    result.push_back({101, "\n"});
    return result;
}

inline std::vector<fake::line> lines(std::initializer_list<std::vector<fake::line>> parts) {
    std::vector<fake::line> result;
    for (const auto &part : parts) result.insert(result.end(), part.begin(), part.end());
    return result;
}

// The transaction stored for a message, as {module, port}; empty when there is none.
inline std::vector<std::uint32_t> transaction(const message &msg) {
    xid_entry entry{};
    entry.xid = stored_xid(msg);
    if (ravo_db_xid_get(&entry) == 0) return {};
    return {entry.module, entry.port};
}

inline void remember(const message &msg, std::uint32_t module = 2, std::uint32_t port = 1) {
    xid_entry entry{};
    entry.xid = stored_xid(msg);
    entry.module = module;
    entry.port = port;
    ASSERT_EQ(ravo_db_xid_update(&entry), 1);
}

// Each test starts from a relay whose databases are empty and whose sockets are open: channel 100, raw 101, server 102.
class relay_test : public testing::Test {
  protected:
    void SetUp() override {
        fake::reset();
        ravo_db_init();
        ASSERT_EQ(RAVO_IF_Create_fd(), 0U);
        set({});
        fake::forget();
        counted_before = counters();
    }
    void TearDown() override {
        leave_pcap();
        ravo_if_close_all_fd();
        ravo_db_exit();
        EXPECT_EQ(fake::leftovers(), std::vector<std::string>{});
    }

    std::vector<std::uint32_t> counted() const { return difference(counters(), counted_before); }

    // Nothing left the relay.
    static void expect_silence() {
        EXPECT_EQ(fake::frames.size(), 0U);
        EXPECT_EQ(fake::datagrams.size(), 0U);
    }

    // Exactly one datagram left: these bytes, to this server, from the server socket.
    static void expect_only_datagram(const std::string &to, const bytes &payload) {
        EXPECT_EQ(fake::frames.size(), 0U);
        ASSERT_EQ(fake::datagrams.size(), 1U);
        EXPECT_EQ(fake::datagrams[0].fd, 102);
        EXPECT_EQ(fake::datagrams[0].to, to);
        EXPECT_EQ(fake::datagrams[0].flags, 0);
        EXPECT_BYTES(payload, fake::datagrams[0].payload);
    }

    // Exactly one frame left: these bytes, by this way.
    static void expect_only_frame(const frame_of &frame, const leaving &where = {}) {
        EXPECT_EQ(fake::datagrams.size(), 0U);
        ASSERT_EQ(fake::frames.size(), 1U);
        expect_descriptor(fake::frames[0], where);
        EXPECT_BYTES(encode(frame), fake::frames[0].payload);
    }

    // The message in hand has exactly these outcomes, the last of which counts.
    static void expect_outcomes(const std::vector<relay_outcome> &expected) { EXPECT_EQ(fake::outcomes, expected); }

  private:
    std::vector<std::uint32_t> counted_before;
};

// A message as the relay's own procedures get it: in a message_buffer.
struct held_message {
    message_buffer buffer;
    std::uint32_t length;

    explicit held_message(const bytes &data) : length(static_cast<std::uint32_t>(data.size())) {
        std::memcpy(buffer.data(), data.data(), std::min(data.size(), std::size_t{message_buffer::size}));
    }
    std::uint8_t *data() { return buffer.data(); }
    std::uint8_t *options() { return buffer.data() + 236; }
    std::uint8_t *first_option() { return buffer.data() + 240; }
    bytes copy(std::size_t size) const { return {buffer.bytes, buffer.bytes + size}; }
};

}  // namespace packet

#endif

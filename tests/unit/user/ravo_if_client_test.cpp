// SPDX-License-Identifier: Apache-2.0
// Frames towards clients, byte for byte.
#include "ravo_if_client.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "packet_relay.h"

namespace {

using packet::bytes;
using packet::circuit_id;
using packet::client_mac;
using packet::everybody;
using packet::frame_of;
using packet::held_message;
using packet::hex;
using packet::join;
using packet::message;
using packet::opt;
using packet::remote_id;
using packet::type;

using trace_lines = std::vector<fake::line>;

constexpr pkt_origin origin = {100, packet::port_2_1};

class Client : public packet::relay_test {};

message offer() {
    return packet::reply_message({type(2), packet::end()});
}

void deliver(const message &msg, pkt_origin from = origin) {
    fake::forget();
    held_message held(encode(msg));
    const iface relay = packet::record();
    ravo_if_send_to_client(&relay, held.data(), held.data(), held.length, from);
}

TEST_F(Client, FrameWhoseUdpChecksumIsZeroGoesOutWithZero) {
    message msg = offer();
    msg.secs = 0;
    // The sum is brought to 0xFFFF by the one field that nothing else depends on.
    const bytes with_zero = encode(frame_of{.to_ip = "192.0.2.50", .payload = encode(msg)});
    msg.secs = static_cast<std::uint16_t>(with_zero[40] << 8 | with_zero[41]);
    deliver(msg);
    ASSERT_EQ(fake::frames.size(), 1U);
    EXPECT_BYTES(hex("00 00"), packet::part_of(fake::frames[0].payload, 40, 2));
    expect_only_frame({.to_ip = "192.0.2.50", .payload = encode(msg)});
}

// ---- The frame ----

TEST_F(Client, FrameHeaderByteForByte) {
    deliver(offer());
    ASSERT_EQ(fake::frames.size(), 1U);
    packet::expect_descriptor(fake::frames[0], {});
    bytes header =
        hex("02 c1 1e 00 00 01   # Ethernet destination: the client\n"
            "00 00 5e 00 53 01   # Ethernet source: the relay interface\n"
            "08 00               # IPv4, no tag\n"
            "45 00               # version, header length, type of service\n"
            "01 10               # total length 20 + 8 + 244\n"
            "00 00 40 00         # identification, don't fragment\n"
            "40 11               # time to live 64, UDP\n"
            "00 00               # checksum, below\n"
            "c0 00 02 01         # source 192.0.2.1\n"
            "c0 00 02 32         # destination 192.0.2.50\n"
            "00 43 00 44         # ports 67, 68\n"
            "00 fc               # UDP length 8 + 244\n"
            "00 00               # checksum, below\n");
    ASSERT_EQ(header.size(), 42U);
    const bytes whole = encode(frame_of{.to_ip = "192.0.2.50", .payload = encode(offer())});
    header[24] = whole[24];
    header[25] = whole[25];
    header[40] = whole[40];
    header[41] = whole[41];
    EXPECT_BYTES(join({header, encode(offer())}), fake::frames[0].payload);
    // The sum over a correct header is 0xFFFF: its complement is 0.
    EXPECT_EQ(packet::internet_checksum(packet::part_of(fake::frames[0].payload, 14, 20)), 0U);
}

TEST_F(Client, FrameLeavesByItsInterfaceWithTheIngressRecord) {
    fake::forget();
    held_message held(encode(offer()));
    const iface relay = packet::record({.vlan = 4094, .address = "10.9.8.7", .mac = hex("02 aa bb cc dd ee")});
    ravo_if_send_to_client(&relay, held.data(), held.data(), held.length, {0xDEADBEEF, 0x80000001});
    expect_only_frame({.from_mac = hex("02 aa bb cc dd ee"),
                       .from_ip = "10.9.8.7",
                       .to_ip = "192.0.2.50",
                       .payload = encode(offer())},
                      {.ifindex = 5118, .vlan = 0xDEADBEEF, .port = 0x80000001});
    EXPECT_THAT(fake::traces(101), testing::Contains("iface->if_ip 10.9.8.7\n"));
    EXPECT_THAT(fake::traces(101), testing::Contains("iface->if_mac 02.aa.bb.cc.dd.ee, iface->if_maclen=6\n"));
}

TEST_F(Client, AllOfTheHeaderThatTheCallerDoesNotSetIsWritten) {
    bytes frame(42, 0xFF);
    const bytes destination = hex("02 c1 1e 00 00 01");
    std::copy(destination.begin(), destination.end(), frame.begin());
    packet::store16(frame, 12, 0x0800);
    const bytes to_ip = hex("c0 00 02 32");
    std::copy(to_ip.begin(), to_ip.end(), frame.begin() + 30);
    packet::store16(frame, 34, 67);
    packet::store16(frame, 36, 68);
    fake::forget();
    held_message held(encode(offer()));
    const iface relay = packet::record();
    sendEtherFrame(&relay, frame.data(), held.data(), held.length, origin);
    expect_only_frame({.to_ip = "192.0.2.50", .payload = encode(offer())});
}

TEST_F(Client, MessagesOfEveryLengthAreSummed) {
    for (std::size_t size = 0; size < 40; ++size) {
        message msg = offer();
        bytes name(size);
        for (std::size_t i = 0; i < size; ++i) name[i] = static_cast<std::uint8_t>(0xF0 + i);
        msg.options = {type(2), opt(12, name), packet::end()};
        deliver(msg);
        expect_only_frame({.to_ip = "192.0.2.50", .payload = encode(msg)});
    }
}

TEST_F(Client, SendingTracesTheseLines) {
    deliver(offer());
    const trace_lines expected = {{101, "ravo_if_send_to_client (#)\n"},
                                  {101, "sendEtherFrame (#): interface=vlan100, face->if_maclen=6, sizeof 6\n"},
                                  {101, "===========msg ====================\n"},
                                  {101, "sendEtherFrame (#): raw_sock_fd=101, res 286"},
                                  {101, "interface=vlan100\n"},
                                  {101, "iface->if_ip 192.0.2.1\n"},
                                  {101, "iface->if_mac 00.00.5e.00.53.01, iface->if_maclen=6\n"}};
    EXPECT_EQ(fake::traces(), expected);
    expect_outcomes({OUTCOME_DELIVERED});
}

TEST_F(Client, FailedSendIsTracedAndNotRepeated) {
    fake::script(fake::op::sendmsg, {.error = ENETDOWN});
    deliver(offer());
    expect_silence();
    const trace_lines expected = {{101, "ravo_if_send_to_client (#)\n"},
                                  {101, "sendEtherFrame (#): interface=vlan100, face->if_maclen=6, sizeof 6\n"},
                                  {104, "sendEtherFrame (#): raw_sock_fd=101, sendmsg error Network is down\n"},
                                  {101, "===========msg ====================\n"},
                                  {101, "sendEtherFrame (#): raw_sock_fd=101, res -1"},
                                  {101, "interface=vlan100\n"},
                                  {101, "iface->if_ip 192.0.2.1\n"},
                                  {101, "iface->if_mac 00.00.5e.00.53.01, iface->if_maclen=6\n"}};
    EXPECT_EQ(fake::traces(), expected);
    expect_outcomes({OUTCOME_SEND_FAILED});
}

TEST_F(Client, ASendOfAnyBytesCountsAsOne) {
    fake::script(fake::op::sendmsg, {.result = 1});
    deliver(offer());
    EXPECT_EQ(fake::traces(104), std::vector<std::string>{});
    EXPECT_THAT(fake::traces(101), testing::Contains("sendEtherFrame (#): raw_sock_fd=101, res 1"));
    expect_outcomes({OUTCOME_DELIVERED});
    fake::script(fake::op::sendmsg, {.error = ENETDOWN, .result = 0});
    deliver(offer());
    EXPECT_EQ(fake::traces(104),
              std::vector<std::string>{"sendEtherFrame (#): raw_sock_fd=101, sendmsg error Network is down\n"});
    expect_outcomes({OUTCOME_SEND_FAILED});
}

TEST_F(Client, WhatIsRefusedAfterwardsIsTracedAsWhatFailsAtOnce) {
    ASSERT_TRUE(fake::refuse(101, nullptr, ENETDOWN));
    const trace_lines expected = {{104, "sendEtherFrame (#): raw_sock_fd=101, sendmsg error Network is down\n"}};
    EXPECT_EQ(fake::traces(), expected);
    expect_outcomes({});
}

TEST_F(Client, HardwareAddressMustHave6Bytes) {
    held_message held(encode(offer()));
    for (const std::uint32_t maclen : {0U, 5U, 7U, 16U}) {
        const iface relay = packet::record({.maclen = maclen});
        EXPECT_DEATH(ravo_if_send_to_client(&relay, held.data(), held.data(), held.length, origin),
                     "user/src/ravo_if:[0-9]+: sendEtherFrame: Assertion 'iface->if_maclen == "
                     "sizeof\\(frame->eth.ether_dhost\\)' failed");
    }
}

// ---- Who a reply goes to ----

struct delivery {
    std::uint8_t htype;
    std::uint8_t hlen;
    std::uint16_t flags;
    std::string yiaddr;
    bytes to_mac;
    std::string to_ip;
};

TEST_F(Client, MacAndAddressAreChosenIndependently) {
    const std::vector<delivery> rows = {
        {1, 6, 0x0000, "192.0.2.50", client_mac, "192.0.2.50"},
        {1, 6, 0x8000, "192.0.2.50", client_mac, "255.255.255.255"},
        {1, 6, 0x0000, "0.0.0.0", client_mac, "255.255.255.255"},
        {1, 6, 0x8000, "0.0.0.0", client_mac, "255.255.255.255"},
        {6, 6, 0x0000, "192.0.2.50", everybody, "192.0.2.50"},
        {1, 5, 0x0000, "192.0.2.50", everybody, "192.0.2.50"},
        {1, 16, 0x8000, "192.0.2.50", everybody, "255.255.255.255"},
        {0, 0, 0x0000, "0.0.0.0", everybody, "255.255.255.255"},
        {1, 6, 0x7FFF, "192.0.2.50", client_mac, "192.0.2.50"},  // only the top bit is the broadcast bit
    };
    for (const delivery &row : rows) {
        message msg = offer();
        msg.htype = row.htype;
        msg.hlen = row.hlen;
        msg.flags = row.flags;
        msg.yiaddr = row.yiaddr;
        deliver(msg);
        expect_only_frame({.to_mac = row.to_mac, .to_ip = row.to_ip, .payload = encode(msg)});
    }
}

TEST_F(Client, ClientAndRelayAddressAreNotConsulted) {
    message msg = offer();
    msg.yiaddr = "0.0.0.0";
    msg.ciaddr = "192.0.2.60";
    msg.giaddr = "192.0.2.61";
    deliver(msg);
    expect_only_frame({.to_ip = "255.255.255.255", .payload = encode(msg)});
}

TEST_F(Client, OnlyRepliesAreDelivered) {
    for (const std::uint8_t op : bytes{0, 1, 3}) {
        message msg = offer();
        msg.op = op;
        held_message held(encode(msg));
        const iface relay = packet::record();
        EXPECT_DEATH(ravo_if_send_to_client(&relay, held.data(), held.data(), held.length, origin),
                     "user/src/ravo_if:[0-9]+: ravo_if_send_to_client: Assertion 'header->op == opBOOTREPLY' failed");
    }
}

// ---- Rebroadcast ----

TEST_F(Client, LocalRelayBroadcastsFromPort68To67) {
    message msg;
    msg.flags = 0;
    msg.yiaddr = "192.0.2.50";
    held_message held(encode(msg));
    const iface relay = packet::record();
    ravo_if_send_local_relay(&relay, held.data(), held.data(), held.length, origin);
    expect_only_frame({.to_mac = everybody, .from_port = 68, .to_port = 67, .payload = encode(msg)});
    expect_outcomes({OUTCOME_REBROADCAST});
    EXPECT_EQ(fake::traces().front(),
              (fake::line{101, "sendEtherFrame (#): interface=vlan100, face->if_maclen=6, sizeof 6\n"}));
}

TEST_F(Client, LocalRelaySendsOnlyRequests) {
    for (const std::uint8_t op : bytes{0, 2, 3}) {
        message msg;
        msg.op = op;
        held_message held(encode(msg));
        const iface relay = packet::record();
        EXPECT_DEATH(
            ravo_if_send_local_relay(&relay, held.data(), held.data(), held.length, origin),
            "user/src/ravo_if:[0-9]+: ravo_if_send_local_relay: Assertion 'header->op == opBOOTREQUEST' failed");
    }
}

}  // namespace

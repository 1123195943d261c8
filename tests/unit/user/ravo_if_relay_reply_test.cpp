// SPDX-License-Identifier: Apache-2.0
// The relay's decisions about replies, and sending.
#include "ravo_if_relay.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "relay_decisions.h"

namespace {

using packet::agent_info;
using packet::bytes;
using packet::decide;
using packet::frame_of;
using packet::held_message;
using packet::hex;
using packet::join;
using packet::message;
using packet::no_transaction;
using packet::opt;
using packet::option82;
using packet::relayed;
using packet::text;
using packet::to_client;
using packet::trace_lines;
using packet::type;

using strings = std::vector<std::string>;
using words = std::vector<std::uint32_t>;

constexpr pkt_origin origin = packet::from_port_2_1;
const std::string server = packet::server_1;

class Relay : public packet::relay_test {};

message request(const std::vector<bytes> &options = {type(packet::discover), packet::end()}) {
    return packet::request_with(options);
}

// ---- Replies and their check ----

TEST_F(Relay, CheckedReplyLosesOption82) {
    packet::set({.option_state = 1});
    for (const std::string &giaddr : strings{"192.0.2.1", "0.0.0.0"}) {
        message msg = packet::reply_message({type(5), option82(), opt(12, text("pc")), packet::end()});
        msg.giaddr = giaddr;
        packet::remember(msg);
        decide(msg, {.trusted = 1});
        expect_only_frame(to_client(relayed(msg, {type(5), opt(12, text("pc")), packet::end()})));
        EXPECT_EQ(packet::transaction(msg), no_transaction);
    }
}

TEST_F(Relay, SecondReplyOfATransactionIsDropped) {
    packet::set({.option_state = 1});
    const message msg = packet::reply_message({type(2), option82(), packet::end()});
    packet::remember(msg);
    decide(msg);
    ASSERT_EQ(fake::frames.size(), 1U);
    decide(msg);
    expect_silence();
    expect_outcomes({OUTCOME_UNKNOWN_TRANSACTION});
}

TEST_F(Relay, RefusedReplyIsDropped) {
    packet::set({.option_state = 1});
    struct row {
        std::vector<bytes> options;
        bool remembered;
        relay_outcome outcome;
    };
    const std::vector<row> rows = {
        {{type(2), packet::end()}, true, OUTCOME_NO_OPTION82},
        {{type(2), opt(82, hex("02 08 00 06 00 00 5e 00 53 01")), packet::end()}, true, OUTCOME_NO_OPTION82},
        {{type(2), option82(), packet::end()}, false, OUTCOME_UNKNOWN_TRANSACTION},
        {{type(2), option82({.vlan = 101}), packet::end()}, true, OUTCOME_CIRCUIT_ID},
        {{type(2), option82({.module = 3}), packet::end()}, true, OUTCOME_CIRCUIT_ID},
        {{type(2), option82({.port = 3}), packet::end()}, true, OUTCOME_CIRCUIT_ID},
        {{type(2), option82({.mac = hex("00 00 5e 00 53 02")}), packet::end()}, true, OUTCOME_REMOTE_ID},
    };
    for (std::size_t i = 0; i < rows.size(); ++i) {
        message msg = packet::reply_message(rows[i].options);
        msg.xid = static_cast<std::uint32_t>(0x300 + i);
        if (rows[i].remembered) packet::remember(msg);
        decide(msg);
        expect_silence();
        expect_outcomes({rows[i].outcome});
    }
}

TEST_F(Relay, UncheckedReplyLosesOption82WhateverItSays) {
    packet::set({.option_state = 1, .check = 0});
    const message msg = packet::reply_message({type(2), option82({.vlan = 9}), packet::end()});
    decide(msg);
    expect_only_frame(to_client(relayed(msg, {type(2), packet::end()})));
}

TEST_F(Relay, OnlyCheckOneChecks) {
    packet::set({.option_state = 1, .check = 2});
    decide(packet::reply_message({type(2), packet::end()}));
    expect_only_frame(to_client(relayed(packet::reply_message({}), {type(2), packet::end()})));
    decide(request());
    EXPECT_EQ(packet::transaction(request()), no_transaction);
}

TEST_F(Relay, UncheckedReplyWithoutOption82IsDelivered) {
    packet::set({.option_state = 1, .check = 0});
    const message msg = packet::reply_message({type(2), packet::end()});
    decide(msg);
    expect_only_frame(to_client(relayed(msg, msg.options)));
}

TEST_F(Relay, OnlyTheLastOfTwoOptions82IsRemoved) {
    packet::set({.option_state = 1, .check = 0});
    const message msg =
        packet::reply_message({type(2), option82(), option82({.vlan = 7}), opt(12, text("pc")), packet::end()});
    decide(msg);
    expect_only_frame(to_client(relayed(msg, {type(2), option82(), opt(12, text("pc")), packet::end()})));
}

TEST_F(Relay, ReplyOnAnInterfaceWithoutHardwareAddressIsATracedDrop) {
    for (const std::uint32_t option_state : words{0, 1}) {
        packet::set({.option_state = option_state, .check = 0});
        decide(packet::reply_message({type(2), packet::end()}), {.mac = {}, .maclen = 0});
        expect_silence();
        EXPECT_EQ(fake::traces().back(),
                  (fake::line{104, "ravo_if_handle_pkt (#): interface vlan100 has no hardware address, drop\n"}));
        expect_outcomes({OUTCOME_NO_HARDWARE_ADDRESS});
    }
}

TEST_F(Relay, RequestOnAnInterfaceWithoutHardwareAddressIsRelayed) {
    const message msg = request();
    decide(msg, {.mac = {}, .maclen = 0});
    expect_only_datagram(server, encode(relayed(msg, msg.options)));
}

// ---- Options 60 and 61 choose servers only beside option 82 ----

packet::interface_of plain() {
    return {.trusted = 1, .servers = {"198.51.100.1"}};
}

void decide_with_chosen_servers(const message &msg) {
    iface relay = packet::record(plain());
    relay.opt60_count = 1;
    relay.opt60_hosts[0].used = 1;
    std::memcpy(relay.opt60_hosts[0].vendor, "printer", 8);
    relay.opt60_hosts[0].server = fake::address("198.51.100.60");
    relay.opt61_count = 1;
    relay.opt61_hosts[0].used = 1;
    std::memcpy(relay.opt61_hosts[0].client_id, "\1\2\3\4", 4);
    relay.opt61_hosts[0].client_id_len = 4;
    relay.opt61_hosts[0].server = fake::address("198.51.100.61");
    held_message held(encode(msg));
    fake::forget();
    ravo_if_handle_pkt(&relay, held.data(), held.length, origin);
}

strings receivers() {
    strings result;
    for (const fake::datagram &sent : fake::datagrams) result.push_back(sent.to);
    return result;
}

TEST_F(Relay, IdentifiersWithoutOption82UseThePlainServers) {
    decide_with_chosen_servers(
        request({type(1), opt(60, text("printer")), opt(61, hex("01 02 03 04")), packet::end()}));
    EXPECT_EQ(receivers(), strings{"198.51.100.1:67"});
}

TEST_F(Relay, IdentifiersBesideOption82ChooseTheirServers) {
    decide_with_chosen_servers(
        request({type(1), opt(60, text("printer")), opt(61, hex("01 02 03 04")), option82(), packet::end()}));
    EXPECT_EQ(receivers(), (strings{"198.51.100.60:67", "198.51.100.61:67"}));
}

// ---- Sending ----

TEST_F(Relay, RequestWithoutServersIsDropped) {
    decide(request(), {.servers = {}});
    expect_silence();
    EXPECT_EQ(fake::traces().back(), (fake::line{101, "ravo_if_send_server_Unicast (#): server_db[3].s_addr==0\n"}));
    expect_outcomes({OUTCOME_NO_SERVER});
}

TEST_F(Relay, RequestThatCannotBeSentIsDropped) {
    held_message held(encode(request()));
    const iface relay = packet::record();
    fake::script(fake::op::sendto, {.error = ENETUNREACH});
    ravo_if_handle_pkt(&relay, held.data(), held.length, origin);
    expect_silence();
    EXPECT_THAT(fake::traces(),
                testing::Contains(fake::line{
                    104, "ravo_if_send_server_Unicast (#): sock_fd=102, sendmsg error Network is unreachable\n"}));
    expect_outcomes({OUTCOME_SEND_FAILED});
}

TEST_F(Relay, ReplyThatCannotBeSentIsDropped) {
    held_message held(encode(packet::reply_message({type(2), packet::end()})));
    const iface relay = packet::record();
    fake::script(fake::op::sendmsg, {.error = ENXIO});
    ravo_if_handle_pkt(&relay, held.data(), held.length, origin);
    expect_silence();
    EXPECT_THAT(fake::traces(),
                testing::Contains(
                    fake::line{104, "sendEtherFrame (#): raw_sock_fd=101, sendmsg error No such device or address\n"}));
    expect_outcomes({OUTCOME_SEND_FAILED});
}

TEST_F(Relay, EachServerGetsOneCopy) {
    const message msg = request();
    decide(msg, {.servers = {"198.51.100.1", "198.51.100.2", "198.51.100.3", "198.51.100.4"}});
    EXPECT_EQ(receivers(), (strings{"198.51.100.1:67", "198.51.100.2:67", "198.51.100.3:67", "198.51.100.4:67"}));
    for (const fake::datagram &sent : fake::datagrams) EXPECT_BYTES(encode(relayed(msg, msg.options)), sent.payload);
}

}  // namespace

// SPDX-License-Identifier: Apache-2.0
// The relay's decisions about its own clients' messages, one row of the decision table after the other.
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
const std::string relay_address = packet::traced_number("C0000201"), xid = packet::traced_number("A1B2C3D4", true);

class Relay : public packet::relay_test {};

message request(const std::vector<bytes> &options = {type(packet::discover), packet::end()}) {
    return packet::request_with(options);
}

// ---- Every line of a request and of a reply ----

TEST_F(Relay, TracesOfAWholeRequest) {
    packet::set({.option_state = 1});
    const message msg = request();
    decide(msg);
    const bytes behind = join({packet::part_of(option82(), 2, 18), {0}});
    const trace_lines expected =
        packet::lines({{{101, "ravo_if_handle_pkt (#): Rx interface=vlan100\n"},
                        {101, "ravo_if_handle_pkt (#):header verified passed\n"},
                        {101, "ravo_if_handle_pkt (#):agent_db.option_state 1\n"},
                        {101, "header->giaddr == 0, my if_ip " + relay_address + " \n"},
                        {101, "ravo_if_handle_pkt (#): Update Xid DB with xid=" + xid + ",modid=2,port num=1\n"}},
                       packet::dump_lines(behind),
                       {{101, "ravo_if_handle_pkt (#): header->op=1\n"},
                        {101, "ravo_if_send_server_Unicast (#): interface=vlan100, number of configured server=1\n"},
                        {101, "ravo_if_send_server_Unicast (#): server_db[1].s_addr==0\n"},
                        {101, "ravo_if_send_server_Unicast (#): server_db[2].s_addr==0\n"},
                        {101, "ravo_if_send_server_Unicast (#): server_db[3].s_addr==0\n"}}});
    EXPECT_EQ(fake::traces(), expected);
    expect_only_datagram(server, encode(relayed(msg, {type(packet::discover), option82(), packet::end()})));
    expect_outcomes({OUTCOME_RELAYED});
}

TEST_F(Relay, TracesOfAWholeReply) {
    packet::set({.option_state = 1});
    const message msg = packet::reply_message({type(packet::offer), option82(), packet::end()});
    packet::remember(msg);
    decide(msg);
    const message out = relayed(msg, {type(packet::offer), packet::end()});
    const std::string size = std::to_string(42 + encode(out).size());
    const trace_lines expected = {{101, "ravo_if_handle_pkt (#): Rx interface=vlan100\n"},
                                  {101, "ravo_if_handle_pkt (#):header verified passed\n"},
                                  {101, "ravo_find_agent_option (#): found rcv pkt with 82opt [0] 1 [1] 6  \n"},
                                  {101, "ravo_if_handle_pkt (#):agent_db.option_state 1\n"},
                                  {101, "header->giaddr == " + relay_address + ", my if_ip " + relay_address + " \n"},
                                  {101, "ravo_option_check_reply (#): rx_if=vlan100\n"},
                                  {101, "ravo_option_check_reply (#): op82_data is valide\n"},
                                  {101, "ravo_if_handle_pkt (#): header->op=2\n"},
                                  {101, "ravo_if_send_to_client (#)\n"},
                                  {101, "sendEtherFrame (#): interface=vlan100, face->if_maclen=6, sizeof 6\n"},
                                  {101, "===========msg ====================\n"},
                                  {101, "sendEtherFrame (#): raw_sock_fd=101, res " + size},
                                  {101, "interface=vlan100\n"},
                                  {101, "iface->if_ip 192.0.2.1\n"},
                                  {101, "iface->if_mac 00.00.5e.00.53.01, iface->if_maclen=6\n"}};
    EXPECT_EQ(fake::traces(), expected);
    expect_only_frame(to_client(out));
    EXPECT_EQ(packet::transaction(msg), no_transaction);
    expect_outcomes({OUTCOME_DELIVERED});
}

// ---- Header and hops ----

TEST_F(Relay, InvalidHeaderStops) {
    message msg = request();
    msg.flags = 0x0001;
    decide(msg);
    expect_silence();
    EXPECT_EQ(fake::traces(), (trace_lines{{101, "ravo_if_handle_pkt (#): Rx interface=vlan100\n"},
                                           {101, "isValidHeader (#): reason=Invalid flags field\n"}}));
    expect_outcomes({OUTCOME_BAD_FLAGS});
}

TEST_F(Relay, HopsAtTheLimitLeaveRaisedByOne) {
    for (const std::uint32_t limit : words{1, 4, 16}) {
        packet::set({.hops = limit});
        message msg = request();
        msg.hops = static_cast<std::uint8_t>(limit);
        decide(msg);
        expect_only_datagram(server, encode(relayed(msg, msg.options)));
        msg.hops = static_cast<std::uint8_t>(limit + 1);
        decide(msg);
        expect_silence();
        expect_outcomes({OUTCOME_HOP_LIMIT});
    }
}

TEST_F(Relay, HopsAreRaisedEvenInADroppedMessage) {
    message msg = request({type(1), option82(), packet::end()});
    held_message held(encode(msg));
    const iface relay = packet::record();
    ravo_if_handle_pkt(&relay, held.data(), held.length, origin);
    expect_silence();
    EXPECT_EQ(held.data()[3], 1);
}

// ---- Trust ----

TEST_F(Relay, UntrustedClientWithOption82IsDroppedSilently) {
    for (const std::uint32_t option_state : words{0, 1}) {
        packet::set({.option_state = option_state});
        const message msg = request({type(1), option82(), packet::end()});
        decide(msg, {.trusted = 0});
        expect_silence();
        EXPECT_EQ(fake::traces(),
                  (trace_lines{{101, "ravo_if_handle_pkt (#): Rx interface=vlan100\n"},
                               {101, "ravo_if_handle_pkt (#):header verified passed\n"},
                               {101, "ravo_find_agent_option (#): found rcv pkt with 82opt [0] 1 [1] 6  \n"}}));
        EXPECT_EQ(packet::transaction(msg), no_transaction);
        expect_outcomes({OUTCOME_UNTRUSTED_OPTION82});
    }
}

TEST_F(Relay, UntrustedOption82ThatBeginsOtherwiseIsDroppedToo) {
    decide(request({type(1), opt(82, hex("02 02 aa bb")), packet::end()}));
    expect_silence();
    expect_outcomes({OUTCOME_UNTRUSTED_OPTION82});
}

TEST_F(Relay, UntrustedReplyWithOption82AndNoRelayAddressIsDropped) {
    message msg = packet::reply_message({type(2), option82(), packet::end()});
    msg.giaddr = "0.0.0.0";
    decide(msg);
    expect_silence();
    expect_outcomes({OUTCOME_UNTRUSTED_OPTION82});
}

TEST_F(Relay, UntrustedClientWithoutOption82IsRelayed) {
    const message msg = request();
    decide(msg, {.trusted = 0});
    expect_only_datagram(server, encode(relayed(msg, msg.options)));
}

TEST_F(Relay, TrustedClientKeepsItsOption82) {
    packet::set({.option_state = 1});
    const message msg = request({type(1), option82({.vlan = 7, .module = 9}), packet::end()});
    decide(msg, {.trusted = 1});
    expect_only_datagram(server, encode(relayed(msg, msg.options)));
    expect_outcomes({OUTCOME_RELAYED});
}

TEST_F(Relay, UntrustedMessageOfAnotherRelayIsNotDropped) {
    message msg = request({type(1), option82(), packet::end()});
    msg.giaddr = "203.0.113.1";
    decide(msg, {.trusted = 0});
    expect_only_datagram(server, encode(relayed(msg, msg.options, "203.0.113.1")));
}

// ---- Information option off ----

TEST_F(Relay, OptionOffSetsTheRelayAddressAndNothingElse) {
    packet::set({.option_state = 0});
    const message msg = request({type(1), opt(12, text("pc")), packet::end(), packet::pad(9)});
    decide(msg);
    expect_only_datagram(server, encode(relayed(msg, msg.options)));
    EXPECT_EQ(packet::transaction(msg), no_transaction);
}

TEST_F(Relay, OptionOffKeepsARelayAddressThatIsSet) {
    packet::set({.option_state = 0});
    message msg = request({type(1), option82(), packet::end()});
    msg.giaddr = "203.0.113.1";
    decide(msg);
    expect_only_datagram(server, encode(relayed(msg, msg.options, "203.0.113.1")));
}

TEST_F(Relay, OptionOffKeepsOption82OfATrustedClient) {
    packet::set({.option_state = 0});
    const message msg = request({type(1), option82({.vlan = 7}), packet::end()});
    decide(msg, {.trusted = 1});
    expect_only_datagram(server, encode(relayed(msg, msg.options)));
}

TEST_F(Relay, OptionOffDeliversAReplyUncheckedAndUnchanged) {
    packet::set({.option_state = 0});
    for (const std::vector<bytes> &options :
         {std::vector<bytes>{type(2), option82({.vlan = 9}), packet::end()}, {type(2), packet::end()}}) {
        const message msg = packet::reply_message(options);
        decide(msg);
        expect_only_frame(to_client(relayed(msg, options)));
    }
}

TEST_F(Relay, OptionOffGivesAReplyWithoutRelayAddressItsOwn) {
    packet::set({.option_state = 0});
    message msg = packet::reply_message({type(2), packet::end()});
    msg.giaddr = "0.0.0.0";
    decide(msg);
    expect_only_frame(to_client(relayed(msg, msg.options)));
}

TEST_F(Relay, OptionOffKeepsTheRelayAddressOfAReply) {
    packet::set({.option_state = 0});
    message msg = packet::reply_message({type(2), packet::end()});
    msg.giaddr = "203.0.113.1";
    decide(msg);
    expect_only_frame(to_client(relayed(msg, msg.options, "203.0.113.1")));
}

// ---- Information option on, the relay's own messages ----

TEST_F(Relay, OwnRequestGetsOption82AndItsTransactionIsRemembered) {
    packet::set({.option_state = 1});
    for (const std::string &giaddr : strings{"0.0.0.0", "192.0.2.1"}) {
        message msg = request({type(1), opt(12, text("pc")), packet::end()});
        msg.giaddr = giaddr;
        decide(msg);
        expect_only_datagram(server, encode(relayed(msg, {type(1), opt(12, text("pc")), option82(), packet::end()})));
        EXPECT_EQ(packet::transaction(msg), (words{2, 1}));
    }
}

TEST_F(Relay, WhatStandsBehindTheEndOptionIsCutOffByOption82) {
    packet::set({.option_state = 1});
    const message msg = request({type(1), packet::end(), packet::pad(60)});
    decide(msg);
    expect_only_datagram(server, encode(relayed(msg, {type(1), option82(), packet::end()})));
}

TEST_F(Relay, RequestWithoutRoomIsSentWithoutOption82) {
    packet::set({.option_state = 1});
    const message msg = request({type(1), opt(12, bytes(255, 'a')), opt(12, bytes(46, 'b')), packet::end()});
    ASSERT_EQ(encode(msg).size(), 240U + 309);
    decide(msg);
    expect_only_datagram(server, encode(relayed(msg, msg.options)));
    EXPECT_THAT(fake::traces(), testing::Contains(fake::line{101, "addAgentOption (#): return opt82 len 309\n"}));
}

TEST_F(Relay, LargestRequestWithRoomGetsOption82) {
    packet::set({.option_state = 1});
    const std::vector<bytes> options = {type(1), opt(12, bytes(255, 'a')), opt(12, bytes(44, 'b'))};
    message msg = request(options);
    msg.options.push_back(packet::end());
    ASSERT_EQ(encode(msg).size(), 240U + 307);
    decide(msg);
    std::vector<bytes> out = options;
    out.push_back(option82());
    out.push_back(packet::end());
    expect_only_datagram(server, encode(relayed(msg, out)));
}

TEST_F(Relay, NoTransactionWhenRepliesAreNotChecked) {
    for (const std::uint32_t check : words{0, 2}) {
        packet::set({.option_state = 1, .check = check});
        const message msg = request();
        decide(msg);
        expect_only_datagram(server, encode(relayed(msg, {type(1), option82(), packet::end()})));
        EXPECT_EQ(packet::transaction(msg), no_transaction);
    }
}

// deliberate: any state but 0 counts as on, but transactions are remembered for state 1 alone.
TEST_F(Relay, OptionState2AddsOption82WithoutATransaction) {
    packet::set({.option_state = 2});
    const message msg = request();
    decide(msg);
    expect_only_datagram(server, encode(relayed(msg, {type(1), option82(), packet::end()})));
    EXPECT_EQ(packet::transaction(msg), no_transaction);
}

TEST_F(Relay, EachTypeAndItsTransaction) {
    packet::set({.option_state = 1});
    for (std::uint8_t value = 0; value < 10; ++value) {
        message msg = request({type(value), packet::end()});
        msg.xid = 0x100U + value;
        decide(msg);
        expect_only_datagram(server, encode(relayed(msg, {type(value), option82(), packet::end()})));
        const bool unanswered = value == packet::decline || value == packet::release;
        EXPECT_EQ(packet::transaction(msg), unanswered ? no_transaction : (words{2, 1})) << int{value};
    }
}

TEST_F(Relay, TypeBehindOption82IsNotSeenSoTheTransactionIsRemembered) {
    packet::set({.option_state = 1});
    for (const std::uint8_t value : bytes{packet::decline, packet::release}) {
        message msg = request({option82(), type(value), packet::end()});
        msg.xid = 0x200U + value;
        decide(msg, {.trusted = 1});
        expect_only_datagram(server, encode(relayed(msg, msg.options)));
        EXPECT_EQ(packet::transaction(msg), (words{2, 1}));
    }
}

TEST_F(Relay, ModuleAndPortOfTheTransaction) {
    packet::set({.option_state = 1});
    const std::vector<std::pair<std::uint32_t, words>> rows = {
        {0, {0, 0}},    {5120, {1, 0}}, {5121, {1, 1}},    {5183, {1, 63}},
        {5184, {2, 0}}, {5185, {2, 1}}, {1, {0xB2, 0xC1}}, {0x80001401, {0, 0}},
    };
    for (const auto &[port, expected] : rows) {
        const message msg = request();
        decide(msg, {}, {100, port});
        EXPECT_EQ(packet::transaction(msg), expected) << port;
    }
}

TEST_F(Relay, TransactionThatCannotBeStoredDoesNotStopTheRequest) {
    packet::set({.option_state = 1});
    fake::memory_budget = 0;
    const message msg = request();
    decide(msg);
    expect_only_datagram(server, encode(relayed(msg, {type(1), option82(), packet::end()})));
    EXPECT_EQ(packet::transaction(msg), no_transaction);
    EXPECT_THAT(fake::traces(),
                testing::Contains(fake::line{
                    104, "ravo_if_handle_pkt (#): Failed to update Xid DB with xid=" + xid + ",modid=2,port num=1\n"}));
    expect_outcomes({OUTCOME_RELAYED});
}

TEST_F(Relay, InvalidOptionsOfAnOwnMessageStop) {
    packet::set({.option_state = 1});
    for (const message &msg : {request({type(1)}), packet::reply_message({type(2)})}) {
        decide(msg);
        expect_silence();
        EXPECT_THAT(fake::traces(), testing::Contains(fake::line{104, "ravo_if_handle_pkt (#): Invalid options"}));
        EXPECT_EQ(packet::transaction(msg), no_transaction);
        expect_outcomes({OUTCOME_BAD_OPTIONS});
    }
}

TEST_F(Relay, MessageWithoutAnOptionAreaOnlyGetsItsRelayAddress) {
    packet::set({.option_state = 1});
    message msg = request({});
    msg.magic = {};
    ASSERT_EQ(encode(msg).size(), 236U);
    decide(msg);
    expect_only_datagram(server, encode(relayed(msg, {})));
    EXPECT_EQ(packet::transaction(msg), no_transaction);

    message reply = packet::reply_message({});
    reply.magic = {};
    decide(reply);
    expect_only_frame(to_client(relayed(reply, {})));
}

}  // namespace

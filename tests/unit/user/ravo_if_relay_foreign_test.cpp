// SPDX-License-Identifier: Apache-2.0
// The relay's decisions about messages of other relays.
#include "ravo_if_relay.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "ravo_if_option.h"
#include "ravo_if_server.h"
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

// ---- Messages of other relays ----

const std::string other_relay = "203.0.113.1";
const std::string policy_line =
    "ravo_if_handle_pkt (#):Packet is relay from another relay agent and process packet by "
    "policy\n";

message foreign(const std::vector<bytes> &options) {
    message msg = request(options);
    msg.giaddr = other_relay;
    return msg;
}

// The lines between the option state and the sending.
trace_lines decision_lines() {
    const trace_lines all = fake::traces();
    trace_lines result;
    bool inside = false;
    for (const fake::line &line : all) {
        if (line.text.find("header->op=") != std::string::npos) break;
        if (inside) result.push_back(line);
        if (line.text.find("agent_db.option_state") != std::string::npos) inside = true;
    }
    return result;
}

TEST_F(Relay, PolicyDropStops) {
    packet::set({.option_state = 1, .policy = 2});
    const message msg = foreign({type(1), option82({.vlan = 7}), packet::end()});
    decide(msg);
    expect_silence();
    EXPECT_EQ(decision_lines(),
              (trace_lines{{101, policy_line}, {101, "ravo_if_handle_pkt (#): drop  the packet by policy\n"}}));
    EXPECT_EQ(packet::transaction(msg), no_transaction);
    expect_outcomes({OUTCOME_POLICY_DROP});
}

TEST_F(Relay, PolicyKeepSendsUnchanged) {
    packet::set({.option_state = 1, .policy = 3});
    const message msg = foreign({type(1), option82({.vlan = 7}), opt(12, text("pc")), packet::end()});
    decide(msg);
    expect_only_datagram(server, encode(relayed(msg, msg.options, other_relay)));
    EXPECT_EQ(decision_lines(),
              (trace_lines{{101, policy_line}, {101, "ravo_if_handle_pkt (#): do nothing policy keep \n"}}));
    EXPECT_EQ(packet::transaction(msg), no_transaction);
    expect_outcomes({OUTCOME_RELAYED});
}

TEST_F(Relay, PolicyReplaceWritesTheRelaysOwnOption82) {
    packet::set({.option_state = 1, .policy = 1});
    const message msg = foreign({type(1), option82({.vlan = 7}), packet::end()});
    decide(msg);
    expect_only_datagram(server, encode(relayed(msg, {type(1), option82(), packet::end()}, other_relay)));
    const trace_lines lines = decision_lines();
    ASSERT_GE(lines.size(), 2U);
    EXPECT_EQ(lines[0], (fake::line{101, policy_line}));
    EXPECT_EQ(lines[1], (fake::line{101, "ravo_if_handle_pkt (#): replace the packet option by policy\n"}));
    EXPECT_EQ(packet::transaction(msg), no_transaction);
    expect_outcomes({OUTCOME_RELAYED});
}

TEST_F(Relay, AnyOtherPolicySendsUnchanged) {
    for (const std::uint32_t policy : words{0, 4, 99}) {
        packet::set({.option_state = 1, .policy = policy});
        const message msg = foreign({type(1), option82({.vlan = 7}), packet::end()});
        decide(msg);
        expect_only_datagram(server, encode(relayed(msg, msg.options, other_relay)));
        EXPECT_EQ(decision_lines(), (trace_lines{{101, policy_line}}));
    }
}

TEST_F(Relay, ForeignRequestWithoutOption82IsSentUnchanged) {
    for (const std::uint32_t policy : words{1, 2, 3}) {
        packet::set({.option_state = 1, .policy = policy});
        const message msg = foreign({type(1), packet::end()});
        decide(msg);
        expect_only_datagram(server, encode(relayed(msg, msg.options, other_relay)));
        EXPECT_EQ(decision_lines(), (trace_lines{{101, policy_line}}));
    }
}

TEST_F(Relay, ForeignReplyIsSentUnchangedAndUnchecked) {
    for (const std::uint32_t policy : words{1, 2, 3}) {
        packet::set({.option_state = 1, .policy = policy});
        message msg = packet::reply_message({type(2), option82({.vlan = 7}), packet::end()});
        msg.giaddr = other_relay;
        decide(msg);
        expect_only_frame(to_client(relayed(msg, msg.options, other_relay)));
        EXPECT_EQ(decision_lines(), (trace_lines{{101, policy_line}}));
        expect_outcomes({OUTCOME_DELIVERED});
    }
}

TEST_F(Relay, ReplaceOfInvalidOptionsStops) {
    packet::set({.option_state = 1, .policy = 1});
    decide(foreign({type(1), option82()}));
    expect_silence();
    EXPECT_THAT(fake::traces(), testing::Contains(fake::line{104, "ravo_if_handle_pkt (#): Invalid options"}));
    expect_outcomes({OUTCOME_BAD_OPTIONS});
}

TEST_F(Relay, ReplaceAddsBesideAnOption82ThatBeginsOtherwise) {
    packet::set({.option_state = 1, .policy = 1});
    const bytes other = opt(82, hex("02 02 aa bb"));
    const message msg = foreign({type(1), other, packet::end()});
    decide(msg);
    expect_only_datagram(server, encode(relayed(msg, {type(1), other, option82(), packet::end()}, other_relay)));
}

TEST_F(Relay, AnyAddressButNoneIsAnotherRelays) {
    packet::set({.option_state = 1, .policy = 2});
    message msg = foreign({type(1), option82({.vlan = 7}), packet::end()});
    for (const char *address : {"1.0.0.0", "0.0.0.1"}) {
        msg.giaddr = address;
        decide(msg);
        expect_silence();
        expect_outcomes({OUTCOME_POLICY_DROP});
    }
}

// Each of the two fills its place to the last byte, and leaves the other alone.
TEST_F(Relay, LongestIdentifiersChooseTheirServer) {
    packet::set({.option_state = 1, .policy = RAVO_POLICY_KEEP});
    iface relay = packet::record();
    relay.opt60_count = 1;
    relay.opt60_hosts[0].used = 1;
    relay.opt60_hosts[0].match_rule = RAVO_RULE_EXACT;
    std::memset(relay.opt60_hosts[0].vendor, 'v', RAVO_VENDOR_CLASS_SIZE);
    relay.opt60_hosts[0].server = fake::address("198.51.100.60");
    const bytes vendor = opt(60, bytes(RAVO_VENDOR_CLASS_SIZE, 'v'));
    const bytes client = opt(61, bytes(RAVO_CLIENT_ID_SIZE + 9, 0xEE));
    for (const std::vector<bytes> &both : {std::vector<bytes>{vendor, client}, std::vector<bytes>{client, vendor}}) {
        const message msg = foreign({type(1), both[0], both[1], option82({.vlan = 7}), packet::end()});
        packet::held_message held(encode(msg));
        fake::forget();
        ravo_if_handle_pkt(&relay, held.data(), held.length, origin);
        expect_only_datagram("198.51.100.60:67", encode(relayed(msg, msg.options, other_relay)));
    }
}

// What stood behind the old option 82 is no chain any more once the new one is written over it: it becomes padding.
TEST_F(Relay, ReplaceTurnsWhatNoLongerIsAChainIntoPadding) {
    packet::set({.option_state = 1, .policy = 1});
    // The old option has 6 bytes: the new one covers the name option's head, and its text is left.
    const message msg = foreign({type(1), opt(82, hex("01 02 aa bb")), opt(12, bytes(40, 'n')), packet::end()});
    decide(msg);
    const std::vector<bytes> out = {type(1), option82(), packet::end(), packet::pad(42)};
    expect_only_datagram(server, encode(relayed(msg, out, other_relay)));
    expect_outcomes({OUTCOME_RELAYED});
}

// As long as it still is a chain it is left as it was.
TEST_F(Relay, ReplaceLeavesAChainBehindTheEndOption) {
    packet::set({.option_state = 1, .policy = 1});
    // The end option overwrites the code of the first option; its length 0 and the rest are a chain of pads.
    const message msg = foreign({type(1), option82({.vlan = 7}), hex("50 00"), packet::pad(3), packet::end()});
    decide(msg);
    const std::vector<bytes> out = {type(1), option82(), hex("ff 00 00 00 00 ff")};
    expect_only_datagram(server, encode(relayed(msg, out, other_relay)));
}

TEST_F(Relay, ReplaceWithEveryKindOfOptionBehind) {
    packet::set({.option_state = 1, .policy = 1});
    for (std::size_t old_size = 1; old_size < 60; ++old_size) {
        for (std::size_t size = 0; size < 60; ++size) {
            bytes old(old_size, 0x33);
            old[0] = 1;
            const message msg = foreign({type(1), opt(82, old), opt(12, bytes(size, 0x77)), packet::end()});
            decide(msg);
            ASSERT_EQ(fake::datagrams.size(), 1U);
            const bytes &sent = fake::datagrams[0].payload;
            // The old length, less the old option, and 20.
            ASSERT_EQ(sent.size(), encode(msg).size() - (old_size + 2) + 20);
            EXPECT_BYTES(encode(relayed(msg, {type(1), option82(), packet::end()}, other_relay)),
                         packet::up_to_end(sent));
            EXPECT_EQ(isValidOptions(sent.data() + 236, static_cast<std::int32_t>(sent.size() - 236)), 1);
        }
    }
}

TEST_F(Relay, ReplaceWithoutRoomSendsTheMessageAsItCame) {
    packet::set({.option_state = 1, .policy = 1});
    const message msg =
        foreign({type(1), opt(12, bytes(255, 'a')), opt(12, bytes(50, 'b')), option82({.vlan = 7}), packet::end()});
    decide(msg);
    expect_only_datagram(server, encode(relayed(msg, msg.options, other_relay)));
    expect_outcomes({OUTCOME_RELAYED});
}

}  // namespace

// SPDX-License-Identifier: Apache-2.0
// The handler of the layer-2 channel: messages of every size, and such that say more than they have.
#include "ravo_if_receive.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "packet_relay.h"

namespace {

using packet::bytes;
using packet::hex;
using packet::join;
using packet::message;
using packet::opt;
using packet::receive;
using packet::text;
using packet::type;
using packet::typed;

using strings = std::vector<std::string>;
using trace_lines = std::vector<fake::line>;

class Channel : public packet::relay_test {};

relay_outcome outcome_of_received(const bytes &received) {
    fake::forget();
    EXPECT_EQ(fake::receive_on_channel({received, packet::port_2_1, 100}), 1);
    return fake::outcomes.empty() ? OUTCOME_NONE : fake::outcomes.back();
}

TEST_F(Channel, ReceivedCounts) {
    packet::store();
    const bytes good = packet::channel_bytes(encode(typed(1)));
    ASSERT_EQ(good.size(), 268U);
    const std::vector<std::pair<std::size_t, relay_outcome>> rows = {
        {0, OUTCOME_UNKNOWN_OPERATION},   // a zeroed buffer: operation 0
        {23, OUTCOME_UNKNOWN_OPERATION},  //
        {24, OUTCOME_UNKNOWN_OPERATION},  // no byte of the message
        {25, OUTCOME_BAD_OPTIONS},        // the operation alone
        {235, OUTCOME_BAD_OPTIONS},       // no whole fixed header
        {236, OUTCOME_BAD_OPTIONS},       //
        {259, OUTCOME_BAD_OPTIONS},       //
        {260, OUTCOME_NO_MESSAGE_TYPE},   // exactly the fixed header: no option area, no type
        {263, OUTCOME_BAD_OPTIONS},       // part of the cookie
        {264, OUTCOME_BAD_OPTIONS},       // the cookie alone
        {267, OUTCOME_BAD_OPTIONS},       // no end option
        {268, OUTCOME_RELAYED},
    };
    for (const auto &[size, outcome] : rows)
        EXPECT_EQ(outcome_of_received(packet::part_of(good, 0, size)), outcome) << size;
}

TEST_F(Channel, CookieAndEndAloneHaveNoType) {
    packet::store();
    message msg;
    msg.options = {packet::end()};
    EXPECT_EQ(outcome_of_received(packet::channel_bytes(encode(msg))), OUTCOME_NO_MESSAGE_TYPE);
}

TEST_F(Channel, MessageTruncatedAtEveryLength) {
    packet::store();
    packet::set({.option_state = 1});
    message msg;
    msg.options = {type(1), opt(60, text("printer")), opt(61, hex("01 02 03 04")), packet::end()};
    const bytes whole = packet::channel_bytes(encode(msg));
    for (std::size_t size = 0; size < whole.size(); ++size) {
        EXPECT_NE(outcome_of_received(packet::part_of(whole, 0, size)), OUTCOME_RELAYED) << size;
        expect_silence();
    }
    EXPECT_EQ(outcome_of_received(whole), OUTCOME_RELAYED);
}

TEST_F(Channel, EveryClaimedLengthOfEveryOption) {
    packet::store();
    packet::set({.option_state = 1});
    message msg;
    msg.options = {type(1), opt(60, text("printer")), opt(61, hex("01 02 03 04")), packet::end()};
    const bytes whole = packet::channel_bytes(encode(msg));
    const std::vector<std::size_t> length_bytes = {265, 268, 277};
    for (const std::size_t at : length_bytes) {
        for (unsigned claimed = 0; claimed < 256; ++claimed) {
            const bytes changed = packet::with_byte(whole, at, static_cast<std::uint8_t>(claimed));
            const relay_outcome outcome = outcome_of_received(changed);
            EXPECT_TRUE(outcome == OUTCOME_RELAYED || outcome == OUTCOME_BAD_OPTIONS) << at << ' ' << claimed;
            EXPECT_EQ(fake::datagrams.size(), outcome == OUTCOME_RELAYED ? 1U : 0U);
        }
    }
}

TEST_F(Channel, MessageThatFillsTheBufferIsRelayed) {
    packet::store();
    message msg = typed(1);
    bytes data = encode(msg);
    data.resize(1000);
    receive(data);
    message relayed = msg;
    relayed.hops = 1;
    relayed.giaddr = "192.0.2.1";
    bytes expected = encode(relayed);
    expected.resize(1000);
    expect_only_datagram("198.51.100.1:67", expected);
}

TEST_F(Channel, TheChannelIsAskedForTheWholeLength) {
    receive(encode(typed(1)));
    EXPECT_EQ(fake::channel_flags, MSG_TRUNC);
}

TEST_F(Channel, LongerMessageIsCutToWhatTheBufferHolds) {
    packet::store();
    message msg = typed(1);
    bytes data = encode(msg);
    data.resize(1400);
    receive(data);
    ASSERT_EQ(fake::datagrams.size(), 1U);
    EXPECT_EQ(fake::datagrams[0].payload.size(), 1000U);
    EXPECT_THAT(fake::traces(), testing::Contains(fake::line{101, "size=1024====\n"}));
}

TEST_F(Channel, LongerMessageWhoseEndOptionIsCutOffIsDropped) {
    packet::store();
    message msg;
    msg.options = {type(1), opt(12, bytes(255, 'a')), opt(12, bytes(255, 'b')), opt(12, bytes(255, 'c')),
                   packet::end()};
    EXPECT_EQ(outcome_of_received(packet::channel_bytes(encode(msg))), OUTCOME_BAD_OPTIONS);
    expect_silence();
}

// Whether the last message got an option 82 behind which there are zeros: its trace goes on behind the message.
bool zeros_behind_option() {
    const trace_lines expected = packet::dump_lines(packet::part_of(packet::option82(), 2, 18));
    const trace_lines traces = fake::traces();
    return std::search(traces.begin(), traces.end(), expected.begin(), expected.end()) != traces.end();
}

message named(std::size_t size) {
    message msg;
    msg.options = {type(1), opt(12, bytes(size, 'a')), packet::end()};
    return msg;
}

TEST_F(Channel, NothingOfALongerMessageIsLeftBehindAShorterOne) {
    packet::store();
    packet::set({.option_state = 1});
    receive(encode(named(154)));
    for (int i = 0; i < 2; ++i) {  // the second time behind what the relay added to the first
        fake::forget();
        receive(encode(named(140)));
        EXPECT_TRUE(zeros_behind_option()) << i;
    }
}

TEST_F(Channel, NothingOfADatagramThatCouldNotBeTakenIsLeftInTheBuffer) {
    packet::store();
    packet::set({.option_state = 1});
    fake::put_udp({.payload = bytes(1024, 0x41), .from_family = AF_INET6});
    ravo_if_listen_hdlr(ravo_server_sock_fd, nullptr);
    EXPECT_EQ(fake::udp_waiting(), 0U);
    fake::forget();
    receive(encode(typed(1)));
    EXPECT_TRUE(zeros_behind_option());
}

TEST_F(Channel, NothingOfAnEarlierMessageIsLeftInTheBuffer) {
    packet::store();
    receive(encode(typed(1)));
    // The second message has no bytes at all behind the channel's headers.
    EXPECT_EQ(outcome_of_received(packet::part_of(packet::channel_bytes(encode(typed(1))), 0, 24)),
              OUTCOME_UNKNOWN_OPERATION);
}

}  // namespace

// SPDX-License-Identifier: Apache-2.0
// The handler of the layer-2 channel: checks, counters, the interface of a message.
#include "ravo_if_receive.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

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

trace_lines reception(const std::string &dst, int vlan, std::size_t received) {
    return {{101, "ravo_l2_listen_hdlr (#): Received DHCP packet dst IP=" + dst +
                      ", ipi_ifindex=" + std::to_string(vlan) + "\n"},
            {101, "===RX Bootstrap Protocol====\n"},
            {101, "size=" + std::to_string(received) + "====\n"}};
}

trace_lines one(int level, const std::string &line) {
    return {{level, line}};
}

const std::string local_relay_off = "ravo_l2_listen_hdlr (#): dhcp local relay is disabled, state = 0 \n";

TEST_F(Channel, EachMessageTypeHasItsCounter) {
    packet::store();
    for (std::size_t row = 0; row < packet::counted_by_type.size(); ++row) {
        const auto before = packet::counters();
        receive(encode(typed(static_cast<std::uint8_t>(row + 1))));
        EXPECT_EQ(packet::difference(packet::counters(), before), packet::counted_by_type[row]) << "type " << row + 1;
    }
}

TEST_F(Channel, UnknownTypesAreDroppedSilentlyAndUncounted) {
    packet::store();
    for (const std::uint8_t value : bytes{0, 9, 10, 53, 200, 255}) {
        fake::forget();
        receive(encode(typed(value)));
        expect_silence();
        EXPECT_EQ(fake::traces(), trace_lines{}) << int{value};
        expect_outcomes({OUTCOME_UNKNOWN_MESSAGE_TYPE});
    }
    EXPECT_EQ(counted(), packet::nothing_counted);
}

TEST_F(Channel, WithoutAMessageTypeDropped) {
    packet::store();
    message msg;
    msg.options = {opt(12, text("pc")), packet::end()};
    receive(encode(msg));
    expect_silence();
    EXPECT_EQ(fake::traces(), one(101, "ravo_l2_listen_hdlr (#): No DHCP type found\n"));
    EXPECT_EQ(counted(), packet::nothing_counted);
    expect_outcomes({OUTCOME_NO_MESSAGE_TYPE});
}

TEST_F(Channel, ReceiveErrorIsTraced) {
    fake::script(fake::op::recvfrom, {.error = EIO});
    receive(encode(typed(1)));
    EXPECT_EQ(fake::traces(), one(101, "ravo_l2_listen_hdlr (#): Read socket 100 error\n"));
    expect_silence();
    expect_outcomes({});
}

TEST_F(Channel, InvalidHeaderIsDroppedBeforeItIsCounted) {
    packet::store();
    message msg = typed(1);
    msg.flags = 0x0001;
    receive(encode(msg));
    expect_silence();
    EXPECT_EQ(fake::traces(), one(101, "isValidHeader (#): reason=Invalid flags field\n"));
    EXPECT_EQ(counted(), packet::nothing_counted);
    expect_outcomes({OUTCOME_BAD_FLAGS});
}

TEST_F(Channel, InvalidOptionsAreDroppedWithoutATrace) {
    packet::store();
    message msg = typed(1);
    msg.options = {type(1)};
    receive(encode(msg));
    expect_silence();
    EXPECT_EQ(fake::traces(), trace_lines{});
    EXPECT_EQ(counted(), packet::nothing_counted);
    expect_outcomes({OUTCOME_BAD_OPTIONS});
}

TEST_F(Channel, MessagesAreCountedWhenRelayingIsOff) {
    packet::store();
    packet::set({.relay_enable = 0});
    fake::forget();
    const bytes msg = encode(typed(1));
    receive(msg);
    expect_silence();
    EXPECT_EQ(counted(), (std::vector<std::uint32_t>{1, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(fake::traces(),
              packet::lines({reception("255.255.255.255", 100, msg.size() + 24),
                             one(101, "ravo_l2_listen_hdlr (#): dhcp relay is disabled, state = 0 \n")}));
    expect_outcomes({OUTCOME_RELAY_OFF});
}

TEST_F(Channel, BroadcastIsMatchedToTheVlansInterface) {
    packet::store({.vlan = 100, .address = "192.0.2.1", .servers = {"198.51.100.1"}});
    packet::store({.vlan = 200, .address = "192.0.2.2", .servers = {"198.51.100.2"}});
    const message msg = typed(1);
    receive(encode(msg), {.vlan = 200});
    message relayed = msg;
    relayed.hops = 1;
    relayed.giaddr = "192.0.2.2";
    expect_only_datagram("198.51.100.2:67", encode(relayed));
    expect_outcomes({OUTCOME_RELAYED});
}

TEST_F(Channel, BroadcastOnAVlanWithoutARecordIsDropped) {
    packet::store({.vlan = 100});
    const bytes msg = encode(typed(3));
    receive(msg, {.vlan = 300});
    expect_silence();
    EXPECT_EQ(fake::traces(),
              packet::lines({reception("255.255.255.255", 300, msg.size() + 24),
                             one(101,
                                 "ravo_l2_listen_hdlr (#): can't get relay interface by if_idx=1324 from "
                                 "interfaceDB\n")}));
    EXPECT_EQ(counted(), (std::vector<std::uint32_t>{0, 0, 1, 0, 0, 0, 0, 0}));
    expect_outcomes({OUTCOME_NO_INTERFACE});
}

TEST_F(Channel, UnicastIsMatchedToTheInterfaceWithTheAddress) {
    packet::store({.vlan = 100, .address = "192.0.2.1", .servers = {"198.51.100.1"}});
    packet::store({.vlan = 200, .address = "192.0.2.2", .servers = {"198.51.100.2"}});
    receive(encode(typed(3)), {.vlan = 100, .destination = "192.0.2.2"});
    ASSERT_EQ(fake::datagrams.size(), 1U);
    EXPECT_EQ(fake::datagrams[0].to, "198.51.100.2:67");
}

// deliberate: the address in the trace is that of the four bytes behind the destination, the two UDP ports.
TEST_F(Channel, UnicastToNoInterfaceShowsTheBytesBehindTheDestination) {
    packet::store({.vlan = 100});
    const bytes msg = encode(typed(1));
    receive(msg, {.vlan = 100, .destination = "192.0.2.77"});
    expect_silence();
    EXPECT_EQ(fake::traces(),
              packet::lines({reception("192.0.2.77", 100, msg.size() + 24),
                             {{104, "ravo_if_ifinfo_get_by_addr (#): Get interface by addr failed,ip=192.0.2.77\n"},
                              {101,
                               "ravo_l2_listen_hdlr (#): dest IP 0.68.0.67 on received packet doesn't match IP "
                               "address of ingress interface(ifindex=100)\n"}}}));
    expect_outcomes({OUTCOME_NO_ADDRESS});
}

TEST_F(Channel, IngressVlanAndPortComeFromTheSourceRecord) {
    packet::store({.vlan = 4094, .address = "192.0.2.1"});
    packet::set({.option_state = 1});
    receive(encode(typed(1)), {.vlan = 4094, .port = 5120 + 64 * 3 + 17});
    ASSERT_EQ(fake::datagrams.size(), 1U);
    EXPECT_BYTES(packet::option82({.vlan = 4094, .module = 4, .port = 17}),
                 packet::part_of(fake::datagrams[0].payload, 243, 20));
}

// ---- Local relay or not ----

TEST_F(Channel, LocalRelayIsTracedWhenItIsOff) {
    packet::store();
    receive(encode(typed(1)));
    EXPECT_THAT(fake::traces(), testing::Contains(fake::line{101, local_relay_off}));
    EXPECT_EQ(fake::frames.size(), 0U);
}

TEST_F(Channel, LocalRelayIsSkippedWhereAServerIsConfigured) {
    packet::store({.local_relay = 1, .servers = {"198.51.100.1"}});
    const bytes msg = encode(typed(1));
    receive(msg);
    EXPECT_EQ(fake::frames.size(), 0U);
    EXPECT_EQ(fake::datagrams.size(), 1U);
    const trace_lines traces = fake::traces();
    ASSERT_GE(traces.size(), 5U);
    EXPECT_EQ(traces[3], (fake::line{104, "ravo_if_get_server # \n"}));
    EXPECT_EQ(traces[4], (fake::line{101, "ravo_l2_listen_hdlr (#): dhcp local relay is disabled, state = 1 \n"}));
    expect_outcomes({OUTCOME_RELAYED});
}

TEST_F(Channel, LocalRelayStateOtherThanOneIsOff) {
    packet::store({.local_relay = 2, .servers = {}});
    receive(encode(typed(1)));
    EXPECT_EQ(fake::frames.size(), 0U);
    EXPECT_THAT(fake::traces(), testing::Contains(fake::line{
                                    101, "ravo_l2_listen_hdlr (#): dhcp local relay is disabled, state = 2 \n"}));
}

TEST_F(Channel, MessageGoesToLocalRelayAndThenToTheDecisions) {
    packet::store({.local_relay = 1, .servers = {}});
    packet::set({.check = 0});
    fake::forget();
    const message msg = typed(1);
    receive(encode(msg));
    message stamped = msg;
    stamped.options = {type(1), packet::option82(), packet::end()};
    expect_only_frame({.to_mac = packet::everybody, .from_port = 68, .to_port = 67, .payload = encode(stamped)});
    EXPECT_EQ(fake::traces(104), strings{});  // the channel does not tell which messages go there
    // The decisions see the stamped message: option 82 of a client on an untrusted interface.
    const trace_lines traces = fake::traces();
    EXPECT_EQ(traces[traces.size() - 3], (fake::line{101, "ravo_if_handle_pkt (#): Rx interface=vlan100\n"}));
    EXPECT_EQ(traces[traces.size() - 2], (fake::line{101, "ravo_if_handle_pkt (#):header verified passed\n"}));
    expect_outcomes({OUTCOME_REBROADCAST, OUTCOME_UNTRUSTED_OPTION82});
}

}  // namespace

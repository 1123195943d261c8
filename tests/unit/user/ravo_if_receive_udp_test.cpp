// SPDX-License-Identifier: Apache-2.0
// The handler of the UDP socket on port 67.
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
using packet::text;
using packet::type;
using packet::typed;

using trace_lines = std::vector<fake::line>;

constexpr int fd = 102;  // any open descriptor: the handler reads the one it is given

class UdpPath : public packet::relay_test {};

// Where a datagram came in, as the kernel's packet information tells it.
struct told {
    int ifindex = 1124;
    std::uint32_t spec_dst = 0;
    std::string destination = "255.255.255.255";
};

void receive(const bytes &msg, const told &from = {}) {
    fake::put_udp(
        {.payload = msg,
         .controls = {fake::pktinfo_control(from.ifindex, from.spec_dst, fake::address(from.destination.c_str()))}});
    ravo_if_listen_hdlr(fd, nullptr);
    EXPECT_EQ(fake::udp_waiting(), 0U);
    EXPECT_EQ(fake::udp_flags, 0);
}

trace_lines one(int level, const std::string &line) {
    return {{level, line}};
}

const trace_lines entry = {{101, "ravo_if_listen_hdlr (#): listen fd =102\n"}};

trace_lines reception(const std::string &dst, int ifindex, std::size_t size) {
    return packet::lines({entry,
                          {{101, "ravo_if_listen_hdlr (#): Received DHCP packet dst IP=" + dst +
                                     ", ipi_ifindex=" + std::to_string(ifindex) + "\n"},
                           {101, "===RX Bootstrap Protocol====\n"},
                           {101, "size=" + std::to_string(size) + "====\n"}}});
}

TEST_F(UdpPath, EachMessageTypeHasItsCounter) {
    for (std::size_t row = 0; row < packet::counted_by_type.size(); ++row) {
        const auto before = packet::counters();
        receive(encode(typed(static_cast<std::uint8_t>(row + 1))));
        EXPECT_EQ(packet::difference(packet::counters(), before), packet::counted_by_type[row]) << "type " << row + 1;
    }
}

TEST_F(UdpPath, InvalidHeaderIsDropped) {
    message msg = typed(1);
    msg.hops = 5;
    receive(encode(msg));
    expect_silence();
    EXPECT_EQ(fake::traces(), packet::lines({entry,
                                             {{101, "isValidHeader (#): reason=Looping detected\n"},
                                              {101, "ravo_if_listen_hdlr (#): Invalid header\n"}}}));
    EXPECT_EQ(counted(), packet::nothing_counted);
    expect_outcomes({OUTCOME_HOP_LIMIT});
}

TEST_F(UdpPath, InvalidOptionsAreDropped) {
    message msg = typed(1);
    msg.options = {type(1)};
    receive(encode(msg));
    expect_silence();
    EXPECT_EQ(fake::traces(), packet::lines({entry, one(101, "ravo_if_listen_hdlr (#): Invalid option\n")}));
    EXPECT_EQ(counted(), packet::nothing_counted);
    expect_outcomes({OUTCOME_BAD_OPTIONS});
}

TEST_F(UdpPath, WithoutAMessageTypeDropped) {
    message msg;
    msg.options = {opt(12, text("pc")), packet::end()};
    receive(encode(msg));
    expect_silence();
    EXPECT_EQ(fake::traces(), packet::lines({entry, one(101, "ravo_if_listen_hdlr (#): No DHCP type found\n")}));
    expect_outcomes({OUTCOME_NO_MESSAGE_TYPE});
}

TEST_F(UdpPath, UnknownTypesAreDroppedWithATrace) {
    for (const std::uint8_t value : bytes{0, 9, 10, 255}) {
        fake::forget();
        receive(encode(typed(value)));
        expect_silence();
        EXPECT_EQ(fake::traces(), packet::lines({entry, one(101, "ravo_if_listen_hdlr (#): Unknown DHCP type\n")}));
        expect_outcomes({OUTCOME_UNKNOWN_MESSAGE_TYPE});
    }
    EXPECT_EQ(counted(), packet::nothing_counted);
}

// deliberate: the result of the receive is only tested behind the validation, which a zeroed buffer does not pass.
TEST_F(UdpPath, FailedReceiveEndsInTheHeaderCheck) {
    fake::script(fake::op::recvmsg, {.error = EIO});
    ravo_if_listen_hdlr(fd, nullptr);
    expect_silence();
    EXPECT_EQ(fake::traces(), packet::lines({entry,
                                             {{101, "isValidHeader (#): reason=Unknown operation\n"},
                                              {101, "ravo_if_listen_hdlr (#): Invalid header\n"}}}));
    EXPECT_EQ(counted(), packet::nothing_counted);
}

TEST_F(UdpPath, EmptyDatagramEndsInTheHeaderCheck) {
    receive({});
    expect_silence();
    EXPECT_THAT(fake::traces(), testing::Contains(fake::line{101, "ravo_if_listen_hdlr (#): Invalid header\n"}));
}

TEST_F(UdpPath, SenderThatIsNotIpv4EndsInTheOptionCheck) {
    packet::store();
    fake::put_udp({.payload = encode(typed(1)), .from_family = AF_INET6});
    ravo_if_listen_hdlr(fd, nullptr);
    expect_silence();
    EXPECT_EQ(fake::traces(), packet::lines({entry, one(101, "ravo_if_listen_hdlr (#): Invalid option\n")}));
    EXPECT_EQ(counted(), packet::nothing_counted);
}

TEST_F(UdpPath, MessagesAreCountedWhenRelayingIsOff) {
    packet::store();
    packet::set({.relay_enable = 0});
    fake::forget();
    const bytes msg = encode(typed(8));
    receive(msg);
    expect_silence();
    EXPECT_EQ(counted(), (std::vector<std::uint32_t>{0, 0, 0, 0, 0, 0, 1, 0}));
    EXPECT_EQ(fake::traces(),
              packet::lines({reception("255.255.255.255", 1124, msg.size()),
                             one(101, "ravo_if_listen_hdlr (#): dhcp relay is disabled, state = 0 \n")}));
    expect_outcomes({OUTCOME_RELAY_OFF});
}

TEST_F(UdpPath, BroadcastIsMatchedToTheInterfaceByItsNumberWithoutOffset) {
    packet::store({.vlan = 100, .servers = {"198.51.100.1"}});
    packet::store({.vlan = 200, .address = "192.0.2.2", .servers = {"198.51.100.2"}});
    receive(encode(typed(1)), {.ifindex = 1224});
    message relayed = typed(1);
    relayed.hops = 1;
    relayed.giaddr = "192.0.2.2";
    expect_only_datagram("198.51.100.2:67", encode(relayed));
    expect_outcomes({OUTCOME_RELAYED});
}

TEST_F(UdpPath, BroadcastOnAnUnknownInterfaceIsDroppedAsAFailure) {
    const bytes msg = encode(typed(1));
    receive(msg, {.ifindex = 1300});
    expect_silence();
    EXPECT_EQ(fake::traces(),
              packet::lines({reception("255.255.255.255", 1300, msg.size()),
                             one(104,
                                 "ravo_if_listen_hdlr (#): can't get relay interface by if_idx=1300 from "
                                 "interfaceDB\n")}));
    expect_outcomes({OUTCOME_NO_INTERFACE});
}

TEST_F(UdpPath, UnicastIsMatchedByAddress) {
    packet::store({.vlan = 200, .address = "192.0.2.2", .servers = {"198.51.100.2"}});
    receive(encode(typed(1)), {.ifindex = 9, .destination = "192.0.2.2"});
    ASSERT_EQ(fake::datagrams.size(), 1U);
    EXPECT_EQ(fake::datagrams[0].to, "198.51.100.2:67");
}

TEST_F(UdpPath, UnicastToNoInterfaceShowsTheDestination) {
    packet::store();
    const bytes msg = encode(typed(1));
    receive(msg, {.destination = "192.0.2.77"});
    expect_silence();
    EXPECT_EQ(fake::traces(),
              packet::lines({reception("192.0.2.77", 1124, msg.size()),
                             {{104, "ravo_if_ifinfo_get_by_addr (#): Get interface by addr failed,ip=192.0.2.77\n"},
                              {101,
                               "ravo_if_listen_hdlr (#): dest IP 192.0.2.77 on received packet doesn't match IP "
                               "address of ingress interface(ifindex=1124)\n"}}}));
    expect_outcomes({OUTCOME_NO_ADDRESS});
}

// The local address of the packet information is a port's number only from 5121 to 5210.
TEST_F(UdpPath, PortIsTakenFromTheLocalAddressWithinItsRange) {
    packet::store();
    packet::set({.option_state = 1});
    struct row {
        std::uint32_t spec_dst;
        std::uint8_t module;
        std::uint8_t port;
    };
    const std::vector<row> rows = {{5120, 0, 0}, {5121, 1, 1},       {5185, 2, 1},       {5210, 2, 26}, {5211, 0, 0},
                                   {0, 0, 0},    {0xFFFFFFFF, 0, 0}, {0x80001401, 0, 0}, {5183, 1, 63}, {5184, 2, 0}};
    for (const row &expected : rows) {
        fake::forget();
        receive(encode(typed(1)), {.spec_dst = expected.spec_dst});
        ASSERT_EQ(fake::datagrams.size(), 1U);
        EXPECT_BYTES(packet::option82({.module = expected.module, .port = expected.port}),
                     packet::part_of(fake::datagrams[0].payload, 243, 20));
    }
}

TEST_F(UdpPath, FrameCarriesInterfaceAndPortOfThePacketInformation) {
    packet::store();
    message msg = packet::reply_message({type(2), packet::end()});
    receive(encode(msg), {.ifindex = 1124, .spec_dst = 5121, .destination = "192.0.2.1"});
    message delivered = msg;
    delivered.hops = 1;
    expect_only_frame({.to_ip = "192.0.2.50", .payload = encode(delivered)}, {.vlan = 1124, .port = 5121});
    expect_outcomes({OUTCOME_DELIVERED});
}

TEST_F(UdpPath, LocalRelayThatIsOffIsTraced) {
    packet::store();
    receive(encode(typed(1)));
    EXPECT_THAT(fake::traces(), testing::Contains(fake::line{
                                    101, "ravo_if_listen_hdlr (#): dhcp local relay is disabled, state = 0 \n"}));
}

TEST_F(UdpPath, LocalRelayIsSkippedWhereAServerIsConfigured) {
    packet::store({.local_relay = 1, .servers = {"198.51.100.1"}});
    receive(encode(typed(1)));
    EXPECT_EQ(fake::frames.size(), 0U);
    EXPECT_EQ(fake::datagrams.size(), 1U);
    const trace_lines traces = fake::traces();
    ASSERT_GE(traces.size(), 6U);
    EXPECT_EQ(traces[4], (fake::line{104, "ravo_if_get_server # \n"}));
    EXPECT_EQ(traces[5], (fake::line{101, "ravo_if_listen_hdlr (#): dhcp local relay is disabled, state = 1 \n"}));
}

TEST_F(UdpPath, MessageGoesToLocalRelayAndThenToTheDecisions) {
    packet::store({.local_relay = 1, .servers = {}});
    packet::set({.check = 0});
    fake::forget();
    const message msg = typed(1);
    receive(encode(msg), {.spec_dst = 5185});
    message stamped = msg;
    stamped.options = {type(1), packet::option82(), packet::end()};
    expect_only_frame({.to_mac = packet::everybody, .from_port = 68, .to_port = 67, .payload = encode(stamped)},
                      {.vlan = 1124});
    const trace_lines traces = fake::traces();
    ASSERT_GE(traces.size(), 7U);
    EXPECT_EQ(traces[4], (fake::line{104, "ravo_if_listen_hdlr #  relay_if:vlan100 \n"}));
    EXPECT_EQ(traces[traces.size() - 3], (fake::line{101, "ravo_if_handle_pkt (#): Rx interface=vlan100\n"}));
    expect_outcomes({OUTCOME_REBROADCAST, OUTCOME_UNTRUSTED_OPTION82});
}

relay_outcome outcome_of_received(const bytes &data) {
    fake::forget();
    receive(data);
    return fake::outcomes.empty() ? OUTCOME_NONE : fake::outcomes.back();
}

TEST_F(UdpPath, ReceivedCounts) {
    packet::store();
    const bytes good = encode(typed(1));
    ASSERT_EQ(good.size(), 244U);
    const std::vector<std::pair<std::size_t, relay_outcome>> rows = {
        {0, OUTCOME_UNKNOWN_OPERATION},  // a zeroed buffer
        {1, OUTCOME_BAD_OPTIONS},        // the operation alone
        {23, OUTCOME_BAD_OPTIONS},       //
        {24, OUTCOME_BAD_OPTIONS},       //
        {235, OUTCOME_BAD_OPTIONS},      // no whole fixed header
        {236, OUTCOME_NO_MESSAGE_TYPE},  // no option area
        {239, OUTCOME_BAD_OPTIONS},      // part of the cookie
        {240, OUTCOME_BAD_OPTIONS},      // the cookie alone
        {243, OUTCOME_BAD_OPTIONS},      // no end option
        {244, OUTCOME_RELAYED},
    };
    for (const auto &[size, outcome] : rows)
        EXPECT_EQ(outcome_of_received(packet::part_of(good, 0, size)), outcome) << size;
}

TEST_F(UdpPath, EveryClaimedLengthOfEveryOption) {
    packet::store();
    packet::set({.option_state = 1});
    message msg;
    msg.options = {type(1), opt(60, text("printer")), opt(61, hex("01 02 03 04")), packet::end()};
    const bytes whole = encode(msg);
    const std::vector<std::size_t> length_bytes = {241, 244, 253};
    for (const std::size_t at : length_bytes) {
        for (unsigned claimed = 0; claimed < 256; ++claimed) {
            const relay_outcome outcome =
                outcome_of_received(packet::with_byte(whole, at, static_cast<std::uint8_t>(claimed)));
            EXPECT_TRUE(outcome == OUTCOME_RELAYED || outcome == OUTCOME_BAD_OPTIONS) << at << ' ' << claimed;
            EXPECT_EQ(fake::datagrams.size(), outcome == OUTCOME_RELAYED ? 1U : 0U);
        }
    }
}

}  // namespace

// SPDX-License-Identifier: Apache-2.0
// What the layer-2 channel delivers, and what it drops, on real packet sockets: a port is one end of a veth pair,
// frames are injected at the other end.

#include "channel/channel.h"

#include <netinet/in.h>

#include <algorithm>
#include <chrono>
#include <string>

#include "channel_fixture.h"
#include "channel_frames.h"

namespace {

using channel_box::Channel;
using channel_box::delivery;
using channel_box::far_end;
using channel_box::inventory;
using channel_box::readable;
using channel_box::receive_now;
using channel_box::run;
using channel_box::tap;
using channel_box::wait_limit_ms;
using channel_frames::delivery_of;
using channel_frames::frame_fields;
using channel_frames::frame_of;
using channel_frames::hex;
using channel_frames::message_of;
using channel_frames::octets;
using ravo::platform::channel_next;
using ravo::platform::channel_receive;

TEST_P(Channel, DeliversAnUntaggedMessageWithItsPortAndVlan) {
    const far_end c1("c1");
    const frame_fields fields{.source_ip = 0, .destination_ip = 0xFFFFFFFF};
    c1.send(fields);
    const delivery got = receive();
    EXPECT_EQ(hex(got.message), hex(delivery_of(fields)));
    EXPECT_EQ(got.result, 16 + 8 + 300);
    octets record(20);
    const std::uint16_t family = 24;
    const std::uint32_t port = 5121;
    const std::uint16_t vlan = 10;
    std::memcpy(&record[0], &family, 2);
    std::memcpy(&record[12], &port, 4);
    std::memcpy(&record[16], &vlan, 2);
    EXPECT_EQ(hex(got.source), hex(record));
    expect_nothing_more();
    EXPECT_EQ(counted_since(), "delivered 1 truncated 0 fragment 0 ip 0 udp 0 vlan 0 port 0 limit 0 lost 0");
}

TEST_P(Channel, DeliversATaggedMessageWithItsVlan) {
    inventory.vlans[{5121, std::uint16_t{100}}] = {.vlan = 100, .port_ifindex = 5121};
    const far_end c1("c1");
    const frame_fields fields{.tags = {0x8100E064}};
    c1.send(fields);
    const delivery got = receive();
    EXPECT_EQ(hex(got.message), hex(delivery_of(fields)));
    EXPECT_EQ(got.source[16] | got.source[17] << 8, 100);
    expect_nothing_more();
}

TEST_P(Channel, PriorityTagCountsAsUntagged) {
    const far_end c1("c1");
    const frame_fields fields{.tags = {0x8100E000}};
    c1.send(fields);
    const delivery got = receive();
    EXPECT_EQ(hex(got.message), hex(delivery_of(fields)));
    EXPECT_EQ(got.source[16] | got.source[17] << 8, 10);
    expect_nothing_more();
}

TEST_P(Channel, TagWithoutAnInterfaceIsDropped) {
    const far_end c1("c1");
    c1.send(frame_fields{.tags = {0x81000065}});
    c1.send(frame_fields{.tags = {0x88A8000A}});
    c1.send(frame_fields{.tags = {0x8100000A, 0x8100000A}});
    expect_silence(c1);
    // The frame with a provider tag and the one with two tags do not pass for VLAN 10; all three are accounted for.
    EXPECT_EQ(counted_since(), "delivered 1 truncated 0 fragment 0 ip 0 udp 0 vlan 3 port 0 limit 0 lost 0");
}

TEST_P(Channel, OfAnUplinkOnlyRepliesToAnInterfaceAreRead) {
    constexpr std::uint32_t relay = 0x0A0A0001;  // 10.10.0.1
    channel_box::add_port("up1", "s1", 77);
    inventory.taps.push_back({77, "up1", /*uplink=*/true});
    inventory.interface_addresses = {{htonl(relay), 10}};
    channel_box::announce_change();
    octets reply = message_of(300);
    reply[0] = 2;
    octets request = message_of(300);
    request[0] = 1;
    const frame_fields good{.source_ip = 0xC0000202, .destination_ip = relay, .message = reply};
    const far_end s1("s1");
    s1.send(frame_fields{
        .source_ip = 0xC0000202, .destination_ip = relay + 1, .message = reply});  // only passes through the box
    s1.send(frame_fields{.source_ip = 0xC0000202, .destination_ip = relay, .message = request});
    s1.send(frame_fields{.source_ip = 0xC0000202, .destination_ip = relay, .message = {}});
    s1.send(frame_fields{.message = request});
    s1.send(good);
    const delivery got = receive();
    EXPECT_EQ(hex(got.message), hex(delivery_of(good)));
    octets record(20);
    record[0] = 24;
    EXPECT_EQ(hex(got.source), hex(record)) << "no port and no VLAN";
    expect_nothing_more();
    // Those that ask the box itself are accounted for: whoever asks needs a VLAN.
    EXPECT_EQ(counted_since(), "delivered 1 truncated 0 fragment 0 ip 0 udp 0 vlan 2 port 0 limit 0 lost 0");
}

TEST_P(Channel, WhatComesOverAnUplinkIsItsClientsVlans) {
    constexpr std::uint32_t relay = 0x0A0A0001;  // 10.10.0.1
    channel_box::add_port("up1", "s1", 77);
    inventory.taps.push_back({77, "up1", /*uplink=*/true});
    inventory.interface_addresses = {{htonl(relay), 10}};
    channel_box::announce_change();
    octets reply = message_of(300);
    reply[0] = 2;
    const auto counted = [&](octets giaddr) {
        std::copy(giaddr.begin(), giaddr.end(), reply.begin() + 24);
        far_end("s1").send(frame_fields{.source_ip = 0xC0000202, .destination_ip = relay, .message = reply});
        const std::uint64_t before = ravo::platform::books_of_vlan(10).received;
        (void)receive();
        ravo::platform::books_close();
        return ravo::platform::books_of_vlan(10).received - before;
    };
    EXPECT_EQ(counted({10, 10, 0, 1}), 1U);
    EXPECT_EQ(counted({10, 20, 0, 1}), 0U) << "a relay address that is no interface's";
    EXPECT_EQ(counted({0, 0, 0, 0}), 0U);
}

TEST_P(Channel, SkipsIpOptions) {
    const far_end c1("c1");
    for (std::size_t length = 4; length <= 40; length += 4) {
        expect_delivered(c1, {.ip_options = octets(length, 0x01)});
    }
}

TEST_P(Channel, SkipsIpOptionsBehindATag) {
    inventory.vlans[{5121, std::uint16_t{100}}] = {.vlan = 100, .port_ifindex = 5121};
    expect_delivered(far_end("c1"), {.tags = {0x81000064}, .ip_options = octets(40, 0x01)});
}

// The kernel takes out the outer tag only; the inner one is still in the frame that the filter and the tap see.
TEST_P(Channel, ATagInsideTheFrameIsRead) {
    inventory.vlans[{5121, std::uint16_t{100}}] = {.vlan = 100, .port_ifindex = 5121};
    const far_end c1("c1");
    c1.send(frame_fields{.tags = {0x81000000, 0x81000064}, .fragment = 0x2000});
    c1.send(frame_fields{.tags = {0x81000000, 0x81000064}, .destination_port = 68});
    c1.send(frame_fields{.tags = {0x81000000, 0x81000064}, .protocol = 6});
    const frame_fields fields{.tags = {0x81000000, 0x81000064}, .ip_options = octets(40, 0x01)};
    c1.send(fields);
    const delivery got = receive();
    EXPECT_EQ(hex(got.message), hex(delivery_of(fields)));
    EXPECT_EQ(got.source[16], 100);
    expect_nothing_more();
    EXPECT_EQ(counted_since(), "delivered 1 truncated 0 fragment 1 ip 0 udp 0 vlan 0 port 0 limit 0 lost 0");
}

// A first fragment can be told to be for DHCP, and counts; of a later one nobody knows what it is.
TEST_P(Channel, LaterFragmentsAndOtherTrafficDoNotPassTheFilter) {
    const far_end c1("c1");
    c1.send(frame_fields{.fragment = 0x2000});
    c1.send(frame_fields{.fragment = 0x2000, .destination_port = 68});
    c1.send(frame_fields{.fragment = 0x0010});
    c1.send(frame_fields{.fragment = 0x3FFF});
    c1.send(frame_fields{.destination_port = 68});
    c1.send(frame_fields{.protocol = 6});
    c1.send(frame_fields{.ethertype = 0x0806});
    c1.send(frame_fields{.ip_options = octets(8, 0x01), .destination_port = 69});
    expect_silence(c1);
    EXPECT_EQ(counted_since(), "delivered 1 truncated 0 fragment 1 ip 0 udp 0 vlan 0 port 0 limit 0 lost 0");
}

TEST_P(Channel, BadChecksumsAreDroppedAndCounted) {
    const far_end c1("c1");
    c1.send(frame_fields{.ip_checksum = 0xBEEF});
    c1.send(frame_fields{.udp_checksum = 0xBEEF});
    c1.send(frame_fields{.udp_checksum = 0xBEEE});
    expect_silence(c1);
    EXPECT_EQ(counted_since(), "delivered 1 truncated 0 fragment 0 ip 1 udp 2 vlan 0 port 0 limit 0 lost 0");
}

TEST_P(Channel, BadLengthsAreDroppedAndCounted) {
    const far_end c1("c1");
    c1.send(frame_fields{.total_length = 1000});
    c1.send(frame_fields{.udp_length = 7});
    c1.send(frame_fields{.udp_length = 309});
    c1.send(frame_fields{.version = 5});
    expect_silence(c1);
    EXPECT_EQ(counted_since(), "delivered 1 truncated 4 fragment 0 ip 0 udp 0 vlan 0 port 0 limit 0 lost 0");
}

TEST_P(Channel, UdpChecksumZeroPasses) {
    expect_delivered(far_end("c1"), {.udp_checksum = 0});
}

TEST_P(Channel, ChecksumThatIsNotReadyPasses) {
    // An ordinary socket leaves the checksum to the veth device, which leaves it to nobody.
    run("ip addr add 10.1.0.2/24 dev c1");
    const int client = ::socket(AF_INET, SOCK_DGRAM, 0);
    const int one = 1;
    ASSERT_EQ(::setsockopt(client, SOL_SOCKET, SO_BROADCAST, &one, sizeof one), 0);
    ASSERT_EQ(::setsockopt(client, SOL_SOCKET, SO_BINDTODEVICE, "c1", 3), 0);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(67);
    to.sin_addr.s_addr = INADDR_BROADCAST;
    const octets message = message_of(301);
    ASSERT_EQ(::sendto(client, message.data(), message.size(), 0, reinterpret_cast<const sockaddr *>(&to), sizeof to),
              301);
    ::close(client);

    const delivery got = receive();
    ASSERT_EQ(got.message.size(), 24U + 301U);
    EXPECT_EQ(hex(octets(got.message.begin() + 24, got.message.end())), hex(message));
    octets summed(got.message.begin() + 8, got.message.begin() + 16);  // addresses
    channel_frames::put16(summed, 17);
    channel_frames::put16(summed, 8 + 301);
    channel_frames::append(summed, octets(got.message.begin() + 16, got.message.end()));
    EXPECT_NE(channel_frames::internet_checksum(summed), 0) << "the checksum was ready: this test shows nothing";
    expect_nothing_more();
}

TEST_P(Channel, MessagesOfOddAndEvenLengthsUpToTheMtu) {
    const far_end c1("c1");
    for (const std::size_t length : {0U, 1U, 2U, 3U, 235U, 236U, 241U, 575U, 576U, 999U, 1000U, 1001U, 1471U, 1472U}) {
        SCOPED_TRACE(length);
        expect_delivered(c1, {.message = message_of(length)});
    }
}

TEST_P(Channel, CutsThePaddingOfAShortFrame) {
    // 60 bytes, the shortest frame on a wire: 3 of them are the message, 15 are padding.
    expect_delivered(far_end("c1"), {.message = message_of(3), .padding = 15});
}

TEST_P(Channel, VerifiesTheChecksumOfAJumboMessage) {
    run("ip link set swp1 mtu 9000 && ip link set c1 mtu 9000");
    const far_end c1("c1");
    const frame_fields good{.message = message_of(8900)};
    c1.send(good);
    EXPECT_EQ(hex(receive(10000).message), hex(delivery_of(good)));
    c1.send(frame_fields{.udp_checksum = 0xBEEF, .message = message_of(8900)});
    expect_silence(c1);
    EXPECT_EQ(counted_since(), "delivered 2 truncated 0 fragment 0 ip 0 udp 1 vlan 0 port 0 limit 0 lost 0");
}

TEST_P(Channel, CutsAMessageToTheBufferAndTellsItsLength) {
    const far_end c1("c1");
    const frame_fields fields{.message = message_of(1300)};
    octets cut = delivery_of(fields);
    cut.resize(1024);

    c1.send(fields);
    const delivery told = receive(1024, MSG_TRUNC);
    EXPECT_EQ(told.result, 24 + 1300);
    EXPECT_EQ(hex(told.message), hex(cut));

    c1.send(fields);
    const delivery silent = receive(1024);
    EXPECT_EQ(silent.result, 1024);
    EXPECT_EQ(hex(silent.message), hex(cut));
}

TEST_P(Channel, SourceRecordIsCutToTheRoomGiven) {
    const far_end c1("c1");
    for (const socklen_t room : {0U, 1U, 16U, 19U, 20U, 64U}) {
        c1.send(frame_fields{});
        EXPECT_EQ(receive(2048, 0, room).source.size(), std::min<socklen_t>(room, 20)) << room;
    }
    c1.send(frame_fields{});
    ASSERT_TRUE(readable(fd(), wait_limit_ms));
    octets buffer(2048);
    EXPECT_EQ(channel_receive(buffer.data(), buffer.size(), 0, nullptr, nullptr), 24 + 300);
}

TEST_P(Channel, OwnFramesAreNotSeen) {
    const far_end port("swp1");  // sends out of the port, as the relay does
    port.send(frame_fields{});
    EXPECT_EQ(far_end("c1").receive(0x0800, 0), octets{});  // opened after the frame went by
    expect_silence(far_end("c1"));
    EXPECT_EQ(counted_since(), "delivered 1 truncated 0 fragment 0 ip 0 udp 0 vlan 0 port 0 limit 0 lost 0");
}

TEST_P(Channel, ABurstIsDeliveredOnceAndInOrder) {
    const far_end c1("c1");
    for (unsigned i = 0; i < 1000; ++i)
        c1.send(frame_fields{.identification = i, .message = message_of(236 + i % 300)});
    // Looked at afterwards: who reads slowly is in overload, and loses some. Each is waited for, and not taken at once:
    // a port that fills a queue may have one of its own, whose timer makes the descriptor readable from time to time.
    std::vector<octets> read;
    for (unsigned i = 0; i < 1000; ++i) read.push_back(receive().message);
    EXPECT_EQ(receive_now().result, -1);
    for (unsigned i = 0; i < 1000; ++i) {
        const frame_fields expected{.identification = i, .message = message_of(236 + i % 300)};
        ASSERT_EQ(hex(read[i]), hex(delivery_of(expected))) << i;
    }
    EXPECT_EQ(counted_since(), "delivered 1000 truncated 0 fragment 0 ip 0 udp 0 vlan 0 port 0 limit 0 lost 0");
}

TEST_P(Channel, AMessageIsInHandUntilItIsReceived) {
    const far_end c1("c1");
    EXPECT_FALSE(channel_next());
    for (unsigned i = 0; i < 10; ++i) c1.send(frame_fields{.identification = i});
    for (unsigned i = 0; i < 10; ++i) {
        EXPECT_TRUE(readable(fd(), wait_limit_ms));
        EXPECT_TRUE(channel_next());
        EXPECT_TRUE(channel_next());
        EXPECT_EQ(hex(receive_now().message), hex(delivery_of({.identification = i})));
    }
    EXPECT_FALSE(channel_next());
    expect_nothing_more();
}

TEST_P(Channel, AFloodOfBadFramesLeavesTurnsToOthers) {
    const far_end c1("c1");
    for (unsigned i = 0; i < 200; ++i) c1.send(frame_fields{.udp_checksum = 0xBEEF});
    c1.send(frame_fields{});
    unsigned empty_handed = 0;
    while (receive_now().result < 0) {
        ASSERT_EQ(errno, EAGAIN);
        ASSERT_TRUE(readable(fd(), 0)) << empty_handed;
        ++empty_handed;
    }
    EXPECT_EQ(empty_handed, 200U / 32);
    EXPECT_EQ(counted_since(), "delivered 1 truncated 0 fragment 0 ip 0 udp 200 vlan 0 port 0 limit 0 lost 0");
}

TEST_P(Channel, WhatTheQueueHasNoRoomForIsCounted) {
    const far_end c1("c1");
    ravo::platform::channel_forget_lost();
    constexpr unsigned sent = 20000;
    const octets frame = frame_of({.message = message_of(1400)});
    for (unsigned i = 0; i < sent; ++i) c1.send(frame);
    unsigned delivered = 0;
    while (readable(fd(), 0)) delivered += receive_now().result >= 0;
    EXPECT_GE(delivered, 500U);
    EXPECT_LT(delivered, sent) << "nothing was lost: this test shows nothing";
    EXPECT_EQ(counted_since(), "delivered " + std::to_string(delivered) +
                                   " truncated 0 fragment 0 ip 0 udp 0 vlan 0 port 0 limit 0 lost " +
                                   std::to_string(sent - delivered));
    EXPECT_EQ(ravo::platform::channel_lost(), sent - delivered);
    ravo::platform::channel_forget_lost();
    EXPECT_EQ(ravo::platform::channel_lost(), 0U);
    // Who filled a queue may have one of its own now, whose timer makes the descriptor readable from time to time.
    c1.send(frame_fields{});
    EXPECT_EQ(hex(receive().message), hex(delivery_of({})));
}

// A port that floods leaves room to others, and its own replies too: the work on their requests is done. Without a gate
// in the kernel nobody knows what is in the queue.
TEST_P(Channel, RequestsLeaveRoomToReplies) {
    const far_end c1("c1");
    octets reply = message_of(300);
    reply[0] = 2;
    for (unsigned i = 0; i < 6000; ++i) c1.send(frame_fields{});
    for (unsigned i = 0; i < 10; ++i) c1.send(frame_fields{.message = reply});
    unsigned requests = 0, replies = 0;
    while (readable(fd(), 0)) {
        const auto got = receive_now();
        if (got.result < 0) continue;
        ++(got.message[24] == 2 ? replies : requests);
    }
    const bool gate = GetParam() == channel_box::way_in::kernel;
    EXPECT_EQ(requests, gate ? 4045U : 2048U);
    EXPECT_EQ(replies, gate ? 10U : 0U);
}

// A queue that never runs empty while each message waits for long is cut short: by the gate, or by throwing old
// requests away. A second without a standing queue ends that: on a machine with much else to do it may be over before
// the last message was read, and then a try shows nothing.
TEST_P(Channel, InOverloadOldRequestsGoAndRepliesStay) {
    using std::chrono::steady_clock;
    const far_end c1("c1");
    octets reply = message_of(300);
    reply[0] = 2;
    unsigned requests = 1500;
    for (int tries = 0; tries < 20 && requests == 1500; ++tries) {
        ravo::platform::channel_forget_lost();
        for (unsigned i = 0; i < 1500; ++i) c1.send(frame_fields{});
        const auto deadline = steady_clock::now() + std::chrono::seconds(20);
        while (ravo::platform::channel_lost() == 0 && steady_clock::now() < deadline) {
            c1.send(frame_fields{});
            (void)receive_now();
        }
        ASSERT_GT(ravo::platform::channel_lost(), 0U);
        while (readable(fd(), 0)) (void)receive_now();
        for (unsigned i = 0; i < 1500; ++i) c1.send(frame_fields{});
        c1.send(frame_fields{.message = reply});
        const auto old = steady_clock::now() + std::chrono::milliseconds(50);
        while (steady_clock::now() < old) continue;
        unsigned replies = 0;
        requests = 0;
        while (readable(fd(), 0)) {
            const auto got = receive_now();
            if (got.result < 0) continue;
            ++(got.message[24] == 2 ? replies : requests);
        }
        EXPECT_EQ(replies, 1U);
    }
    EXPECT_LT(requests, 1500U);
}

INSTANTIATE_TEST_SUITE_P(WaysIn, Channel, testing::Values(channel_box::way_in::kernel, channel_box::way_in::daemon),
                         channel_box::name_of);

}  // namespace

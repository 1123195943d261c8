// SPDX-License-Identifier: Apache-2.0
// What a port may send, and what becomes of the rest: the same rule whether the kernel keeps it or the relay.

#include "channel/channel.h"

#include <gmock/gmock.h>

#include <chrono>
#include <string>

#include "books/books.h"
#include "channel_fixture.h"
#include "channel_frames.h"

namespace {

using ChannelLimit = channel_box::Channel;
using channel_box::announce_change;
using channel_box::far_end;
using channel_box::inventory;
using channel_box::readable;
using channel_box::receive_now;
using channel_frames::delivery_of;
using channel_frames::frame_fields;
using channel_frames::hex;
using channel_frames::octets;
using ravo::platform::book_counters;
using ravo::platform::books_look;
using ravo::platform::books_of_port;
using ravo::platform::books_of_vlan;
using ravo::platform::channel_describe;
using ravo::platform::described_limit;
using ravo::platform::switch_description;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::uint32_t port_1_1 = 5121;

void limit(const described_limit &limits) {
    switch_description description;
    description.limit = limits;
    channel_describe(description);
}

void send_times(const far_end &from, unsigned times, const frame_fields &fields = {}) {
    for (unsigned i = 0; i < times; ++i) from.send(fields);
}

// Receives messages until there are so many, which a busy machine may bring late, and what is there then.
unsigned receive_all(int fd, unsigned expected = 0) {
    constexpr int limit_ms = 30'000;
    unsigned received = 0;
    while (readable(fd, received < expected ? limit_ms : 0)) received += receive_now().result >= 0;
    return received;
}

// Whether a message of a port comes through, of those that are sent one after the other.
bool comes_through(const far_end &from, int fd) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (std::chrono::steady_clock::now() < end) {
        from.send(frame_fields{});
        if (readable(fd, 20) && receive_now().result >= 0) return true;
    }
    return false;
}

// How a counter of the books has grown since this was made.
class limited_of_vlan {
  public:
    explicit limited_of_vlan(std::uint16_t vlan) : vlan_(vlan), before_(now()) {}
    std::uint64_t since() const { return now() - before_; }

  private:
    std::uint64_t now() const {
        books_look();
        return books_of_vlan(vlan_).by_outcome[OUTCOME_PORT_LIMIT];
    }
    std::uint16_t vlan_;
    std::uint64_t before_;
};

std::uint64_t limited_of_port(std::uint32_t port) {
    books_look();
    return books_of_port(port).by_outcome[OUTCOME_PORT_LIMIT];
}

TEST_P(ChannelLimit, ABurstPassesAndNoMore) {
    limit({.port = 1, .burst = 5, .uplink = 0});
    const limited_of_vlan vlan10(10);
    const std::uint64_t port = limited_of_port(port_1_1);
    send_times(far_end("c1"), 8);
    EXPECT_EQ(receive_all(fd(), 5), 5U);
    EXPECT_EQ(counted_since(), "delivered 5 truncated 0 fragment 0 ip 0 udp 0 vlan 0 port 0 limit 3 lost 0");
    EXPECT_EQ(vlan10.since(), 3U);
    EXPECT_EQ(limited_of_port(port_1_1) - port, 3U);
}

TEST_P(ChannelLimit, OnePortsLimitIsNotTheOthers) {
    limit({.port = 1, .burst = 2, .uplink = 0});
    send_times(far_end("c1"), 10);
    EXPECT_EQ(receive_all(fd(), 2), 2U);
    expect_delivered(far_end("c2"), {});
}

TEST_P(ChannelLimit, BrokenMessagesAreMessages) {
    limit({.port = 1, .burst = 3, .uplink = 0});
    send_times(far_end("c1"), 2, {.udp_checksum = 0xBEEF});
    send_times(far_end("c1"), 2, {.fragment = 0x2000});
    (void)receive_all(fd());
    EXPECT_EQ(counted_since(), "delivered 0 truncated 0 fragment 1 ip 0 udp 2 vlan 0 port 0 limit 1 lost 0");
}

// A VLAN without an interface, and tags that belong to none, count for the port alone.
TEST_P(ChannelLimit, TaggedMessagesCountForTheirVlan) {
    inventory.vlans[{5121, std::uint16_t{100}}] = {.vlan = 100, .port_ifindex = port_1_1};
    limit({.port = 1, .burst = 1, .uplink = 0});
    const limited_of_vlan vlan10(10), vlan100(100);
    const std::uint64_t port = limited_of_port(port_1_1);
    const far_end c1("c1");
    send_times(c1, 4, {.tags = {0x81000064}});
    send_times(c1, 2, {.tags = {0x8100E000}});              // a priority tag is no VLAN's
    send_times(c1, 1, {.tags = {0x81000000, 0x81000064}});  // the tag that stands in the frame
    send_times(c1, 1, {.tags = {0x8100000A, 0x81000064}});
    send_times(c1, 1, {.tags = {0x88A80064}});
    send_times(c1, 1, {.tags = {0x81000065}});
    EXPECT_EQ(receive_all(fd(), 1), 1U);
    EXPECT_EQ(counted_since(), "delivered 1 truncated 0 fragment 0 ip 0 udp 0 vlan 0 port 0 limit 9 lost 0");
    EXPECT_EQ(vlan100.since(), 4U);
    EXPECT_EQ(vlan10.since(), 2U);
    EXPECT_GE(limited_of_port(port_1_1) - port, 6U);
}

// What the kernel does not hold back is let gather for a moment: reading it one by one costs more than refusing it.
TEST_P(ChannelLimit, AFloodOutsideTheKernelIsReadInPortions) {
    limit({.port = 1, .burst = 1, .uplink = 0});
    const far_end c1("c1");
    send_times(c1, 1);
    EXPECT_EQ(receive_all(fd(), 1), 1U);
    const auto refusing = [&](unsigned messages) {
        send_times(c1, messages);
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_FALSE(ravo::platform::channel_next());
        return std::chrono::steady_clock::now() - begin;
    };
    (void)refusing(20);
    bool rested = GetParam() == channel_box::way_in::kernel;  // which holds it back
    // A busy machine may take longer to read some than a flood has for them.
    for (int i = 0; i < 200 && !rested; ++i) rested = refusing(20) >= std::chrono::microseconds(200);
    EXPECT_TRUE(rested);
}

TEST_P(ChannelLimit, NoneIsNone) {
    limit({.port = 0, .burst = 1, .uplink = 0});
    send_times(far_end("c1"), 700);
    EXPECT_EQ(receive_all(fd(), 700), 700U);
}

TEST_P(ChannelLimit, APortMaySayItsOwn) {
    switch_description description;
    description.limit = {.port = 1, .burst = 4, .uplink = 0};
    description.ports = {{.device = "swp1", .module = 1, .port = 1, .limit = 0},
                         {.device = "swp2", .module = 1, .port = 2, .burst = 2}};
    channel_describe(description);
    send_times(far_end("c1"), 20);
    EXPECT_EQ(receive_all(fd(), 20), 20U);
    send_times(far_end("c2"), 20);
    EXPECT_EQ(receive_all(fd(), 2), 2U);
}

TEST_P(ChannelLimit, AnUplinkHasItsOwn) {
    limit({.port = 1, .burst = 1, .uplink = 0});
    inventory.taps[0].uplink = true;
    inventory.interface_addresses = {{htonl(0x0A0A0001), 10}};
    announce_change();
    octets reply = channel_frames::message_of(300);
    reply[0] = 2;
    send_times(far_end("c1"), 20, {.destination_ip = 0x0A0A0001, .message = reply});
    EXPECT_EQ(receive_all(fd(), 20), 20U);
}

// The rate is kept from the first message to the last, however the sender spreads them.
TEST_P(ChannelLimit, OverTimeNoMoreThanTheRatePasses) {
    using clock = std::chrono::steady_clock;
    limit({.port = 1000, .burst = 10, .uplink = 0});
    const far_end c1("c1");
    unsigned received = 0;
    const auto begin = clock::now();
    while (clock::now() - begin < std::chrono::milliseconds(200)) {
        c1.send(frame_fields{});
        received += receive_all(fd());
    }
    const double seconds = std::chrono::duration<double>(clock::now() - begin).count();
    received += receive_all(fd());
    EXPECT_GE(received, 10U);
    EXPECT_LE(received, 10 + 1000 * seconds + 1);
}

TEST_P(ChannelLimit, OtherLimitsHoldAtOnceAndLoseNothing) {
    limit({.port = 1, .burst = 5, .uplink = 0});
    const far_end c1("c1");
    send_times(c1, 5);
    limit({.port = 1, .burst = 8, .uplink = 0});
    send_times(c1, 5);
    EXPECT_EQ(receive_all(fd(), 8), 8U);
    limit({.port = 0, .burst = 1, .uplink = 0});
    send_times(c1, 5);
    EXPECT_EQ(receive_all(fd(), 5), 5U);
    EXPECT_EQ(counted_since(), "delivered 13 truncated 0 fragment 0 ip 0 udp 0 vlan 0 port 0 limit 2 lost 0");
}

// A long burst at a slow rate is minutes of it: they are no minutes at a fast one, nor where the burst is short.
TEST_P(ChannelLimit, WhatWasUsedAtASlowRateShutsNobodyOutAtAnother) {
    const far_end c1("c1");
    limit({.port = 1, .burst = 100, .uplink = 0});
    send_times(c1, 100);
    EXPECT_EQ(receive_all(fd(), 100), 100U);
    limit({.port = 1000, .burst = 150, .uplink = 0});
    send_times(c1, 20);
    EXPECT_EQ(receive_all(fd(), 20), 20U);
    limit({.port = 1, .burst = 200, .uplink = 0});
    send_times(c1, 50);
    EXPECT_EQ(receive_all(fd(), 50), 50U);
    limit({.port = 0, .burst = 1, .uplink = 0});
    limit({.port = 1, .burst = 200, .uplink = 0});
    send_times(c1, 200);
    EXPECT_EQ(receive_all(fd(), 200), 200U);
    limit({.port = 1000, .burst = 1, .uplink = 0});
    EXPECT_TRUE(comes_through(c1, fd()));
}

TEST_P(ChannelLimit, WhatAPortThatWentWasRefusedIsCounted) {
    limit({.port = 1, .burst = 5, .uplink = 0});
    inventory.vlans[{5121, std::uint16_t{100}}] = {.vlan = 100, .port_ifindex = port_1_1};
    send_times(far_end("c1"), 7);
    send_times(far_end("c1"), 7, {.tags = {0x81000064}});
    EXPECT_EQ(receive_all(fd(), 5), 5U);
    inventory.taps.erase(inventory.taps.begin());
    announce_change();
    expect_silence(far_end("c2"));
    inventory.taps.push_back({5121, "swp1"});
    announce_change();
    limit({.port = 0, .burst = 1, .uplink = 0});
    expect_silence(far_end("c1"));
    EXPECT_EQ(counted_since(), "delivered 7 truncated 0 fragment 0 ip 0 udp 0 vlan 0 port 0 limit 9 lost 0");
}

TEST_P(ChannelLimit, ThePortIsNamedInTheLogOnceAMinute) {
    limit({.port = 1, .burst = 1, .uplink = 0});
    const far_end c1("c1");
    send_times(c1, 11);
    EXPECT_EQ(receive_all(fd(), 1), 1U);
    EXPECT_THAT(log(), IsEmpty());
    books_look();
    EXPECT_THAT(log(), ElementsAre("port 1/1 (swp1) sends more than its limit of messages: 10 dropped"));
    send_times(c1, 5);
    (void)receive_all(fd());
    books_look();
    EXPECT_EQ(log().size(), 1U);
}

INSTANTIATE_TEST_SUITE_P(WaysIn, ChannelLimit,
                         testing::Values(channel_box::way_in::kernel, channel_box::way_in::daemon),
                         channel_box::name_of);

}  // namespace

// SPDX-License-Identifier: Apache-2.0
// The rings by themselves, at devices that flood them; what the channel makes of their frames is
// channel_limit_test.cpp's.
#include "channel/packet_rings.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "channel_frames.h"
#include "channel_net.h"
#include "gate/fan_out.h"
#include "gate/socket_filter.h"
#include "process/descriptor_store.h"

namespace {

std::map<std::string, ravo::platform::descriptor> stored;  // in place of an init system

}  // namespace

namespace ravo::platform {

bool store_has(const std::string &name) {
    return stored.count(name) != 0;
}

descriptor store_take(const std::string &name) {
    const auto found = stored.find(name);
    return found == stored.end() ? descriptor() : descriptor(::fcntl(found->second.get(), F_DUPFD_CLOEXEC, 0));
}

void store_keep(const std::string &name, int fd) {
    stored[name] = descriptor(::fcntl(fd, F_DUPFD_CLOEXEC, 0));
}

void store_forget(const std::string &name) {
    stored.erase(name);
}

void store_begin() {}

void store_end_of_start() {}

void store_close() {}

}  // namespace ravo::platform

namespace {

using channel_box::far_end;
using channel_frames::frame_fields;
using ravo::platform::fan_out;
using ravo::platform::packet_rings;
using ravo::platform::ring_frame;
using ravo::platform::ring_overrun;

constexpr int first_index = 5121;
constexpr unsigned more_than_a_ring = packet_rings::apart_capacity + 100;

// The next device number that shares, or does not share, a ring with the first.
int other_index(bool same_ring) {
    int index = first_index + 1;
    while ((fan_out::shared_member_of(index) == fan_out::shared_member_of(first_index)) != same_ring) ++index;
    return index;
}

// Port swp1 floods; swp2 shares its ring, and swp3 does not.
class PacketRings : public channel_box::NetTest {
  protected:
    void SetUp() override {
        NetTest::SetUp();
        channel_box::add_port("swp1", "c1", first_index);
        channel_box::add_port("swp2", "c2", mate);
        channel_box::add_port("swp3", "c3", stranger);
        ASSERT_EQ(rings.open(), 0);
        ASSERT_EQ(rings.listen(true), 0);
    }

    static void send(const std::string &far, unsigned times) {
        const far_end from(far);
        for (unsigned i = 0; i < times; ++i) from.send(frame_fields{});
    }

    // All that waits, by device. Each device that fills its ring is moved, as wanted or not.
    std::map<int, unsigned> take_all(bool wanted = true) {
        std::map<int, unsigned> taken;
        ring_frame frame;
        while (rings.take(&frame)) {
            ++taken[frame.kernel_ifindex];
            if (rings.is_crowded()) rings.clear(wanted);
        }
        for (int waited = 0; !rings.settled() && waited < channel_box::wait_limit_ms; ++waited) ::poll(nullptr, 0, 1);
        EXPECT_TRUE(rings.settled());
        return taken;
    }

    // Lets the first port fill its ring, so that it gets one of its own.
    void set_apart() {
        send("c1", packet_rings::crowd);
        EXPECT_EQ(take_all(), (std::map<int, unsigned>{{first_index, packet_rings::crowd}}));
    }

    static std::uint64_t frames_of(const std::vector<ring_overrun> &all, int kernel_ifindex) {
        std::uint64_t frames = 0;
        for (const ring_overrun &one : all)
            if (one.kernel_ifindex == kernel_ifindex) frames += one.frames;
        return frames;
    }

    const int mate = other_index(true);
    const int stranger = other_index(false);
    packet_rings rings;
};

TEST_F(PacketRings, AFullRingIsNotTheOthers) {
    send("c1", more_than_a_ring);
    send("c2", 1);
    send("c3", 1);
    ring_frame frame;
    unsigned before = 0;
    for (; rings.take(&frame) && frame.kernel_ifindex != stranger; ++before) continue;
    EXPECT_EQ(frame.kernel_ifindex, stranger);
    EXPECT_LE(before, 1U) << "rings are read in turn";
    EXPECT_EQ(take_all(), (std::map<int, unsigned>{{first_index, packet_rings::apart_capacity - before}}));
    const auto overruns = rings.take_overruns(100);
    ASSERT_EQ(overruns.size(), 1U);
    EXPECT_EQ(overruns[0].kernel_ifindex, 0) << "nobody knows whose";
    EXPECT_FALSE(overruns[0].over_limit);
    EXPECT_EQ(overruns[0].frames, more_than_a_ring + 1 - packet_rings::apart_capacity);
}

TEST_F(PacketRings, WhoFillsARingGetsOneOfItsOwn) {
    set_apart();
    send("c1", more_than_a_ring);
    send("c2", 3);
    EXPECT_EQ(take_all(), (std::map<int, unsigned>{{first_index, packet_rings::apart_capacity}, {mate, 3}}));
    EXPECT_EQ(frames_of(rings.take_overruns(100), first_index), more_than_a_ring - packet_rings::apart_capacity);
}

TEST_F(PacketRings, ABurstOfSeveralDevicesFillsNone) {
    const far_end c1("c1"), c2("c2");
    for (unsigned i = 0; i < 2 * packet_rings::crowd; ++i) {
        c1.send(frame_fields{});
        c2.send(frame_fields{});
    }
    ring_frame frame;
    while (rings.take(&frame)) EXPECT_FALSE(rings.is_crowded());
}

TEST_F(PacketRings, WhatIsLostOverTheLimitIsKnown) {
    set_apart();
    send("c1", more_than_a_ring);
    ring_frame frame;
    ASSERT_TRUE(rings.take(&frame));
    EXPECT_TRUE(rings.note_over_limit(true, 100));
    const auto overruns = rings.take_overruns(101);
    ASSERT_EQ(overruns.size(), 1U);
    EXPECT_TRUE(overruns[0].over_limit);
    EXPECT_TRUE(overruns[0].tagged);
    send("c1", 200);
    ASSERT_EQ(rings.take_overruns(103).size(), 1U);
    send("c1", 200);
    const auto later = rings.take_overruns(200);
    ASSERT_EQ(later.size(), 1U);
    EXPECT_FALSE(later[0].over_limit) << "that was long ago";
}

TEST_F(PacketRings, InASharedRingNobodyIsKnown) {
    send("c1", 1);
    ring_frame frame;
    ASSERT_TRUE(rings.take(&frame));
    EXPECT_FALSE(rings.note_over_limit(false, 100));
}

TEST_F(PacketRings, ADeviceThatIsCalmSharesARingAgain) {
    set_apart();
    for (unsigned look = 0; look <= packet_rings::calm_looks; ++look) {
        rings.look();
        (void)take_all();
    }
    send("c1", more_than_a_ring);
    const auto overruns = rings.take_overruns(100);
    ASSERT_EQ(overruns.size(), 1U);
    EXPECT_EQ(overruns[0].kernel_ifindex, 0);
}

TEST_F(PacketRings, WhoIsOverItsLimitIsNotCalm) {
    set_apart();
    for (unsigned look = 0; look <= packet_rings::calm_looks; ++look) {
        send("c1", 1);
        ring_frame frame;
        ASSERT_TRUE(rings.take(&frame));
        EXPECT_TRUE(rings.note_over_limit(false, 100 + look));
        rings.look();
        (void)take_all();
    }
    send("c1", more_than_a_ring);
    EXPECT_GT(frames_of(rings.take_overruns(104), first_index), 0U);
}

// Its ring wakes nobody by itself, and a timer does as long as it has one.
TEST_F(PacketRings, FramesInAnOwnRingAreNotForgotten) {
    set_apart();
    send("c1", 1);
    pollfd wait{.fd = rings.fd(), .events = POLLIN, .revents = 0};
    EXPECT_EQ(::poll(&wait, 1, channel_box::wait_limit_ms), 1);
    EXPECT_EQ(take_all(), (std::map<int, unsigned>{{first_index, 1}}));
}

TEST_F(PacketRings, ADeviceThatNobodyWantsIsRefusedUntilSomebodyDoes) {
    send("c1", packet_rings::crowd);
    EXPECT_EQ(take_all(false).size(), 1U);
    send("c1", 10);
    send("c2", 1);
    EXPECT_EQ(take_all(), (std::map<int, unsigned>{{mate, 1}}));
    rings.devices_changed([](int kernel_ifindex) { return kernel_ifindex == first_index; });
    (void)take_all();
    send("c1", 10);
    EXPECT_EQ(take_all(), (std::map<int, unsigned>{{first_index, 10}}));
}

// What the box itself sends comes to its packet sockets too, as it leaves; the far ends of the cables are here as well.
TEST_F(PacketRings, WhatTheBoxSendsIsNotReceived) {
    send("swp1", 5);
    EXPECT_EQ(take_all(), (std::map<int, unsigned>{{channel_box::ifindex("c1"), 5}}));
}

// ---- From one daemon to the next ----

class KeptRings : public PacketRings {
  protected:
    void SetUp() override {
        stored.clear();
        PacketRings::SetUp();
        rings.keep();
    }
    void TearDown() override {
        stored.clear();
        PacketRings::TearDown();
    }

    packet_rings next;
};

TEST_F(KeptRings, WhatWaitsInAnyOfThemGoesOn) {
    set_apart();
    send("c1", 5);
    send("c2", 3);
    ring_frame frame;
    ASSERT_TRUE(rings.take(&frame));
    rings.leave();
    send("c3", 2);
    ASSERT_TRUE(next.take_over(true));
    EXPECT_EQ(next.waiting(), 9U);
    std::map<int, unsigned> taken{{frame.kernel_ifindex, 1}};
    while (next.take(&frame)) ++taken[frame.kernel_ifindex];
    EXPECT_EQ(taken, (std::map<int, unsigned>{{first_index, 5}, {mate, 3}, {stranger, 2}}));
    // And where they go is as it was at first: the first port shares a ring, and wakes whoever waits.
    send("c1", 1);
    pollfd wait{.fd = next.fd(), .events = POLLIN, .revents = 0};
    EXPECT_EQ(::poll(&wait, 1, channel_box::wait_limit_ms), 1);
    ASSERT_TRUE(next.take(&frame));
    EXPECT_EQ(frame.kernel_ifindex, first_index);
    EXPECT_FALSE(next.note_over_limit(false, 100));
}

TEST_F(KeptRings, AreTakenOverTogetherOrNotAtAll) {
    stored.erase("packets-2048x512-3");
    EXPECT_FALSE(next.take_over(true));
    EXPECT_EQ(take_log_line(), "the packet socket of the daemon before is closed: some of its sockets are missing");
    EXPECT_TRUE(stored.empty()) << "none is kept on";
    EXPECT_EQ(next.open(), 0);
    EXPECT_EQ(next.listen(true), 0);
}

TEST_F(KeptRings, BelongTogether) {
    ravo::platform::packet_ring other(packet_rings::apart_capacity);
    ASSERT_EQ(other.open(), 0);
    ASSERT_EQ(other.listen(), 0);
    ravo::platform::store_keep("packets-2048x512-3", other.fd());
    EXPECT_FALSE(next.take_over(true));
    EXPECT_EQ(take_log_line(), "the packet socket of the daemon before is closed: its sockets do not belong together");
}

TEST_F(KeptRings, OthersThanAreWantedAreLeftWhereTheyAre) {
    EXPECT_FALSE(next.take_over(false));
    EXPECT_EQ(take_log_line(), "");
    rings.forget();
    EXPECT_TRUE(stored.empty());
    EXPECT_FALSE(next.take_over(true));
}

TEST_F(KeptRings, OneIsTakenOverToo) {
    rings.forget();
    packet_rings one;
    ASSERT_EQ(one.open(), 0);
    ASSERT_EQ(ravo::platform::socket_take_dhcp(one.first_fd()), 0);
    ASSERT_EQ(one.listen(false), 0);
    one.keep();
    ASSERT_TRUE(next.take_over(false));
    send("c1", 2);
    ring_frame frame;
    unsigned taken = 0;
    while (next.take(&frame)) ++taken;
    EXPECT_EQ(taken, 2U);
}

}  // namespace

// SPDX-License-Identifier: Apache-2.0
// The ring of a daemon that is no more: what its successor finds in it, and what it does not take for a ring at all.
// What a ring delivers otherwise: channel_test.cpp.
#include "channel/packet_ring.h"

#include <fcntl.h>
#include <linux/if_packet.h>
#include <netinet/in.h>

#include <cstring>
#include <string>
#include <vector>

#include "channel_frames.h"
#include "channel_net.h"
#include "gate/socket_filter.h"

namespace {

using channel_box::far_end;
using channel_box::run;
using channel_frames::frame_fields;
using channel_frames::frame_of;
using channel_frames::message_of;
using channel_frames::octets;
using ravo::platform::descriptor;
using ravo::platform::mapping;
using ravo::platform::packet_ring;
using ravo::platform::ring_frame;

constexpr std::size_t slot_size = 512;
constexpr unsigned capacity = 1024;

descriptor copy_of(int fd) {
    return descriptor(::fcntl(fd, F_DUPFD_CLOEXEC, 0));
}

struct PacketRing : channel_box::NetTest {
    void SetUp() override {
        NetTest::SetUp();
        channel_box::add_port("swp1", "c1", 5121);
        EXPECT_EQ(before.open(), 0);
        EXPECT_EQ(ravo::platform::socket_take_dhcp(before.fd()), 0);
        EXPECT_EQ(before.listen(), 0);
        port = std::make_unique<far_end>("c1");
    }
    // Sends frames that tell their number, from the one behind the last one on.
    void send(unsigned count, std::size_t message_size = 300) {
        for (unsigned i = 0; i < count; ++i) port->send(frame(++sent, message_size));
    }
    static octets frame(unsigned number, std::size_t message_size = 300) {
        return frame_of(frame_fields{.identification = number, .message = message_of(message_size)});
    }
    static unsigned number_of(const ring_frame &frame) {
        return frame.bytes.size() < 20 ? 0 : static_cast<unsigned>(frame.bytes[18] << 8 | frame.bytes[19]);
    }
    // The numbers of so many frames taken out of a ring; fewer when there are no more.
    static std::vector<unsigned> take(packet_ring &ring, unsigned count) {
        std::vector<unsigned> numbers;
        for (ring_frame frame; numbers.size() < count && ring.take(&frame);) numbers.push_back(number_of(frame));
        return numbers;
    }
    // Has the next daemon take over, as long as there is no fault.
    std::string take_over() { return after.take_over(copy_of(before.fd())).text; }

    packet_ring before{capacity}, after{capacity};
    std::unique_ptr<far_end> port;
    unsigned sent = 0;
};

using numbers = std::vector<unsigned>;

TEST_F(PacketRing, WhatNobodyTookIsTakenByTheNext) {
    send(3);
    EXPECT_EQ(take(before, 1), numbers{1});
    before.give_back();
    send(2);
    ASSERT_EQ(take_over(), "");
    EXPECT_EQ(after.waiting(), 4U);
    EXPECT_EQ(take(after, 10), (numbers{2, 3, 4, 5}));
    EXPECT_EQ(after.waiting(), 0U);
    send(1);
    EXPECT_EQ(take(after, 10), numbers{6});
}

TEST_F(PacketRing, TheMessageInHandDoesNotComeAgain) {
    send(3);
    EXPECT_EQ(take(before, 2), (numbers{1, 2}));  // and never gives the second one back
    send(1);
    ASSERT_EQ(take_over(), "");
    EXPECT_EQ(take(after, 10), (numbers{3, 4}));
    send(capacity);
    const numbers lap = take(after, capacity + 1);
    ASSERT_EQ(lap.size(), capacity) << "its slot is the kernel's again";
    EXPECT_EQ(lap.front(), 5U);
    EXPECT_EQ(lap.back(), 4U + capacity);
}

TEST_F(PacketRing, OneThatNobodyTookAnythingFromBeginsAtItsBeginning) {
    ASSERT_EQ(take_over(), "");
    send(2);
    EXPECT_EQ(take(after, 10), (numbers{1, 2}));
}

TEST_F(PacketRing, PlaceIsFoundWhereverTheRingWasLeft) {
    for (unsigned round = 0; round < 5; ++round) {
        send(capacity / 2 + 7);
        EXPECT_EQ(take(before, capacity).size(), capacity / 2 + 7);
    }
    EXPECT_EQ(take(before, 1), numbers());  // gives the last one back
    send(2);
    ASSERT_EQ(take_over(), "");
    EXPECT_EQ(take(after, 10), (numbers{sent - 1, sent}));
    packet_ring third(capacity);
    ASSERT_EQ(third.take_over(copy_of(after.fd())).text, "");
    send(1);
    EXPECT_EQ(take(third, 10), numbers{sent});
}

TEST_F(PacketRing, LongFramesGoOnWithTheirOwnBytes) {
    send(3, 1000);
    mapping slots(before.fd(), capacity * slot_size);
    // The daemon before had begun to take the first one, and not come to read it.
    const std::uint32_t turn = 1;
    std::memcpy(static_cast<tpacket2_hdr *>(slots.get())->tp_padding, &turn, sizeof turn);
    ASSERT_EQ(take_over(), "");
    for (const unsigned number : {2U, 3U}) {
        ring_frame taken;
        ASSERT_TRUE(after.take(&taken));
        EXPECT_FALSE(taken.cut);
        EXPECT_EQ(octets(taken.bytes.begin(), taken.bytes.end()), frame(number, 1000));
    }
}

TEST_F(PacketRing, OneThatIsFullToTheLastIsNotTakenOver) {
    send(capacity);
    EXPECT_EQ(take_over(), "nobody knows where its ring begins");
    EXPECT_EQ(after.fd(), -1);
}

TEST_F(PacketRing, SlotsThatContradictEachOtherAreNotTakenOver) {
    send(5);
    EXPECT_EQ(take(before, 1), numbers{1});
    mapping slots(before.fd(), capacity * slot_size);
    auto *third = reinterpret_cast<tpacket2_hdr *>(static_cast<std::uint8_t *>(slots.get()) + 2 * slot_size);
    third->tp_status = TP_STATUS_KERNEL;
    EXPECT_EQ(take_over(), "nobody knows where its ring begins");
}

TEST_F(PacketRing, LengthsBeyondTheSlotAreNotBelieved) {
    send(2);
    mapping slots(before.fd(), capacity * slot_size);
    static_cast<tpacket2_hdr *>(slots.get())->tp_snaplen = 1 << 30;
    ASSERT_EQ(take_over(), "");
    ring_frame taken;
    ASSERT_TRUE(after.take(&taken));
    EXPECT_TRUE(taken.cut);
    EXPECT_EQ(taken.bytes.size(), 0U);
    EXPECT_EQ(take(after, 10), numbers{2});
}

// ---- What is no ring of a relay ----

TEST_F(PacketRing, AnythingElseIsRefused) {
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    EXPECT_EQ(after.take_over(descriptor(ends[0])).text, "it is another kind of descriptor");
    EXPECT_EQ(::fcntl(ends[0], F_GETFD), -1) << "it is closed";
    ::close(ends[1]);
    EXPECT_EQ(after.take_over(descriptor()).text, "it is another kind of descriptor");
    EXPECT_EQ(after.take_over(descriptor(::socket(AF_INET, SOCK_DGRAM, 0))).text, "it is another kind of descriptor");
    EXPECT_EQ(after.take_over(descriptor(::socket(AF_PACKET, SOCK_DGRAM, 0))).text, "it is another kind of descriptor");
    EXPECT_EQ(after.take_over(descriptor(::socket(AF_PACKET, SOCK_RAW, 0))).text, "it has another kind of ring");
}

TEST_F(PacketRing, ASocketWithoutARingIsRefused) {
    descriptor plain(::socket(AF_PACKET, SOCK_RAW, htons(ETH_P_ALL)));
    const int version = TPACKET_V2;
    ASSERT_EQ(::setsockopt(plain.get(), SOL_PACKET, PACKET_VERSION, &version, sizeof version), 0);
    EXPECT_EQ(after.take_over(std::move(plain)).text, "its ring has another size");
}

TEST_F(PacketRing, ARingOfOneDeviceIsRefused) {
    sockaddr_ll one{};
    one.sll_family = AF_PACKET;
    one.sll_protocol = htons(ETH_P_ALL);
    one.sll_ifindex = channel_box::ifindex("swp1");
    ASSERT_EQ(::bind(before.fd(), reinterpret_cast<const sockaddr *>(&one), sizeof one), 0);
    EXPECT_EQ(take_over(), "it does not hear all devices");
}

TEST_F(PacketRing, ARingOfAnotherNetworkIsRefused) {
    ASSERT_EQ(::unshare(CLONE_NEWNET), 0);
    EXPECT_EQ(take_over(), "it is of another network namespace");
}

}  // namespace

// SPDX-License-Identifier: Apache-2.0
// The gate's tables at their limits; what it does with frames is tried through the channel (channel_limit_test.cpp).
#include "gate/gate.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

#include "base/owners.h"
#include "capabilities.h"

namespace {

using ravo::platform::descriptor;
using ravo::platform::gate;

constexpr int bucket_room = GATE_DEVICE_SLOTS * GATE_DEVICE_PROBES;  // devices whose numbers differ by whole tables

class Gate : public testing::Test {
  protected:
    descriptor packets{socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0)};
    gate at;

    void SetUp() override {
        if (geteuid() != 0) GTEST_SKIP() << "packet sockets take a right";
    }
    void attach() {
        ASSERT_EQ(at.attach(packets.get()), 0);
        ASSERT_TRUE(at.in_kernel()) << at.refusal();
    }
};

TEST_F(Gate, DevicesOfOneBucketHaveRoomBesideIt) {
    attach();
    const std::size_t place = at.give_place();
    ASSERT_NE(place, gate::no_place);
    for (int i = 0; i < bucket_room; ++i) EXPECT_EQ(at.let_in(7 + i * GATE_DEVICE_BUCKETS, place), 0) << i;
    EXPECT_EQ(at.let_in(7 + bucket_room * GATE_DEVICE_BUCKETS, place), ENOSPC);
    EXPECT_EQ(at.let_in(7, place), 0) << "it stands there already";
    at.shut_out(7 + GATE_DEVICE_BUCKETS);
    EXPECT_EQ(at.let_in(7 + bucket_room * GATE_DEVICE_BUCKETS, place), 0);
    at.shut_out(7 + GATE_DEVICE_BUCKETS);  // not there any more
    EXPECT_EQ(at.let_in(7 + GATE_DEVICE_BUCKETS, place), ENOSPC);
}

TEST_F(Gate, GivesAsManyPlacesAsItHas) {
    attach();
    for (std::size_t i = 0; i < GATE_PORTS; ++i) ASSERT_EQ(at.give_place(), i);
    EXPECT_EQ(at.give_place(), gate::no_place);
    EXPECT_EQ(errno, ENOSPC);
    at.free_place(77);
    EXPECT_EQ(at.give_place(), 77U);
}

TEST_F(Gate, CountsOfTagsGoWithTheirPort) {
    {
        const without_programs refused;
        ASSERT_EQ(at.attach(packets.get()), 0);
        ASSERT_FALSE(at.in_kernel());
    }
    const std::size_t first = at.give_place(), second = at.give_place();
    for (const std::size_t place : {first, second}) {
        at.set_rate(place, {.messages = 1, .burst = 1});
        EXPECT_TRUE(at.admit(place, 0, 1000));
        EXPECT_FALSE(at.admit(place, 100, 1000));
        EXPECT_FALSE(at.admit(place, 4095, 1000));
    }
    EXPECT_FALSE(at.admit(second, 100, 1000));
    std::vector<std::vector<std::uint64_t>> rows;
    const auto note = [&](const gate_tag &tag, std::uint64_t count) { rows.push_back({tag.port, tag.vlan, count}); };
    at.each_limited_tag(note);
    EXPECT_EQ(rows, (std::vector<std::vector<std::uint64_t>>{{0, 100, 1}, {0, 4095, 1}, {1, 100, 2}, {1, 4095, 1}}));
    at.free_place(first);
    rows.clear();
    at.each_limited_tag(note);
    EXPECT_EQ(rows, (std::vector<std::vector<std::uint64_t>>{{1, 100, 2}, {1, 4095, 1}}));
}

}  // namespace

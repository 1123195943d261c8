// SPDX-License-Identifier: Apache-2.0
// The gate's tables at their limits; what it does with frames is tried through the channel (channel_limit_test.cpp).
#include "gate/gate.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <utility>
#include <vector>

#include "base/mapping.h"
#include "base/owners.h"
#include "capabilities.h"
#include "gate/gate_objects.h"

namespace {

using ravo::platform::descriptor;
using ravo::platform::gate;
using ravo::platform::gate_objects;
using ravo::platform::gate_refused_before;
using ravo::platform::gate_set_keeper;
using ravo::platform::gate_set_lender;
using ravo::platform::gate_take_over;
using ravo::platform::mapping;

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

// ---- Of the daemon before ----

gate_objects kept;  // of the gate that was made last
unsigned keeps = 0;

descriptor copy_of(const descriptor &fd) {
    return descriptor(fcntl(fd.get(), F_DUPFD_CLOEXEC, 0));
}

gate_objects copy_of(const gate_objects &all) {
    return {copy_of(all.program), copy_of(all.devices), copy_of(all.ports), copy_of(all.limited_by_tag),
            copy_of(all.queue)};
}

void keep(const gate_objects &objects) {
    kept = copy_of(objects);
    ++keeps;
}

// A gate that was, with a device let in and messages counted, and one that takes it over.
class GateTakenOver : public Gate {
  protected:
    static constexpr int old_device = 7, common_device = 8, new_device = 9;
    mapping devices, tags, queue;
    gate after;

    void SetUp() override {
        Gate::SetUp();
        if (IsSkipped()) return;
        keeps = 0;
        gate_set_keeper(keep);
        attach();
        ASSERT_TRUE(at.in_kernel()) << at.refusal();
        const std::size_t place = at.give_place();
        for (const int device : {old_device, common_device}) ASSERT_EQ(at.let_in(device, place), 0);
        devices = mapping(kept.devices.get(), sizeof(gate_devices) * GATE_DEVICE_BUCKETS);
        tags = mapping(kept.limited_by_tag.get(), sizeof(gate_tag_count) * GATE_TAG_COUNTS);
        queue = mapping(kept.queue.get(), static_cast<std::size_t>(getpagesize()));
        ASSERT_TRUE(devices && tags && queue);
        static_cast<gate_queue *>(queue.get())->passed = 100;
        static_cast<gate_queue *>(queue.get())->taken = 40;
        static_cast<gate_tag_count *>(tags.get())[77] = {.tag = 123, .count = 5};
    }
    void TearDown() override {
        gate_set_keeper(nullptr);
        kept = {};
    }
    // Which devices are in the table, and their places.
    std::vector<std::pair<std::uint64_t, std::uint64_t>> let_in() const {
        std::vector<std::pair<std::uint64_t, std::uint64_t>> all;
        for (std::size_t i = 0; i < GATE_DEVICE_BUCKETS; ++i)
            for (const std::uint64_t slot : static_cast<const gate_devices *>(devices.get())[i].slots)
                if (slot != 0) all.emplace_back(slot >> 32, slot & 0xFFFFFFFF);
        return all;
    }
};

TEST_F(GateTakenOver, BeginsAnewAndMissesNothingMeanwhile) {
    ASSERT_EQ(gate_take_over(copy_of(kept)).text, "");
    const without_programs refused;  // nobody is asked for what is there
    ASSERT_EQ(after.prepare(), 0);
    ASSERT_TRUE(after.in_kernel()) << after.refusal();
    EXPECT_EQ(keeps, 1U) << "it is kept already";
    EXPECT_EQ(static_cast<gate_queue *>(queue.get())->taken, 100U);
    after.each_limited_tag([](const gate_tag &, std::uint64_t) { ADD_FAILURE() << "counts of before"; });
    ASSERT_EQ(after.give_place(), 0U);
    const std::size_t second = after.give_place();
    ASSERT_EQ(after.let_in(common_device, second), 0);
    ASSERT_EQ(after.let_in(new_device, second), 0);
    using rows = std::vector<std::pair<std::uint64_t, std::uint64_t>>;
    EXPECT_EQ(let_in(), (rows{{old_device, 0}, {common_device, second}, {new_device, second}}));
    ASSERT_EQ(after.attach(packets.get()), 0);
    EXPECT_TRUE(after.in_kernel()) << after.refusal();
    EXPECT_EQ(let_in(), (rows{{common_device, second}, {new_device, second}}));
}

TEST_F(GateTakenOver, DevicesOfBeforeMakeRoomForNewOnes) {
    for (int i = 0; i < bucket_room; ++i) ASSERT_EQ(at.let_in(17 + i * GATE_DEVICE_BUCKETS, 0), 0) << i;
    ASSERT_EQ(gate_take_over(copy_of(kept)).text, "");
    ASSERT_EQ(after.prepare(), 0);
    ASSERT_EQ(after.give_place(), 0U);
    EXPECT_EQ(after.let_in(17 + bucket_room * GATE_DEVICE_BUCKETS, 0), 0);
}

TEST_F(GateTakenOver, WhatIsNotAGateIsNotTaken) {
    const descriptor file(memfd_create("file", MFD_CLOEXEC));
    const descriptor ring(socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0));
    const descriptor event(eventfd(0, EFD_CLOEXEC));
    for (descriptor gate_objects::*part : {&gate_objects::program, &gate_objects::devices, &gate_objects::ports,
                                           &gate_objects::limited_by_tag, &gate_objects::queue}) {
        gate_objects other = copy_of(kept);
        for (const descriptor *wrong : {&file, &ring}) {
            other.*part = copy_of(*wrong);
            EXPECT_EQ(gate_take_over(copy_of(other)).text, "it is another kind of descriptor");
        }
        for (const descriptor *wrong : std::vector<const descriptor *>{&event, &kept.queue, &kept.program}) {
            if (wrong == &(kept.*part)) continue;
            other.*part = copy_of(*wrong);
            EXPECT_EQ(gate_take_over(copy_of(other)).text, "its parts are not what they should be");
        }
    }
    static_cast<gate_queue *>(queue.get())->program ^= 1;
    EXPECT_EQ(gate_take_over(copy_of(kept)).text, "it is another version's");
    ASSERT_EQ(after.prepare(), 0);
    EXPECT_EQ(keeps, 2U) << "one of its own";
}

TEST_F(Gate, DoesNotAskAgainForWhatWasRefusedBefore) {
    const without_programs refused;
    gate_set_lender("/nowhere/gate.sock");
    gate_refused_before();
    ASSERT_EQ(at.prepare(), 0);
    EXPECT_EQ(at.refusal(), "it did so before the restart, and is asked again when relaying is switched on");
    gate next;
    ASSERT_EQ(next.prepare(), 0);
    EXPECT_EQ(next.refusal(), "Operation not permitted") << "that was asked, and is not there";
    gate_set_lender("");
}

}  // namespace

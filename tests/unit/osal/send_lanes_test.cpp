// SPDX-License-Identifier: Apache-2.0
// Lanes: who sends when the daemon's socket is full, over which socket. The sockets are pairs; what was sent and not
// read yet is what waits.
#include "osal/send_lanes.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <map>
#include <string>
#include <utility>
#include <vector>

namespace {

using ravo::platform::descriptor;
using ravo::platform::lanes_close;
using ravo::platform::lanes_other_socket;
using ravo::platform::lanes_send;
using ravo::platform::lanes_socket;
using ravo::platform::send_lane_limit;
using ravo::platform::send_lanes;

constexpr std::uint32_t slow = 1, good = 2, other = 3;

std::map<int, descriptor> far_ends;  // by the socket that sends to it
bool may_open = true;

descriptor open_pair() {
    int pair[2];
    if (!may_open || ::socketpair(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0, pair) != 0) return {};
    const int little = 4096;
    ::setsockopt(pair[0], SOL_SOCKET, SO_SNDBUF, &little, sizeof little);
    far_ends[pair[0]].reset(pair[1]);
    return descriptor(pair[0]);
}

struct SendLanes : testing::Test {
    SendLanes() : daemons(open_pair()) { lanes.common = daemons.get(); }
    ~SendLanes() override {
        lanes_close(lanes);
        far_ends.clear();
        may_open = true;
    }

    // Sends to a destination. Returns whether it went out.
    bool send(std::uint32_t destination) {
        return lanes_send(lanes, destination, [](int fd) { return ::send(fd, "frame", 5, MSG_DONTWAIT); }) == 5;
    }
    // Sends until something is dropped; returns how many were not.
    int send_until_full(std::uint32_t destination) {
        int sent = 0;
        while (send(destination)) ++sent;
        return sent;
    }
    void drain(int fd) {
        char room[16];
        while (::recv(far_ends[fd].get(), room, sizeof room, 0) > 0) {
        }
    }

    descriptor daemons;
    send_lanes lanes{.open_another = open_pair};
};

TEST_F(SendLanes, AreNotOpenedWhileThereIsRoom) {
    EXPECT_TRUE(send(slow));
    EXPECT_TRUE(send(good));
    EXPECT_FALSE(lanes.sockets[0]);
    EXPECT_EQ(lanes_socket(lanes, slow), daemons.get());
}

TEST_F(SendLanes, OneDestinationFillsTheDaemonsSocketAndItsOwnLaneAndNoMore) {
    EXPECT_GT(send_until_full(slow), 0);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(lanes.owned, 1U);
    EXPECT_FALSE(send(slow));
    EXPECT_FALSE(lanes.sockets[1]) << "a destination gets one lane";
}

TEST_F(SendLanes, OthersGoOnWhileOneIsSlow) {
    send_until_full(slow);
    for (int i = 0; i < 1000; ++i) {
        for (const std::uint32_t destination : {good, other}) {
            ASSERT_TRUE(send(destination)) << i;
            drain(lanes_socket(lanes, destination));
        }
        ASSERT_FALSE(send(slow)) << i;
    }
}

TEST_F(SendLanes, AreGivenBackWhenNobodyNeedsThem) {
    send_until_full(slow);
    EXPECT_TRUE(send(good));
    drain(daemons.get());
    drain(lanes.sockets[0].get());
    for (int i = 0; i < 200; ++i) {
        ASSERT_TRUE(send(good));
        drain(lanes_socket(lanes, good));
    }
    EXPECT_EQ(lanes.owned, 0U);
    EXPECT_EQ(lanes_socket(lanes, slow), daemons.get());
}

TEST_F(SendLanes, StayWithTheSlowWhileTheyAreNotEmpty) {
    send_until_full(slow);
    EXPECT_TRUE(send(good));
    const int lane_of_good = lanes_socket(lanes, good);
    drain(daemons.get());
    for (int i = 0; i < 200; ++i) {
        ASSERT_TRUE(send(good));
        drain(lane_of_good);
        drain(daemons.get());
        ASSERT_FALSE(send(slow));
    }
    EXPECT_EQ(lanes_socket(lanes, good), daemons.get());
    EXPECT_NE(lanes_socket(lanes, slow), daemons.get());
}

TEST_F(SendLanes, AreTakenFromThoseWhoNeedThemLeast) {
    send_until_full(slow);
    for (std::uint32_t many = 10; many < 100; ++many) {
        ASSERT_TRUE(send(many)) << many;
        drain(lanes_socket(lanes, many));
    }
    EXPECT_EQ(lanes.owned, send_lane_limit);
    EXPECT_FALSE(send(slow)) << "its lane is not empty and so still its own";
}

TEST_F(SendLanes, RunOutWhenAllAreSlow) {
    for (std::uint32_t many = 10; many < 10 + send_lane_limit; ++many) send_until_full(many);
    EXPECT_FALSE(send(good));
    EXPECT_EQ(errno, EAGAIN);
    drain(lanes.sockets[5].get());
    EXPECT_TRUE(send(good)) << "an empty one is found again";
}

TEST_F(SendLanes, ThatCannotBeOpenedMeanThatTheMessageIsDropped) {
    may_open = false;
    EXPECT_GT(send_until_full(slow), 0);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_FALSE(send(good));
}

TEST_F(SendLanes, DoNotHelpAgainstOtherFailures) {
    int calls = 0;
    const ssize_t sent = lanes_send(lanes, good, [&](int) {
        ++calls;
        errno = ENODEV;
        return ssize_t{-1};
    });
    EXPECT_EQ(sent, -1);
    EXPECT_EQ(errno, ENODEV);
    EXPECT_EQ(calls, 1);
    EXPECT_FALSE(lanes.sockets[0]);
}

TEST_F(SendLanes, AreClosedTogether) {
    send_until_full(slow);
    send(good);
    const std::vector<int> open{lanes.sockets[0].get(), lanes.sockets[1].get()};
    lanes_close(lanes);
    for (const int fd : open) EXPECT_EQ(::fcntl(fd, F_GETFD), -1);
    EXPECT_EQ(lanes.owned, 0U);
    EXPECT_EQ(lanes.common, -1);
    EXPECT_GE(::fcntl(daemons.get(), F_GETFD), 0) << "the daemon's socket is not the lanes' to close";
}

}  // namespace

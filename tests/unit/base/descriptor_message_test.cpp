// SPDX-License-Identifier: Apache-2.0
#include "base/descriptor_message.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <vector>

#include "base/owners.h"

namespace {

using ravo::platform::descriptor;
using ravo::platform::descriptor_room;
using ravo::platform::put_descriptors;
using ravo::platform::take_descriptors;
using ravo::platform::use_room;

// Sends a byte and these descriptors through a socket; what comes out at its other end.
template <std::size_t Count>
std::vector<descriptor> pass(const std::array<int, Count> &fds) {
    int ends[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
    const descriptor near(ends[0]), far(ends[1]);
    char byte = 'x';
    iovec part{.iov_base = &byte, .iov_len = 1};
    descriptor_room<Count> room;
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    use_room(message, room);
    put_descriptors(message, fds);
    EXPECT_EQ(sendmsg(near.get(), &message, 0), 1);

    descriptor_room<Count> taken;
    use_room(message, taken);
    EXPECT_EQ(recvmsg(far.get(), &message, MSG_CMSG_CLOEXEC), 1);
    return take_descriptors(message);
}

TEST(DescriptorMessage, OneOrMoreArriveInTheirOrder) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    const descriptor reads(ends[0]), writes(ends[1]);
    const std::vector<descriptor> one = pass(std::array{reads.get()});
    ASSERT_EQ(one.size(), 1U);
    const std::vector<descriptor> both = pass(std::array{writes.get(), one[0].get()});
    ASSERT_EQ(both.size(), 2U);
    EXPECT_EQ(write(both[0].get(), "ravo", 4), 4);
    char text[8] = {};
    EXPECT_EQ(read(both[1].get(), text, sizeof text), 4);
    EXPECT_STREQ(text, "ravo");
}

TEST(DescriptorMessage, WithoutDescriptorsThereIsNothingToTake) {
    msghdr message{};
    EXPECT_TRUE(take_descriptors(message).empty());
}

}  // namespace

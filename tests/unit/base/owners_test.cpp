// SPDX-License-Identifier: Apache-2.0
// What owns a descriptor closes it, once.
#include "base/owners.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <utility>

namespace {

using ravo::platform::descriptor;

bool is_open(int fd) {
    return fcntl(fd, F_GETFD) >= 0;
}

int some_descriptor() {
    return open("/dev/null", O_RDONLY | O_CLOEXEC);
}

TEST(Descriptor, IsClosedWhenItsOwnerGoes) {
    const int fd = some_descriptor();
    {
        const descriptor owner(fd);
        EXPECT_TRUE(static_cast<bool>(owner));
        EXPECT_EQ(owner.get(), fd);
        EXPECT_TRUE(is_open(fd));
    }
    EXPECT_FALSE(is_open(fd));
}

TEST(Descriptor, MovesAndLeavesNothingBehind) {
    const int fd = some_descriptor();
    descriptor first(fd);
    descriptor second(std::move(first));
    EXPECT_EQ(first.get(), -1);  // NOLINT(bugprone-use-after-move): that nothing is left is what is tested
    EXPECT_EQ(second.get(), fd);
    const int other = some_descriptor();
    descriptor third(other);
    third = std::move(second);
    EXPECT_FALSE(is_open(other));
    EXPECT_EQ(third.get(), fd);
    EXPECT_TRUE(is_open(fd));
}

TEST(Descriptor, GivenAwayIsNotClosed) {
    const int fd = some_descriptor();
    {
        descriptor owner(fd);
        EXPECT_EQ(owner.release(), fd);
        EXPECT_FALSE(static_cast<bool>(owner));
    }
    EXPECT_TRUE(is_open(fd));
    close(fd);
}

TEST(Descriptor, ResetClosesTheFormerOne) {
    const int fd = some_descriptor();
    descriptor owner(fd);
    owner.reset();
    EXPECT_FALSE(is_open(fd));
    EXPECT_EQ(owner.get(), -1);
}

}  // namespace

// SPDX-License-Identifier: Apache-2.0
#include "osal/once_more.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <vector>

#include "log/log.h"

namespace {

using ravo::platform::once_more;
using testing::ElementsAre;
using testing::EndsWith;
using testing::IsEmpty;

// A call that fails with these errors, one after the other, and then is done.
struct failing {
    std::vector<int> errors;
    std::size_t calls = 0;

    int operator()() {
        if (calls++ >= errors.size()) return 7;
        errno = errors[calls - 1];
        return -1;
    }
};

struct OnceMore : testing::Test {
    OnceMore() { EXPECT_FALSE(ravo::platform::log_open("/dev/null", ravo::platform::log_level_warning)); }
    ~OnceMore() override { ravo::platform::log_close(); }

    static int call(failing &what) {
        return once_more("socket", [&] { return what(); });
    }
};

TEST_F(OnceMore, WhatIsDoneIsDoneOnce) {
    failing call_of{};
    EXPECT_EQ(call(call_of), 7);
    EXPECT_EQ(call_of.calls, 1U);
    EXPECT_THAT(ravo::platform::log_recent(), IsEmpty());
}

TEST_F(OnceMore, WhatTheKernelLacksForAMomentIsWaitedForAndTold) {
    failing call_of{{EMFILE, ENFILE, ENOMEM, ENOBUFS}};
    EXPECT_EQ(call(call_of), 7);
    EXPECT_EQ(call_of.calls, 5U);
    EXPECT_THAT(ravo::platform::log_recent(),
                ElementsAre(EndsWith("socket(): No buffer space available; tried again, and it is done")));
}

TEST_F(OnceMore, AnInterruptionIsNoFailure) {
    failing call_of{{EINTR}};
    EXPECT_EQ(call(call_of), 7);
}

TEST_F(OnceMore, WhatGoesOnIsNotWaitedForLong) {
    failing call_of{std::vector<int>(10, EMFILE)};
    EXPECT_EQ(call(call_of), -1);
    EXPECT_EQ(errno, EMFILE);
    EXPECT_EQ(call_of.calls, 5U);
    EXPECT_THAT(ravo::platform::log_recent(), IsEmpty());
}

TEST_F(OnceMore, OtherFailuresStandAtOnce) {
    failing call_of{{EACCES}};
    EXPECT_EQ(call(call_of), -1);
    EXPECT_EQ(errno, EACCES);
    EXPECT_EQ(call_of.calls, 1U);
}

}  // namespace

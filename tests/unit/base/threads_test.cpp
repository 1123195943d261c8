// SPDX-License-Identifier: Apache-2.0
#include "base/threads.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>

#include <future>
#include <memory>
#include <thread>

namespace {

struct seen {
    std::thread::id where;
    bool takes_signals;
};

bool takes(int signal) {
    sigset_t blocked;
    pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
    return sigismember(&blocked, signal) == 0;
}

TEST(Threads, WorkIsDoneElsewhereAndSignalsStayTheCallers) {
    const auto promise = std::make_shared<std::promise<seen>>();
    std::future<seen> answer = promise->get_future();
    const auto work = [promise] {
        promise->set_value({.where = std::this_thread::get_id(), .takes_signals = takes(SIGTERM)});
    };
    ASSERT_EQ(ravo::platform::start_thread(work), 0);
    EXPECT_TRUE(takes(SIGTERM));
    const seen found = answer.get();
    EXPECT_NE(found.where, std::this_thread::get_id());
    EXPECT_FALSE(found.takes_signals);
}

}  // namespace

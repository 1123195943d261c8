// SPDX-License-Identifier: Apache-2.0
// How long a connection is waited for, by a clock that the test sets. How many there may be is tried with a thousand of
// them (lab/test_web.py).
#include "connections.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

using namespace ravo::web;
using std::chrono::nanoseconds;
using moment = std::chrono::steady_clock::time_point;

constexpr moment start{std::chrono::hours(1)};

struct Connections : testing::Test {
    int ends[2] = {-1, -1};
    connection_table table;

    Connections() {
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends), 0);
        connection_begins(&table, ends[0]);
    }
    ~Connections() override {
        for (const int fd : ends) close(fd);
    }
    // Has the connection be in its present state since the start.
    void settle() { table.rows.at(0).since = start; }
    bool is_open() const {
        char byte = 0;
        return recv(ends[1], &byte, 1, 0) < 0;
    }
    void expect_end_after(nanoseconds time) {
        settle();
        connections_look(&table, start + time - nanoseconds(1));
        EXPECT_TRUE(is_open());
        EXPECT_EQ(table.slow, 0U);
        connections_look(&table, start + time);
        EXPECT_FALSE(is_open());
        EXPECT_EQ(table.slow, 1U);
    }
};

TEST_F(Connections, ARequestHasToBeWholeInTime) {
    expect_end_after(std::chrono::seconds(15));
}

TEST_F(Connections, ANextRequestHasAsLong) {
    connection_serves(&table, ends[0]);
    connection_waits(&table, ends[0]);
    expect_end_after(std::chrono::seconds(15));
}

TEST_F(Connections, AnAnswerHasToBeTakenInTime) {
    connection_serves(&table, ends[0]);
    expect_end_after(std::chrono::seconds(60));
}

TEST_F(Connections, AStreamGoesOnUntilItIsAnAnswerLikeOthers) {
    connection_serves(&table, ends[0], /*stream=*/true);
    settle();
    connections_look(&table, start + std::chrono::hours(1000));
    EXPECT_TRUE(is_open());
    connection_serves(&table, ends[0]);
    expect_end_after(std::chrono::seconds(60));
}

TEST_F(Connections, WhoIsGoneIsForgotten) {
    close(ends[0]);
    ends[0] = -1;
    connections_look(&table, start + std::chrono::hours(1000));
    EXPECT_TRUE(table.rows.empty());
    EXPECT_EQ(table.slow, 0U);
}

}  // namespace

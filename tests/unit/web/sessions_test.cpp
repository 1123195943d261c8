// SPDX-License-Identifier: Apache-2.0
#include "sessions.h"

#include <gtest/gtest.h>

namespace {

using namespace ravo::web;
using std::chrono::hours;
using std::chrono::minutes;
using std::chrono::seconds;

const moment start = moment(hours(1));
const account alice{"alice", role::admin, "$y$one"};

TEST(Sessions, AreFoundByTheirCookieUntilTheyAreOver) {
    session_table table;
    const std::string id = begin_session(&table, alice, start).id;
    EXPECT_EQ(id.size(), 64u);
    ASSERT_NE(find_session(&table, id, start + minutes(29)), nullptr);
    EXPECT_NE(find_session(&table, id, start + minutes(58)), nullptr) << "use keeps it";
    EXPECT_EQ(find_session(&table, id, start + minutes(58) + idle_time), nullptr);
    EXPECT_EQ(find_session(&table, "", start), nullptr);
    EXPECT_EQ(find_session(&table, id.substr(1), start), nullptr);
}

TEST(Sessions, LastTwelveHoursHoweverMuchTheyAreUsed) {
    session_table table;
    const std::string id = begin_session(&table, alice, start).id;
    for (moment now = start; now < start + longest_session; now += minutes(20))
        ASSERT_NE(find_session(&table, id, now), nullptr);
    EXPECT_EQ(find_session(&table, id, start + longest_session), nullptr);
}

TEST(Sessions, EndWithTheirAccountItsPasswordOrItsRole) {
    for (const std::vector<account> &now :
         {std::vector<account>{}, {{"alice", role::admin, "$y$two"}}, {{"alice", role::reader, "$y$one"}}}) {
        session_table table;
        const std::string id = begin_session(&table, alice, start).id;
        keep_sessions_of(&table, {alice}, start);
        ASSERT_NE(find_session(&table, id, start), nullptr);
        keep_sessions_of(&table, now, start);
        EXPECT_EQ(find_session(&table, id, start), nullptr);
    }
}

TEST(Sessions, AreBoundedForEachUserAndInAll) {
    session_table table;
    const std::string first = begin_session(&table, alice, start).id;
    for (std::size_t i = 0; i < most_sessions_of_user; ++i) begin_session(&table, alice, start + seconds(1));
    EXPECT_EQ(table.rows.size(), most_sessions_of_user);
    EXPECT_EQ(find_session(&table, first, start), nullptr) << "the one not used for longest goes";
    for (int i = 0; i < 300; ++i)
        begin_session(&table, {"user" + std::to_string(i), role::reader, "$y$x"}, start + seconds(2));
    EXPECT_EQ(table.rows.size(), most_sessions);
}

TEST(SignInGuard, SlowsAnAddressDownAfterFiveFailuresInAMinute) {
    sign_in_guard guard;
    for (int i = 0; i < most_failures; ++i) {
        EXPECT_EQ(sign_in_wait(&guard, "a", start + seconds(2 * i)), 0);
        sign_in_failed(&guard, "a", start + seconds(2 * i));
    }
    EXPECT_EQ(sign_in_wait(&guard, "a", start + seconds(10)), 50);
    EXPECT_EQ(sign_in_wait(&guard, "b", start + seconds(10)), 0);
    EXPECT_EQ(sign_in_wait(&guard, "a", start + seconds(60)), 0);
    sign_in_good(&guard, "a");
    EXPECT_TRUE(guard.failures.empty());
}

TEST(SignInGuard, ChecksOnlyAFewPasswordsASecond) {
    sign_in_guard guard;
    for (int i = 0; i < 4; ++i) EXPECT_EQ(sign_in_wait(&guard, std::to_string(i), start), 0);
    EXPECT_EQ(sign_in_wait(&guard, "another", start), 1);
    EXPECT_EQ(sign_in_wait(&guard, "another", start + seconds(1)), 0);
}

TEST(SignInGuard, RemembersABoundedNumberOfAddresses) {
    sign_in_guard guard;
    for (std::size_t i = 0; i < 3 * most_addresses; ++i)
        sign_in_failed(&guard, std::to_string(i), start + std::chrono::milliseconds(i));
    EXPECT_LE(guard.failures.size(), most_addresses);
    EXPECT_TRUE(guard.failures.contains(std::to_string(3 * most_addresses - 1)));
}

}  // namespace

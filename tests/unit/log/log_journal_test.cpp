// SPDX-License-Identifier: Apache-2.0
// Lines for the journal's own socket, with the fields of what they are about.
#include "log/log_journal.h"

#include <gtest/gtest.h>

#include <array>
#include <string>

#include "log/log_subject.h"

namespace {

using ravo::platform::journal_format;
using ravo::platform::log_fields;
using ravo::platform::log_record;
using ravo::platform::log_subject;

std::string formatted(const log_record &record) {
    std::array<char, 8192> room;
    return {room.data(), journal_format(record, room)};
}

TEST(Journal, ALineIsAFieldAmongOthers) {
    EXPECT_EQ(formatted({4, "cannot do it", {}}), "SYSLOG_IDENTIFIER=ravod\nPRIORITY=4\nMESSAGE=cannot do it\n");
    EXPECT_EQ(formatted({5, "a=b", "RAVO_USER=root\nRAVO_VLAN=10\n"}),
              "SYSLOG_IDENTIFIER=ravod\nPRIORITY=5\nRAVO_USER=root\nRAVO_VLAN=10\nMESSAGE=a=b\n");
}

TEST(Journal, FieldsAreThoseThatAreKnown) {
    EXPECT_EQ(log_fields({}, {}, {}), "");
    EXPECT_EQ(log_fields({.vlan = 10}, {}, {}), "RAVO_VLAN=10\n");
    const log_subject all{.vlan = 4094, .port_ifindex = 5121, .client = {2, 0, 0, 0, 0, 0xFE}, .has_client = true};
    EXPECT_EQ(log_fields(all, "hop-limit", "root"),
              "RAVO_VLAN=4094\nRAVO_PORT=1/1\nRAVO_CLIENT=02:00:00:00:00:fe\nRAVO_OUTCOME=hop-limit\n"
              "RAVO_USER=root\n");
}

TEST(Journal, UsersAreThoseOfTheInnermostCommand) {
    EXPECT_EQ(ravo::platform::log_user_now(), "");
    const ravo::platform::log_user outer("one");
    {
        const ravo::platform::log_user inner("two");
        EXPECT_EQ(ravo::platform::log_user_now(), "two");
    }
    EXPECT_EQ(ravo::platform::log_user_now(), "one");
}

}  // namespace

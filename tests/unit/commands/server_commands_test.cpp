// SPDX-License-Identifier: Apache-2.0
// How the servers answer, as commands tell it.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "base/clock.h"
#include "books/server_book.h"
#include "cli_box.h"
#include "relay_access.h"

namespace {

using namespace ravo::platform;
using cli_box::shell;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;

constexpr std::int64_t second = 1000000;

const std::uint32_t plain = inet_addr("192.0.2.11"), of_class = inet_addr("192.0.2.12"),
                    of_client = inet_addr("192.0.2.13");

// One interface with a server of each kind.
relay_interface vlan10() {
    relay_interface out{};
    std::snprintf(out.name, sizeof out.name, "vlan10");
    out.servers[1] = plain;
    out.option60[0].server = of_class;
    out.option60[0].used = 1;
    out.option61[0].server = of_client;
    out.option61[0].used = 1;
    out.option61[1].server = inet_addr("192.0.2.99");  // not in use
    return out;
}

struct ServerCommands : testing::Test {
    ServerCommands() {
        servers_clear();
        setenv("TZ", "UTC", 1);
        static const relay_access access = [] {
            relay_access made{};
            made.interface_first = [](relay_interface *out) { return *out = vlan10(), 1; };
            made.interface_next = [](relay_interface *) { return 0; };
            return made;
        }();
        relay_access_register(&access);
    }
    ~ServerCommands() override { servers_clear(); }
};

TEST_F(ServerCommands, ListsEachServerByInterface) {
    const std::int64_t now = wall_clock_us();
    servers_note_asked(10, plain, 0, now);
    servers_note_answered(10, plain, plain, 1500);
    servers_note_asked(10, of_class, 0, now - 60 * second);
    servers_note_asked(20, inet_addr("203.0.113.254"), 0, now);
    shell s(2);
    EXPECT_THAT(
        s.print("show ip dhcp relay server"),
        MatchesRegex(
            "Interface Server              Asked  Answered   Median      p99  Silent since\n"
            "vlan10    192\\.0\\.2\\.11              1         1   1\\.[0-9] ms   1\\.[0-9] ms  -\n"
            "vlan10    192\\.0\\.2\\.12              1         0        -        -  [0-9]{2}-[0-9]{2} [0-9:]{8}\n"
            "vlan10    192\\.0\\.2\\.13              0         0        -        -  -\n"
            "vlan20    203\\.0\\.113\\.254           1         0        -        -  -\n"));
    for (std::size_t at = 0; at < s.text.size();) {
        const std::size_t end = s.text.find('\n', at);
        EXPECT_LE(end - at, 80U);
        at = end + 1;
    }
}

TEST_F(ServerCommands, TellsItAsJson) {
    servers_note_asked(10, plain, 0, wall_clock_us() - 60 * second);
    servers_note_answered(10, plain, plain, 1500);
    servers_note_asked(10, plain, 0, wall_clock_us() - 30 * second);
    shell s(2);
    const std::string text = s.print("show ip dhcp relay server | json");
    EXPECT_THAT(text, testing::StartsWith("{\n  \"servers\": [\n    {\n      \"interface\": \"vlan10\",\n"
                                          "      \"server\": \"192.0.2.11\",\n      \"configured\": true,\n"
                                          "      \"asked\": 2,\n      \"answered\": 1,\n      \"median_us\": 1"));
    EXPECT_THAT(text, HasSubstr("\"silent_seconds\": 30,\n      \"silent_since\": \"20"));
    EXPECT_THAT(text, HasSubstr("{\n            \"le_us\": 2500,\n            \"count\": 1\n          }"));
    EXPECT_THAT(text, HasSubstr("\"sum_us\": 1500"));
}

TEST_F(ServerCommands, AreClearedAndConfiguredOnesStay) {
    servers_note_asked(10, plain, 0, wall_clock_us());
    servers_note_asked(20, inet_addr("203.0.113.254"), 0, wall_clock_us());
    shell s(15);
    EXPECT_EQ(s.run("clear ip dhcp relay server"), 0);
    EXPECT_THAT(s.print("show ip dhcp relay server"), Not(HasSubstr("vlan20")));
    EXPECT_THAT(s.print("show ip dhcp relay server"), HasSubstr("192.0.2.11              0         0"));
    EXPECT_THAT(s.print("show ip dhcp relay server | json"), Not(HasSubstr("response_times"))) << "nothing to tell yet";
}

}  // namespace

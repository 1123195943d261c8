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
    EXPECT_THAT(text, testing::StartsWith("{\n  \"servers\": [\n"
                                          "    {\"interface\": \"vlan10\", \"server\": \"192.0.2.11\", "
                                          "\"configured\": true, \"asked\": 2, \"answered\": 1, \"median_us\": 1"));
    EXPECT_THAT(text, HasSubstr("\"silent_seconds\": 30, \"silent_since\": \"20"));
    EXPECT_THAT(text,
                HasSubstr("\"response_times\": {\"buckets\": [{\"le_us\": 2500, \"count\": 1}], \"sum_us\": 1500}},\n"))
        << "buckets of nothing are left out";
}

// What the programs in front keep of an answer.
constexpr std::size_t longest_answer = std::size_t{8} << 20;

void note_answers(std::uint16_t vlan, std::uint32_t server, std::initializer_list<std::int64_t> times) {
    servers_note_asked(vlan, server, 0, wall_clock_us() - 60 * second);
    for (const std::int64_t time : times) servers_note_answered(vlan, server, server, time);
    servers_note_asked(vlan, server, 0, wall_clock_us() - 30 * second);
}

TEST_F(ServerCommands, TheDocumentFitsWhatProgramsReadHoweverManyThereAre) {
    // Two servers on each VLAN, answers in every bucket, and silent now: rows as long as they get.
    const auto everywhere = {std::int64_t{400},     std::int64_t{900},    std::int64_t{2000},   std::int64_t{4000},
                             std::int64_t{9000},    std::int64_t{20000},  std::int64_t{40000},  std::int64_t{90000},
                             std::int64_t{200000},  std::int64_t{400000}, std::int64_t{900000}, std::int64_t{2000000},
                             std::int64_t{4000000}, std::int64_t{9000000}};
    for (std::uint16_t vlan = 1; vlan <= 4094; ++vlan)
        for (const std::uint32_t server : {inet_addr("198.51.100.201"), inet_addr("198.51.100.202")})
            note_answers(vlan, server, everywhere);
    shell s(2);
    const std::string text = s.print("show ip dhcp relay server | json");
    std::size_t rows = 0, buckets = 0;
    for (std::size_t at = text.find("\"asked\""); at != std::string::npos; at = text.find("\"asked\"", at + 1)) ++rows;
    for (std::size_t at = text.find("\"count\""); at != std::string::npos; at = text.find("\"count\"", at + 1))
        ++buckets;
    EXPECT_EQ(rows, 2U * 4094 + 3);
    EXPECT_EQ(buckets, 2U * 4094 * 14);
    EXPECT_LT(text.size(), longest_answer);
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

// SPDX-License-Identifier: Apache-2.0
// Messages that ended the daemon, as commands show and forget them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "books/black_box.h"
#include "books/crash_book.h"
#include "child.h"
#include "cli_box.h"

namespace {

using namespace ravo::platform;
using cli_box::shell;
using testing::HasSubstr;

struct CrashCommands : testing::Test {
    std::string folder;
    CrashCommands() {
        char name[] = "/tmp/crash_commands_test.XXXXXX";
        folder = mkdtemp(name);
        setenv("TZ", "UTC", 1);
        (void)crash_book_open(folder);
    }
    ~CrashCommands() override {
        black_box_close();
        (void)crash_book_open("");
        std::filesystem::remove_all(folder);
    }
    // A daemon that dies of a message from port 1/3, or is killed while it handles it; the next one enters it.
    void die(int signal, std::int64_t time_us) const {
        black_box_close();
        (void)child::run([&]() -> int {
            black_box_crash none;
            if (black_box_open(folder + "/box", &none)) return 1;
            book_entry entry;
            entry.time_us = time_us;
            entry.port_ifindex = 5123;
            entry.vlan = 10;
            entry.client = {2, 0, 0, 0, 0, 1};
            black_box_note(entry, std::vector<std::uint8_t>(60));
            if (signal != SIGKILL) black_box_died(signal);
            return kill(getpid(), SIGKILL);
        });
        black_box_crash crash;
        EXPECT_EQ(black_box_open(folder + "/box", &crash).text, "");
        (void)crash_book_enter(crash);
    }
};

TEST_F(CrashCommands, AreToldNewestFirst) {
    die(SIGABRT, 1717747750123456);
    die(SIGSEGV, 1717747760123456);
    die(SIGKILL, 1717747770123456);
    shell s(2);
    const std::string left = std::to_string(black_box_seconds_left(5123));
    EXPECT_EQ(s.print("show ip dhcp relay crashes"),
              "Time                    Port    VLAN  Client             Ended    Held\n"
              "2024-06-07 08:09:30.123 1/3       10  02:00:00:00:00:01  unknown  -\n"
              "    crash-20240607T080930.123456Z.pcapng\n"
              "2024-06-07 08:09:20.123 1/3       10  02:00:00:00:00:01  SIGSEGV  20 s, " +
                  left +
                  " left\n"
                  "    crash-20240607T080920.123456Z.pcapng\n"
                  "2024-06-07 08:09:10.123 1/3       10  02:00:00:00:00:01  SIGABRT  10 s\n"
                  "    crash-20240607T080910.123456Z.pcapng\n"
                  "Captures are in " +
                  folder + "\n");
}

TEST_F(CrashCommands, AreToldAsJson) {
    die(SIGABRT, 1717747750123456);
    shell s(2);
    const std::string left = std::to_string(black_box_seconds_left(5123));
    EXPECT_EQ(s.print("show ip dhcp relay crashes | json"),
              "{\n  \"crashes\": [\n    {\n      \"time\": \"2024-06-07T08:09:10.123456Z\",\n"
              "      \"client\": \"02:00:00:00:00:01\",\n      \"vlan\": 10,\n      \"port\": \"1/3\",\n"
              "      \"ifindex\": 5123,\n      \"cause\": \"SIGABRT\",\n      \"held_seconds\": 10,\n"
              "      \"held_seconds_left\": " +
                  left + ",\n      \"capture\": \"" + folder +
                  "/crash-20240607T080910.123456Z.pcapng\"\n    }\n  ]\n}\n");
}

TEST_F(CrashCommands, AreForgottenAndTheirPortsReleased) {
    die(SIGABRT, 1717747750123456);
    ASSERT_TRUE(black_box_holds(5123));
    shell s(15);
    EXPECT_EQ(s.run("clear ip dhcp relay crashes"), 0);
    EXPECT_FALSE(black_box_holds(5123));
    EXPECT_FALSE(std::filesystem::exists(folder + "/crash-20240607T080910.123456Z.pcapng"));
    EXPECT_EQ(s.print("show ip dhcp relay crashes"), "No message is known that was in hand when the daemon died\n");
    EXPECT_EQ(s.print("show ip dhcp relay crashes | json"), "{\n  \"crashes\": []\n}\n");
}

TEST_F(CrashCommands, ALineFits80Columns) {
    die(SIGABRT, 1717747750123456);
    shell s(2);
    const std::string text = s.print("show ip dhcp relay crashes");
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t end = text.find('\n', at);
        EXPECT_LE(end - at, 80U);
        at = end + 1;
    }
}

}  // namespace

// SPDX-License-Identifier: Apache-2.0
// Statistics of what could not be sent: behind the total, by server and by interface.
#include <arpa/inet.h>
#include <event2/event.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <set>
#include <string>

#include "base/loop.h"
#include "books/books.h"
#include "cli_box.h"
#include "memmgr.h"
#include "memory/memmgr_budget.h"
#include "osal.h"
#include "osal/osal_events.h"
#include "osal/send_figures.h"
#include "osal/transaction_room.h"
#include "relay_access.h"

namespace {

using namespace ravo::platform;
using cli_box::shell;

constexpr std::uint32_t vlan10 = 1034;

struct BooksStatistics : testing::Test {
    BooksStatistics() {
        books_clear_counters();
        send_figures_clear();
    }
};

constexpr char empty_total[] =
    "Total:\n"
    "  received                          0  messages that came in\n"
    "  sent                              0  copies sent to servers and clients\n"
    "  What became of them:\n";

TEST_F(BooksStatistics, TellWhatCouldNotBeSentByServerAndByInterface) {
    send_count_server(inet_addr("192.0.2.12"), EAGAIN);
    send_count_server(inet_addr("192.0.2.12"), EAGAIN);
    send_count_server(inet_addr("192.0.2.11"), ENETUNREACH);
    send_count_interface(vlan10, ENOBUFS);
    shell s(2);
    EXPECT_EQ(s.print("show ip dhcp relay statistics"),
              std::string(empty_total) +
                  "Server 192.0.2.12: 2 copies not sent for lack of room, 0 for other reasons\n"
                  "Server 192.0.2.11: 0 copies not sent for lack of room, 1 for other reasons\n"
                  "Interface vlan10: 1 copies not sent for lack of room, 0 for other reasons\n");
}

TEST_F(BooksStatistics, TellItInJsonToo) {
    send_count_server(inet_addr("192.0.2.12"), EAGAIN);
    send_count_interface(vlan10, ENODEV);
    static const relay_access no_data{};  // the document holds nothing of the relay's own
    relay_access_register(&no_data);
    shell s(2);
    const std::string text = s.print("show ip dhcp relay statistics | json");
    const std::size_t unsent = text.find("  \"unsent\"");
    EXPECT_EQ(text.substr(unsent, text.find("  \"transactions\"") - unsent),
              "  \"unsent\": [\n"
              "    {\n      \"server\": \"192.0.2.12\",\n      \"no_room\": 1,\n      \"failed\": 0\n    },\n"
              "    {\n      \"interface\": \"vlan10\",\n      \"no_room\": 0,\n      \"failed\": 1\n    }\n"
              "  ],\n");
}

// Between two pieces of output messages are relayed, and counted.
TEST_F(BooksStatistics, AreThoseOfOneMoment) {
    static const relay_access no_data{};
    relay_access_register(&no_data);
    for (std::uint16_t vlan = 10; vlan < 60; ++vlan) books_count(OUTCOME_RELAYED, vlan, 5121, 3);
    for (const char *line : {"show ip dhcp relay statistics", "show ip dhcp relay statistics | json",
                             "show ip dhcp relay statistics vlan 10", "show ip dhcp relay statistics port 1/1"}) {
        const std::string at_once = shell(2).print(line);
        shell s(2);
        ravo::cli::session_begin(*s.session, line);
        int result = -1, turns = 0;
        for (; !ravo::cli::session_turn(*s.session, std::chrono::microseconds(0), &result); ++turns)
            books_count(OUTCOME_RELAYED, 10, 5121, 1);
        EXPECT_EQ(result, 0);
        EXPECT_GT(turns, 2) << line;
        EXPECT_EQ(s.text, at_once);
    }
}

struct transaction {
    std::uint32_t key;
    osal_timer expiry;
};

std::set<void *> opened;

void end(void *arg) {
    opened.erase(arg);
    memmgr_free(arg);
}

// A transaction of a port; the books say which one.
bool open(std::uint32_t port) {
    books_open(10, port, {}, {});
    auto *made = static_cast<transaction *>(mfh_calloc(1, sizeof(transaction)));
    if (made != nullptr) {
        OSAL_ZEBOS_Create_Sec_Once_Timer(&made->expiry, "test", end, 300, 1, made);
        opened.insert(made);
    }
    books_close();
    return made != nullptr;
}

struct CrowdedStatistics : BooksStatistics {
    CrowdedStatistics() {
        memmgr_set_budget(64 * 64);
        transaction_room_open();
        for (int i = 0; i < 10; ++i) open(5122);
        while (open(5121)) {
        }
        event_base_loop(loop_base(), EVLOOP_NONBLOCK);
        books_clear_counters();
    }
    ~CrowdedStatistics() override {
        transaction_room_close();
        for (void *each : std::set<void *>(opened)) end(each);
        timers_free();
        loop_free();
        memmgr_set_budget(0);
        transaction_room_forget();
    }
};

// 64 transactions fit; four of them, a sixteenth, are the reserve that is made free again.
TEST_F(CrowdedStatistics, TellWhoHadToMakeRoom) {
    shell s(2);
    EXPECT_EQ(
        s.print("show ip dhcp relay statistics"),
        std::string(empty_total) +
            "60 transactions open, 3840 of 4096 bytes used; 4 were ended early to make room,\n  1 records found none\n"
            "Port 1/1: 50 transactions open, 4 ended early\n");
}

TEST_F(CrowdedStatistics, TellItInJsonToo) {
    static const relay_access no_data{};
    relay_access_register(&no_data);
    shell s(2);
    const std::string text = s.print("show ip dhcp relay statistics | json");
    EXPECT_EQ(text.substr(text.find("  \"transactions\"")),
              "  \"transactions\": {\n    \"open\": 60,\n    \"used_bytes\": 3840,\n    \"budget_bytes\": 4096,\n"
              "    \"ended_early\": 4,\n    \"refused\": 1,\n    \"ports\": [\n"
              "      {\n        \"port\": \"1/2\",\n        \"open\": 10,\n        \"ended_early\": 0\n      },\n"
              "      {\n        \"port\": \"1/1\",\n        \"open\": 50,\n        \"ended_early\": 4\n      }\n"
              "    ]\n  }\n}\n");
}

TEST_F(CrowdedStatistics, AreCountedAnewWhenCleared) {
    shell s(15);
    EXPECT_EQ(s.run("clear ip dhcp relay statistics"), 0);
    EXPECT_EQ(s.print("show ip dhcp relay statistics"), empty_total);
}

TEST_F(BooksStatistics, AreClearedTogether) {
    send_count_server(inet_addr("192.0.2.12"), EAGAIN);
    shell s(15);
    EXPECT_EQ(s.run("clear ip dhcp relay statistics"), 0);
    EXPECT_EQ(s.print("show ip dhcp relay statistics"), empty_total);
}

}  // namespace

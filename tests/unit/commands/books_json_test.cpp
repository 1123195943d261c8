// SPDX-License-Identifier: Apache-2.0
// The books as JSON.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "books_box.h"

namespace {

using namespace ravo::cli;
using namespace ravo::platform;
using namespace books_box;
using cli_box::shell;
using testing::ElementsAre;
using testing::MatchesRegex;

// A relay that is there; the documents here need nothing of it.
void have_relay() {
    static const relay_access access{};
    relay_access_register(&access);
}

// All outcomes are members, also those that no message had.
// All outcomes, of which one happened once; those of guards are told in the total only.
std::string outcomes(const std::string &indent, relay_outcome one, bool total) {
    std::string out = indent + "\"outcomes\": {\n";
    for (int i = 0; i < OUTCOMES; ++i)
        if (total || i < OUTCOME_CORE_ASSERTION || i > OUTCOME_GUARD_TRANSACTION)
            out += indent + "  \"" + std::string(outcome_word(static_cast<relay_outcome>(i))) +
                   "\": " + (i == one ? "1" : "0") + (i + 1 == OUTCOMES ? "\n" : ",\n");
    return out + indent + "}\n";
}

std::string one_discover(const std::string &indent) {
    std::string out = indent + "\"types\": {\n" + indent + "  \"discover\": 1,\n";
    for (const char *type : {"offer", "request", "decline", "ack", "nak", "release"})
        out += indent + "  \"" + type + "\": 0,\n";
    return out + indent + "  \"inform\": 0\n" + indent + "}\n";
}

constexpr char no_transactions[] =
    "  \"transactions\": {\n    \"open\": 0,\n    \"used_bytes\": 0,\n    \"budget_bytes\": 0,\n"
    "    \"ended_early\": 0,\n    \"refused\": 0,\n    \"ports\": []\n  }\n";

TEST_F(BooksCommands, StatisticsAsJson) {
    have_relay();
    take({.servers = {"192.0.2.11", "192.0.2.12"}});
    const std::string counted = "\"received\": 1,\nI\"sent\": 2,\nI\"rebroadcast\": 0,\n";
    const auto block = [&](const std::string &indent, std::string head, bool total = false) {
        std::string text = counted;
        for (std::size_t at; (at = text.find('I')) != std::string::npos;) text.replace(at, 1, indent);
        std::string words = outcomes(indent, OUTCOME_RELAYED, total);
        words.insert(words.size() - 1, ",");
        return head + indent + text + words + one_discover(indent);
    };
    // Lost messages are known in total alone.
    const auto with_lost = [](std::string text) {
        return text.insert(text.size() - 1, ",\n    \"lost\": 0,\n    \"restarts\": 0");
    };
    shell s(2);
    EXPECT_EQ(s.print("show ip dhcp relay statistics vlan 10 | json"), block("  ", "{\n  \"vlan\": 10,\n") + "}\n");
    EXPECT_EQ(s.print("show ip dhcp relay statistics port 1/1 | json"),
              block("  ", "{\n  \"port\": \"1/1\",\n  \"ifindex\": 5121,\n") + "}\n");
    EXPECT_EQ(s.print("show ip dhcp relay statistics | json"),
              "{\n  \"total\": {\n" + with_lost(block("    ", "", /*total=*/true)) + "  },\n  \"vlans\": [\n    {\n" +
                  block("      ", "      \"vlan\": 10,\n") + "    }\n  ],\n  \"ports\": [\n    {\n" +
                  block("      ", "      \"port\": \"1/1\",\n      \"ifindex\": 5121,\n") +
                  "    }\n  ],\n  \"unsent\": [],\n" + no_transactions + "}\n");
    EXPECT_EQ(s.run("show ip dhcp relay statistics port 1 | json"), 1);
    EXPECT_EQ(s.text, "% \"1\" is no port; give module and port, such as 1/2\n");
}

// The time of a document, the one thing in it that no test can know, in a form of its own.
std::string with_fixed_time(std::string text) {
    const std::string name = "\"time\": \"";
    for (std::size_t at = text.find(name); at != std::string::npos; at = text.find(name, at + 1)) {
        constexpr std::size_t size = sizeof "2024-06-07T08:09:10.123456Z" - 1;
        EXPECT_THAT(text.substr(at + name.size(), size), MatchesRegex("[-0-9]{10}T[:0-9]{8}\\.[0-9]{6}Z"));
        text.replace(at + name.size(), size, "T");
    }
    const std::string waits = "\"unanswered_us\": ";
    for (std::size_t at = text.find(waits); at != std::string::npos; at = text.find(waits, at + 1)) {
        const std::size_t digits = text.find_first_not_of("0123456789", at + waits.size()) - at - waits.size();
        EXPECT_GT(digits, 0u);
        text.replace(at + waits.size(), digits, "T");
    }
    return text;
}

TEST_F(BooksCommands, ClientsAsJson) {
    have_relay();
    take({.client = 1, .outcome = OUTCOME_HOP_LIMIT});
    shell s(2);
    EXPECT_EQ(with_fixed_time(s.print("show ip dhcp relay client | json")), R"({
  "clients": [
    {
      "client": "02:00:00:00:00:01",
      "vlan": 10,
      "port": "1/1",
      "state": "asking",
      "state_text": "asking",
      "unanswered_us": T,
      "messages": 1,
      "time": "T",
      "op": "request",
      "type": "DISCOVER",
      "outcome": "hop-limit",
      "reason": "passed too many relays"
    }
  ],
  "total": 1
}
)");
}

TEST_F(BooksCommands, ClientAsJson) {
    have_relay();
    take({.vlan = 0,
          .port = 0,
          .servers = {"192.0.2.11"},
          .option82 = {1, 6, 0, 4, 10, 0, 1, 3, 2, 8, 0, 6, 2, 0, 0, 0, 10, 1}});
    std::uint64_t number = 0;
    books_each_recorded([&](const book_entry &entry) { number = entry.number; });
    shell s(2);
    EXPECT_EQ(with_fixed_time(s.print("show ip dhcp relay client 02:00:00:00:00:01 | json")), R"({
  "client": "02:00:00:00:00:01",
  "state": "asking",
  "state_text": "asking",
  "unanswered_us": T,
  "messages": [
    {
      "number": )" + std::to_string(number) + R"(,
      "time": "T",
      "op": "request",
      "type": "DISCOVER",
      "outcome": "relayed",
      "reason": "relayed to servers",
      "xid": "2A000000",
      "xid_bytes": "0000002a",
      "servers": [
        "192.0.2.11"
      ],
      "servers_count": 1,
      "rebroadcast": false,
      "option82": {
        "bytes": "010600040a00010302080006020000000a01",
        "length": 18,
        "circuit_id": "00040a000103",
        "remote_id": "0006020000000a01",
        "vlan": 10,
        "module": 1,
        "port": 3,
        "mac": "02:00:00:00:0a:01"
      }
    }
  ],
  "total": 1
}
)");
    EXPECT_EQ(s.run("show ip dhcp relay client x | json"), 1);
}

}  // namespace

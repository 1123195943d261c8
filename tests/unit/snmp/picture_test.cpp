// SPDX-License-Identifier: Apache-2.0
// What the daemon answers, put into the picture; and answers that are none.
#include "picture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>

namespace {

using namespace ravo::snmp;
using ravo::client::keyed_line;
using ravo::client::reply;
using testing::ElementsAre;

std::vector<std::uint8_t> words(std::initializer_list<std::uint32_t> list) {
    std::vector<std::uint8_t> out;
    for (const std::uint32_t word : list) {
        std::uint8_t bytes[4];
        std::memcpy(bytes, &word, 4);
        out.insert(out.end(), bytes, bytes + 4);
    }
    return out;
}

constexpr auto minus_hundred = static_cast<std::uint32_t>(-100);

reply with_text(const std::string &text) {
    reply r;
    r.text = text;
    return r;
}

TEST(Picture, TakesSettingsByTheirColumn) {
    picture p;
    reply r;
    r.values = {{words({2, minus_hundred}), "DHCP Relay Hop Count                  :4 \n"},
                {words({1, minus_hundred}), "1"},
                {words({9, minus_hundred}), "3\n"},
                {words({10, minus_hundred}), "5"},
                {words({0, minus_hundred}), "5"},
                {words({3, 100}), "5"},
                {words({4}), "5"},
                {words({5, minus_hundred}), "none"}};
    ASSERT_TRUE(take_part(&p, part::settings, r));
    EXPECT_EQ(p.settings[2], 4);
    EXPECT_EQ(p.settings[1], 1);
    EXPECT_EQ(p.settings[9], 3);
    EXPECT_FALSE(p.has_setting[3] || p.has_setting[4] || p.has_setting[5] || p.has_setting[0]);
}

TEST(Picture, TakesRowKeysInOrderEachOnce) {
    picture p;
    reply r;
    const auto address = [](std::uint32_t ifindex, std::uint8_t last) {
        auto key = words({ifindex});
        key.insert(key.end(), {192, 0, 2, last});
        return key;
    };
    r.row_keys = {address(1044, 1), address(1034, 11), address(1034, 9), address(1034, 9), address(9, 1), {1, 2}};
    ASSERT_TRUE(take_part(&p, part::addresses, r));
    EXPECT_THAT(p.addresses, ElementsAre(address_row{1034, 0xC0000209}, address_row{1034, 0xC000020B},
                                         address_row{1044, 0xC0000201}));
    r.row_keys = {words({1044}), words({1034}), words({77}), words({1034, 1})};
    ASSERT_TRUE(take_part(&p, part::trusted, r));
    EXPECT_THAT(p.trusted, ElementsAre(1034, 1044));
}

TEST(Picture, TakesInterfacesAndReceiveCounters) {
    picture p;
    ASSERT_TRUE(take_part(&p, part::interfaces, with_text(R"({"received": {"discover": 3, "release": 4294967296},
        "interfaces": [{"name": "vlan20", "mac": "02:00:00:00:20:01", "local_relay": true},
                       {"name": "vlan10", "address": "10.10.0.1", "mac": "zz"}, {"name": "eth0"}, {"name": 5}, 7]})")));
    ASSERT_EQ(p.interfaces.size(), 2u);
    EXPECT_EQ(p.interfaces[0].ifindex, 1034u);
    EXPECT_EQ(p.interfaces[0].address, 0x0A0A0001u);
    EXPECT_EQ(p.interfaces[0].mac, (std::array<std::uint8_t, 6>{}));
    EXPECT_EQ(p.interfaces[1].mac, (std::array<std::uint8_t, 6>{2, 0, 0, 0, 0x20, 1}));
    EXPECT_TRUE(p.interfaces[1].local_relay);
    EXPECT_EQ(p.received[0], 3u);
    EXPECT_EQ(p.received[7], 0xFFFFFFFFu);
}

TEST(Picture, TakesOutcomesInTheOrderOfTheirIndex) {
    picture p;
    ASSERT_TRUE(take_part(&p, part::statistics, with_text(R"({"total": {}, "vlans": [
        {"vlan": 20, "outcomes": {"relayed": 1, "hop-limit": 0}, "types": {"DISCOVER": 2, "x": 3}},
        {"vlan": 10, "outcomes": {"no-server": 5, "relayed": 7}}, {"vlan": 0, "outcomes": {"relayed": 1}}]})")));
    EXPECT_THAT(p.outcome_words, ElementsAre("relayed", "no-server"));
    ASSERT_EQ(p.outcomes.size(), 3u);
    EXPECT_EQ(p.outcomes[0].messages, 7u);
    EXPECT_EQ(p.outcomes[1].messages, 5u);
    EXPECT_EQ(p.outcomes[2].ifindex, 1044u);
    ASSERT_EQ(p.types.size(), 1u);
    EXPECT_EQ(p.types[0].type, 2u);
}

TEST(Picture, TakesABoundedNumberOfTransactions) {
    picture p;
    std::string text = R"({"transactions": [)";
    for (int i = 0; i < 10050; ++i)
        text += (i == 0 ? "" : ",") + std::string(R"({"xid": "0x)") + std::to_string(20000 - i) + R"(", "port": 1})";
    ASSERT_TRUE(take_part(&p, part::transactions, with_text(text + R"(], "total": 10050})")));
    EXPECT_EQ(p.transactions.size(), most_transactions);
    EXPECT_EQ(p.transactions_total, 10050u);
    reply cut = with_text(text);
    EXPECT_FALSE(take_part(&p, part::transactions, cut));
    cut.cut = true;
    EXPECT_TRUE(take_part(&p, part::transactions, cut)) << "what came of a long list counts";
    EXPECT_EQ(p.transactions_total, 10050u);
    cut.tail = "},\n  ],\n  \"total\": 1000000\n}";
    EXPECT_TRUE(take_part(&p, part::transactions, cut));
    EXPECT_EQ(p.transactions_total, 1000000u) << "as its end tells";
}

TEST(Picture, AnAnswerThatIsNoneLeavesAPartAsItWas) {
    picture p;
    ASSERT_TRUE(take_part(&p, part::interfaces, with_text(R"({"interfaces": [{"name": "vlan10"}]})")));
    for (const char *text : {"", "{", "[]", "% Invalid input", "null", R"({"interfaces": [{"name": "vlan10"})"})
        for (const part which : {part::interfaces, part::statistics, part::servers, part::transactions})
            EXPECT_FALSE(take_part(&p, which, with_text(text))) << text;
    EXPECT_EQ(p.interfaces.size(), 1u);
}

TEST(Picture, TakesServers) {
    picture p;
    ASSERT_TRUE(take_part(&p, part::servers, with_text(R"({"servers": [{"interface": "vlan20", "server": "192.0.2.1",
        "asked": 5, "answered": 4, "median_us": 700, "p99_us": 9000000000, "silent_seconds": 9},
        {"interface": "vlan10", "server": "192.0.2.9"}, {"interface": "vlan10", "server": "x"}]})")));
    ASSERT_EQ(p.servers.size(), 2u);
    EXPECT_EQ(p.servers[0].ifindex, 1034u);
    EXPECT_EQ(p.servers[1].p99_us, 0xFFFFFFFFu);
    EXPECT_EQ(p.servers[1].silent_seconds, 9u);
}

}  // namespace

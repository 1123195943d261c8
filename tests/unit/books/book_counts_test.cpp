// SPDX-License-Identifier: Apache-2.0
// Counts that go on with the next daemon, and what of a file is not believed.
#include "books/book_counts.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace {

using namespace ravo::platform;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testing::UnorderedElementsAre;

constexpr std::size_t header = 16;

void count(book_counters &counters, std::uint64_t messages = 1) {
    counters.received += messages;
    counters.by_outcome[OUTCOME_RELAYED] += messages;
    counters.by_type[1] += messages;
    counters.sent += 2 * messages;
}

struct BookCounts : testing::Test {
    std::string folder, path;
    BookCounts() {
        char name[] = "/tmp/book_counts_test.XXXXXX";
        folder = mkdtemp(name);
        path = folder + "/counts";
    }
    ~BookCounts() override {
        counts_close();
        std::filesystem::remove_all(folder);
    }
    void overwrite(std::size_t at, const std::string &bytes) const {
        std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
        file.seekp(static_cast<std::streamoff>(at));
        file << bytes;
    }
};

TEST_F(BookCounts, GoOnWithTheNextDaemon) {
    ASSERT_EQ(counts_open(path).text, "");
    EXPECT_EQ(counts_restarts(), 0U);
    count(counts_total(), 3);
    count(*counts_of_vlan(10), 2);
    count(*counts_of_port(5123));
    ASSERT_EQ(counts_open(path).text, "");
    EXPECT_EQ(counts_restarts(), 1U);
    EXPECT_EQ(counts_total().received, 3U);
    EXPECT_EQ(counts_total().by_type[1], 3U);
    EXPECT_EQ(counts_total().sent, 6U);
    EXPECT_EQ(counts_of_vlan(10)->by_outcome[OUTCOME_RELAYED], 2U);
    EXPECT_THAT(counts_ports(), UnorderedElementsAre(5123));
    ASSERT_NE(counts_known_of_port(5123), nullptr);
    EXPECT_EQ(counts_known_of_port(5123)->received, 1U);
    EXPECT_EQ(counts_known_of_port(5122), nullptr);
    ASSERT_EQ(counts_open(path).text, "");
    EXPECT_EQ(counts_restarts(), 2U);
}

TEST_F(BookCounts, AreClearedInTheFileToo) {
    ASSERT_EQ(counts_open(path).text, "");
    ASSERT_EQ(counts_open(path).text, "");
    count(counts_total());
    count(*counts_of_vlan(4094));
    count(*counts_of_port(5123));
    counts_clear();
    EXPECT_EQ(counts_restarts(), 0U);
    ASSERT_EQ(counts_open(path).text, "");
    EXPECT_EQ(counts_restarts(), 1U);
    EXPECT_EQ(counts_total().received, 0U);
    EXPECT_EQ(counts_of_vlan(4094)->received, 0U);
    EXPECT_EQ(counts_of_port(5123)->received, 0U);
}

TEST_F(BookCounts, OfMorePortsThanItKeepsTheFirstGoOn) {
    ASSERT_EQ(counts_open(path).text, "");
    const auto ports = static_cast<std::uint32_t>(kept_count_ports + 10);
    for (std::uint32_t port = 5121; port < 5121 + ports; ++port) count(*counts_of_port(port));
    EXPECT_THAT(counts_ports(), SizeIs(ports));
    ASSERT_EQ(counts_open(path).text, "");
    EXPECT_THAT(counts_ports(), SizeIs(kept_count_ports - 1));
    EXPECT_EQ(counts_known_of_port(5121)->received, 1U);
    EXPECT_EQ(counts_known_of_port(5121 + ports - 1), nullptr);
}

TEST_F(BookCounts, WhatIsNoVlanOrPortHasNone) {
    EXPECT_EQ(counts_of_vlan(0), nullptr);
    EXPECT_EQ(counts_of_vlan(4096), nullptr);
    EXPECT_EQ(counts_of_port(0), nullptr);
    EXPECT_EQ(counts_of_port(0xFFFFFFFF), nullptr);
    EXPECT_THAT(counts_ports(), IsEmpty());
}

TEST_F(BookCounts, AMessageThatWasCountedInPartIsPutRight) {
    ASSERT_EQ(counts_open(path).text, "");
    count(counts_total(), 5);
    ++counts_total().received;
    count(*counts_of_vlan(10), 5);
    ++counts_of_vlan(10)->by_outcome[OUTCOME_DELIVERED];
    count(*counts_of_port(5121), 5);
    ++counts_of_port(5121)->received;
    ASSERT_EQ(counts_open(path).text, "");
    EXPECT_EQ(counts_total().received, 5U);
    EXPECT_EQ(counts_of_vlan(10)->received, 6U);
    EXPECT_EQ(counts_of_port(5121)->received, 5U);
}

TEST_F(BookCounts, PortsThatAreNoneOrComeTwiceAreLeftOut) {
    const std::size_t block = sizeof(book_counters), port_block = block + 8;
    const std::size_t first = header + block + counted_vlans * block;
    ASSERT_EQ(counts_open(path).text, "");
    for (const std::uint32_t port : {5121U, 5122U, 5123U}) count(*counts_of_port(port));
    counts_close();
    overwrite(first + port_block, std::string("\xFF\xFF\xFF\xFF", 4));
    overwrite(first + 2 * port_block, std::string("\x03\x14\0\0", 4));  // 5123 once more
    ASSERT_EQ(counts_open(path).text, "");
    EXPECT_THAT(counts_ports(), UnorderedElementsAre(5123));
    EXPECT_EQ(counts_of_port(5123)->received, 1U);
}

TEST_F(BookCounts, AFileOfAnotherVersionOrNonsenseBeginsAnew) {
    for (const std::size_t size : {std::size_t{8}, std::size_t{3000}, std::size_t{4000000}}) {
        std::ofstream(path, std::ios::binary) << std::string(size, '\xA5');
        ASSERT_EQ(chmod(path.c_str(), 0600), 0);
        EXPECT_EQ(counts_open(path).text, path + ": is no file of counts of this version; they begin anew");
        EXPECT_EQ(counts_total().received, 0U);
        EXPECT_EQ(counts_restarts(), 0U);
        EXPECT_THAT(counts_ports(), IsEmpty());
    }
    counts_close();
    overwrite(8, std::string("\1\2\3\4", 4));  // of another size
    EXPECT_THAT(counts_open(path).text, HasSubstr("of this version"));
}

TEST_F(BookCounts, WithoutAFileTheyAreThisDaemonsAlone) {
    std::ofstream(path) << "x";
    ASSERT_EQ(chmod(path.c_str(), 0644), 0);
    EXPECT_EQ(counts_open(path).text,
              path + ": counts of messages begin anew with each start: others may use it; remove it");
    count(counts_total());
    count(*counts_of_port(5123));
    EXPECT_EQ(counts_total().received, 1U);
    counts_close();
    EXPECT_EQ(counts_total().received, 0U);
    EXPECT_THAT(counts_ports(), IsEmpty());
}

}  // namespace

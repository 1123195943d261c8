// SPDX-License-Identifier: Apache-2.0
// The UI bridge: records and keys reach the session of the command, and tables are walked to their end.
#include "uib.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>
#include <span>
#include <string>
#include <vector>

#include "cli/command_line.h"

namespace {

using testing::ElementsAre;

// ---- A table of numbers ----

std::set<std::uint32_t> rows;
std::uint32_t start_key = 0;
std::size_t full_after = 0;  // rows that fit, 0: all
std::vector<std::string> events;

int get_exact(void *key) {
    return rows.count(*static_cast<std::uint32_t *>(key)) == 1 ? 1 : 0;
}

int get_next(void *key) {
    const auto next = rows.upper_bound(*static_cast<std::uint32_t *>(key));
    if (next == rows.end()) return 0;
    *static_cast<std::uint32_t *>(key) = *next;
    return 1;
}

int put_row(struct cli *cli, void *key) {
    if (full_after != 0 && events.size() >= full_after) return CLI_BUFFER_FULL;
    EXPECT_EQ(uib_snmp_key_send(cli, key, sizeof(std::uint32_t)), 0);
    return 0;
}

int walk(struct cli *cli, int /*argc*/, char ** /*argv*/) {
    std::uint32_t key = start_key;
    uib_table table{};
    table.key = &key;
    table.get_exact = get_exact;
    table.get_next = get_next;
    table.put_row = put_row;
    return UIB_OUT_TABLE_ENTRIES(cli, &table);
}

int send_record(struct cli *cli, int /*argc*/, char ** /*argv*/) {
    const std::uint8_t record[3] = {1, 0, 255};
    return UIB_WEB_Msg_Send(cli, record, sizeof record);
}

std::string text_of(std::span<const std::uint8_t> bytes) {
    std::string out;
    for (const std::uint8_t byte : bytes) out += (out.empty() ? "" : " ") + std::to_string(byte);
    return out;
}

class Bridge : public testing::Test {
  protected:
    void SetUp() override {
        static cli_element elements[] = {{"bridge walk", walk, nullptr, {}},
                                         {"bridge record", send_record, nullptr, {}}};
        static const int installed =
            cli_install_gen(ravo::cli::library_globals()->tree, CLI_MODE_EXEC, 31, 0, &elements[0]) |
            cli_install_gen(ravo::cli::library_globals()->tree, CLI_MODE_EXEC, 31, 0, &elements[1]);
        ASSERT_EQ(installed, 0);
        rows = {5, 7, 300};
        start_key = 0;
        full_after = 0;
        events.clear();
        ravo::cli::session_output output;
        output.record = [this](std::span<const std::uint8_t> record) {
            events.push_back("record " + text_of(record));
            return result_;
        };
        output.row_key = [](std::span<const std::uint8_t> key) {
            events.push_back("key " + text_of(key));
            return 0;
        };
        session_ = ravo::cli::session_open(std::move(output), 31, "bridge");
    }
    int run(std::string_view line) { return ravo::cli::session_run(*session_, line); }

    int result_ = 0;
    ravo::cli::session_ptr session_;
};

TEST_F(Bridge, SendsRecords) {
    EXPECT_EQ(run("bridge record"), 0);
    EXPECT_THAT(events, ElementsAre("record 1 0 255"));
    result_ = -1;
    EXPECT_EQ(run("bridge record"), -1);
}

TEST_F(Bridge, WalksBehindTheKey) {
    EXPECT_EQ(run("bridge walk"), 0);
    EXPECT_THAT(events, ElementsAre("key 5 0 0 0", "key 7 0 0 0", "key 44 1 0 0"));
    events.clear();
    start_key = 5;
    EXPECT_EQ(run("bridge walk"), 0);
    EXPECT_THAT(events, ElementsAre("key 7 0 0 0", "key 44 1 0 0"));
    events.clear();
    start_key = 300;
    EXPECT_EQ(run("bridge walk"), 0);
    EXPECT_TRUE(events.empty());
}

TEST_F(Bridge, GivesTheRowOfTheKeyAloneWhenAskedTo) {
    ravo::cli::session_set_exact(*session_, true);
    start_key = 5;
    EXPECT_EQ(run("bridge walk"), 0);
    EXPECT_THAT(events, ElementsAre("key 5 0 0 0"));
    events.clear();
    start_key = 6;
    EXPECT_EQ(run("bridge walk"), 0);
    EXPECT_TRUE(events.empty());
}

TEST_F(Bridge, StopsWhenTheOutputIsFull) {
    full_after = 2;
    EXPECT_EQ(run("bridge walk"), CLI_BUFFER_FULL);
    EXPECT_EQ(events.size(), 2u);
    events.clear();
    full_after = 1;
    EXPECT_EQ(run("bridge walk"), CLI_BUFFER_FULL);
    EXPECT_EQ(events.size(), 1u);
}

TEST_F(Bridge, ASessionWithoutSuchOutputDropsIt) {
    const ravo::cli::session_ptr plain = ravo::cli::session_open({}, 31, "plain");
    EXPECT_EQ(ravo::cli::session_run(*plain, "bridge walk"), 0);
    EXPECT_EQ(ravo::cli::session_run(*plain, "bridge record"), 0);
    EXPECT_TRUE(events.empty());
}

}  // namespace

// SPDX-License-Identifier: Apache-2.0
#include "history.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

namespace {

using namespace ravo::web;
using nlohmann::json;

counted total(std::uint64_t discover, std::uint64_t relayed) {
    counted c;
    c.received = discover;
    c.types = {{"discover", discover}};
    c.outcomes = {{"relayed", relayed}, {"hop-limit", discover - relayed}};
    return c;
}

TEST(History, CountsWhatCameSinceTheLastLook) {
    history h;
    history_take(&h, 1000, total(5, 5));
    EXPECT_EQ(history_newest(h), json({{"start", 1000}, {"types", json::object()}, {"outcomes", json::object()}}));
    history_take(&h, 1004, total(7, 6));
    history_take(&h, 1009, total(8, 6));
    history_take(&h, 1013, total(8, 6));
    EXPECT_EQ(history_json(h), json::parse(R"({"step": 10, "rows": [
                  {"start": 1000, "types": {"discover": 3}, "outcomes": {"relayed": 1, "hop-limit": 2}},
                  {"start": 1010, "types": {}, "outcomes": {}}]})"));
}

TEST(History, CountersThatWereClearedCountFromZero) {
    history h;
    history_take(&h, 1000, total(100, 90));
    history_take(&h, 1001, total(3, 2));
    EXPECT_EQ(history_newest(h)["types"], json({{"discover", 3}}));
    EXPECT_EQ(history_newest(h)["outcomes"], json({{"relayed", 2}, {"hop-limit", 1}}));
}

TEST(History, HoldsAnHour) {
    history h;
    for (std::int64_t now = 0; now <= 7200; now += 5) history_take(&h, now, total(static_cast<std::uint64_t>(now), 0));
    EXPECT_EQ(h.rows.size(), history_steps);
    EXPECT_EQ(h.rows.front().start, 7200 - 3590);
    history_take(&h, 20000, total(20000, 0));
    EXPECT_EQ(h.rows.size(), 1u) << "what is older than an hour goes, whatever lies between";
}

TEST(History, AClockSetBackMakesNoNewRow) {
    history h;
    history_take(&h, 5000, total(1, 0));
    history_take(&h, 4000, total(2, 0));
    EXPECT_EQ(h.rows.size(), 1u);
    EXPECT_EQ(history_newest(h)["types"], json({{"discover", 1}}));
}

TEST(History, NamesAreBounded) {
    history h;
    counted c;
    history_take(&h, 0, c);
    for (int i = 0; i < 200; ++i) c.types.emplace_back("t" + std::to_string(i), 1);
    history_take(&h, 1, c);
    EXPECT_EQ(h.type_names.size(), 64u);
}

}  // namespace

// SPDX-License-Identifier: Apache-2.0
// The last hour, in steps of ten seconds: how many messages of which type came, and what became of them.
#ifndef FRONT_WEB_HISTORY_H
#define FRONT_WEB_HISTORY_H

#include <cstdint>
#include <deque>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "statistics.h"

namespace ravo::web {

inline constexpr int history_step = 10;  // seconds
inline constexpr std::size_t history_steps = 360;

// Counts by the place that their name has in the list of names.
struct history_row {
    std::int64_t start = 0;  // seconds since 1970, a multiple of the step
    std::vector<std::uint64_t> types;
    std::vector<std::uint64_t> outcomes;
};

struct history {
    std::vector<std::string> type_names;
    std::vector<std::string> outcome_names;
    std::deque<history_row> rows;  // oldest first; steps in which nothing was asked are left out
    counted last;                  // what was counted when it was looked at last
    bool has_last = false;
};

// Takes what is counted now, at this time (seconds since 1970). Counters that became less were cleared, or the daemon
// was started anew: they count from zero then.
void history_take(history *h, std::int64_t now, const counted &total);

// {"step", "rows": [{"start", "types": {name: count}, "outcomes": {...}}]}: counts of 0 are left out.
nlohmann::json history_json(const history &h);
// The newest row.
nlohmann::json history_newest(const history &h);

}  // namespace ravo::web

#endif

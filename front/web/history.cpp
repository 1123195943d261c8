// SPDX-License-Identifier: Apache-2.0
// Only growth is kept: each look adds what was counted since the one before to the row of its ten seconds. Names are
// listed once, and rows have a count for each place of the list.
#include "history.h"

#include <nlohmann/json.hpp>

#include <algorithm>

namespace ravo::web {

namespace {

using nlohmann::json;

constexpr std::size_t most_names = 64;  // of types, of outcomes

// What was counted since the last look is added to the row.
void add_growth(const named_counts &now, const named_counts &before, bool cleared, std::vector<std::string> *names,
                std::vector<std::uint64_t> *row) {
    for (const auto &[name, count] : now) {
        auto place = std::find(names->begin(), names->end(), name);
        if (place == names->end()) {
            if (names->size() == most_names) continue;
            place = names->insert(names->end(), name);
        }
        const auto at = static_cast<std::size_t>(place - names->begin());
        if (row->size() <= at) row->resize(at + 1);
        const std::uint64_t known = cleared ? 0 : count_of(before, name);
        (*row)[at] += count >= known ? count - known : count;
    }
}

json named(const std::vector<std::uint64_t> &counts, const std::vector<std::string> &names) {
    json out = json::object();
    for (std::size_t i = 0; i < counts.size(); ++i)
        if (counts[i] != 0) out[names[i]] = counts[i];
    return out;
}

json row_json(const history &h, const history_row &row) {
    return {{"start", row.start},
            {"types", named(row.types, h.type_names)},
            {"outcomes", named(row.outcomes, h.outcome_names)}};
}

}  // namespace

void history_take(history *h, std::int64_t now, const counted &total) {
    const std::int64_t start = now - now % history_step;
    // A clock that was set back goes on in the row that there is.
    if (h->rows.empty() || h->rows.back().start < start) h->rows.push_back({start, {}, {}});
    while (h->rows.front().start <= start - history_step * static_cast<std::int64_t>(history_steps))
        h->rows.pop_front();
    if (h->has_last) {
        const bool cleared = total.received < h->last.received;
        history_row &row = h->rows.back();
        add_growth(total.types, h->last.types, cleared, &h->type_names, &row.types);
        add_growth(total.outcomes, h->last.outcomes, cleared, &h->outcome_names, &row.outcomes);
    }
    h->last = total;
    h->has_last = true;
}

json history_json(const history &h) {
    json rows = json::array();
    for (const history_row &row : h.rows) rows.push_back(row_json(h, row));
    return {{"step", history_step}, {"rows", std::move(rows)}};
}

json history_newest(const history &h) {
    return h.rows.empty() ? json(nullptr) : row_json(h, h.rows.back());
}

}  // namespace ravo::web

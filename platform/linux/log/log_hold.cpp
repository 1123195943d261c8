// SPDX-License-Identifier: Apache-2.0
// A place begins with ten seconds in which lines are counted. Past the tenth line it holds, and stays so as long as
// each minute brings more than ten lines; each minute of it ends with a report.
#include "log/log_hold.h"

#include <algorithm>
#include <cstring>

namespace ravo::platform {

namespace {

// The place of a key; else one of its set that is free or was used longest ago, and holds nothing back. Null when all
// do.
held_place *find_place(log_hold &hold, std::uint64_t key) {
    held_place *oldest = nullptr;
    for (held_place &place : hold.all[(key ^ key >> 32) % log_hold::sets]) {
        if (place.key == key) return &place;
        if (place.holding) continue;
        if (oldest == nullptr || place.used_ms < oldest->used_ms) oldest = &place;
    }
    if (oldest != nullptr) *oldest = {};
    return oldest;
}

void begin_window(held_place &place, std::int64_t now_ms) {
    place.begun_ms = now_ms;
    place.count = 0;
}

}  // namespace

hold_verdict log_hold_judge(log_hold &hold, std::uint64_t key, std::int64_t now_ms) {
    held_place *place = find_place(hold, key);
    if (place == nullptr) return hold_verdict::write;
    const bool fresh = place->key == 0;
    place->key = key;
    place->used_ms = now_ms;
    if (place->holding) {
        ++place->held;
        return hold_verdict::hold;
    }
    if (fresh || now_ms - place->begun_ms >= log_hold::window_ms) begin_window(*place, now_ms);
    if (place->count < log_hold::lines) {
        ++place->count;
        return hold_verdict::write;
    }
    place->holding = true;
    place->begun_ms = now_ms;
    place->held = 1;
    place->length = 0;
    ++hold.holding;
    return hold_verdict::hold_first;
}

void log_hold_like(log_hold &hold, std::uint64_t key, int level, std::string_view line) {
    held_place *place = find_place(hold, key);
    if (place == nullptr) return;
    place->level = level;
    place->length = static_cast<std::uint16_t>(std::min(line.size(), place->text.size()));
    std::memcpy(place->text.data(), line.data(), place->length);
}

bool log_hold_due(log_hold &hold, bool all, std::int64_t now_ms, held_report *report) {
    if (hold.holding == 0) return false;
    for (auto &set : hold.all) {
        for (held_place &place : set) {
            const std::int64_t age = now_ms - place.begun_ms;
            if (!place.holding || (!all && age < log_hold::report_ms)) continue;
            *report = {place.held, (age + 500) / 1000, place.level, {place.text.data(), place.length}};
            const std::uint64_t held = place.held;
            place.holding = held > log_hold::lines && !all;
            if (!place.holding) --hold.holding;
            place.held = 0;
            begin_window(place, now_ms);
            if (held != 0) return true;
        }
    }
    return false;
}

std::int64_t log_hold_wait(const log_hold &hold, std::int64_t now_ms) {
    std::int64_t wait = -1;
    if (hold.holding == 0) return wait;
    for (const auto &set : hold.all) {
        for (const held_place &place : set) {
            if (!place.holding) continue;
            const std::int64_t left = std::max<std::int64_t>(0, log_hold::report_ms - (now_ms - place.begun_ms));
            wait = wait < 0 ? left : std::min(wait, left);
        }
    }
    return wait;
}

}  // namespace ravo::platform

// SPDX-License-Identifier: Apache-2.0
// While there is a standing queue the relay does nothing but serve it, so the messages that it takes in that time are
// as many as it can take.
#include "channel/queue_bound.h"

#include <algorithm>
#include <utility>

namespace ravo::platform {

void queue_bound::begin(std::int64_t now_us) {
    since_us_ = now_us;
    taken_then_ = taken_;
}

void queue_bound::look(std::int64_t now_us, std::int64_t waited_us) {
    look_idle(now_us);
    // In overload the bound itself keeps waits short: it is over when the queue runs empty.
    const bool stands = !std::exchange(emptied_, false) && (overloaded() || waited_us > longest_wait_us);
    if (!stands) return begin(now_us);
    const std::int64_t stood = now_us - since_us_;
    if (stood < stands_after_us) return;
    const std::uint64_t served = taken_ - taken_then_;
    const std::size_t enough = served * longest_wait_us / static_cast<std::uint64_t>(stood);
    const std::size_t least = std::min(std::max(enough, least_room), whole_);
    room_ = std::max(least, room_ / 2);
    patience_us_ =
        room_ == least ? stood * static_cast<std::int64_t>(room_) / static_cast<std::int64_t>(served) : endless;
    stood_us_ = now_us;
    begin(now_us);
}

void queue_bound::look_idle(std::int64_t now_us) {
    if (overloaded() && now_us - stood_us_ >= calm_after_us) room_ = whole_;
}

}  // namespace ravo::platform

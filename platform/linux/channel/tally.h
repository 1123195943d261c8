// SPDX-License-Identifier: Apache-2.0
// What was refused before it was read: handed in to the books, and reported in the log.
//
// The gate only counts what it refuses. Once a second, and whenever somebody looks at the books, its counts are taken
// over: so they are exact, and what is refused costs the relay nothing.
#ifndef PLATFORM_LINUX_CHANNEL_TALLY_H
#define PLATFORM_LINUX_CHANNEL_TALLY_H

#include <cstdint>

#include "channel/taps.h"
#include "gate/gate.h"

namespace ravo::platform {

// Takes over the gate's counts as they have grown since the last call. now_s: seconds of a clock that is never set.
// Returns how many messages found no room in the queue.
std::uint64_t tally_taps(const gate &at, tap_table &taps, std::int64_t now_s);

}  // namespace ravo::platform

#endif

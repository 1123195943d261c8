// SPDX-License-Identifier: Apache-2.0
// What the relay said of each message, as the fake platform heard it.
#ifndef FAKE_OUTCOME_H
#define FAKE_OUTCOME_H

#include <cstdint>
#include <vector>

#include "outcome.h"

namespace fake {

extern std::vector<relay_outcome> outcomes;         // in the order they were said
extern std::vector<std::uint32_t> outcome_servers;  // network byte order

void reset_outcomes();

}  // namespace fake

#endif

// SPDX-License-Identifier: Apache-2.0
// What a manager sets: a server added or removed, an interface trusted or not, the configuration saved. A set has
// phases, so that several in one request are done together or not at all.
#ifndef FRONT_SNMP_WRITES_H
#define FRONT_SNMP_WRITES_H

#include <cstdint>

#include "objects.h"
#include "relay_source.h"

namespace ravo::snmp {

// Values of a row's status.
inline constexpr std::int64_t row_active = 1;
inline constexpr std::int64_t row_create_and_go = 4;
inline constexpr std::int64_t row_destroy = 6;

enum class verdict {
    good,
    wrong_value,         // the object never has it
    inconsistent_value,  // it does not fit what is there
    no_creation,         // there is no such interface
    full,                // the interface has as many servers as it can have
    unavailable,         // the daemon does not answer
    failed,              // the daemon refused it for another reason
};

// Judges a value without looking at the relay.
verdict judge_value(const write_target &target, std::int64_t number);

// Judges it against what is there: a row cannot be created twice, nor be active that is not there.
verdict judge_state(relay_source &relay, const write_target &target, std::int64_t number);

// Does it. *done tells whether something was changed, which undo_write then takes back.
verdict do_write(relay_source &relay, const write_target &target, std::int64_t number, bool *done);
verdict undo_write(relay_source &relay, const write_target &target, std::int64_t number);

}  // namespace ravo::snmp

#endif

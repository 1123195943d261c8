// SPDX-License-Identifier: Apache-2.0
// A configuration that goes back by itself.
//
// What was in force before is written to the state folder with the time until which the new one may be confirmed. Who
// restarts the daemon meanwhile, or has it down at that time, gets the old one all the same.
#ifndef PLATFORM_LINUX_CONFIGURATION_UNCONFIRMED_H
#define PLATFORM_LINUX_CONFIGURATION_UNCONFIRMED_H

#include <cstdint>
#include <optional>
#include <string>

#include "fault.h"

namespace ravo::cli {

// Begins the time. before: the configuration to go back to, as text; when a configuration is unconfirmed already, the
// one before that stays what is gone back to. minutes: from now on. The fault, if any: one line that says why this does
// not outlast a restart; within this life of the daemon the configuration goes back all the same.
fault unconfirmed_begin(const std::string &before, int minutes);

// The configuration stays. Returns false when none waits to be confirmed.
bool unconfirmed_confirm();

// Seconds until it goes back; none when nothing waits.
std::optional<std::int64_t> unconfirmed_left();

}  // namespace ravo::cli

#endif

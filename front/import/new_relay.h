// SPDX-License-Identifier: Apache-2.0
// The same relay in ravo's words.
#ifndef FRONT_IMPORT_NEW_RELAY_H
#define FRONT_IMPORT_NEW_RELAY_H

#include <string>

#include "old_relay.h"

namespace ravo::moving {

// The start-up configuration, with remarks as lines with "!"; what cannot be carried over is one of them.
[[nodiscard]] std::string startup_configuration(const old_relay &from);

// The switch description, with remarks as lines with "#"; its first line is "# switch.toml".
[[nodiscard]] std::string switch_description(const old_relay &from);

}  // namespace ravo::moving

#endif

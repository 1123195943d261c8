// SPDX-License-Identifier: Apache-2.0
// The relay's data, as the daemon handed over its access (relay_access.h).
#ifndef PLATFORM_LINUX_PROCESS_RELAY_DATA_H
#define PLATFORM_LINUX_PROCESS_RELAY_DATA_H

#include <cstdint>

#include "relay_access.h"

namespace ravo::platform {

// The daemon's functions, or null when no relay is registered.
const relay_access *relay_data();

// Tells whether a transaction of the relay that is open names a port by this number.
bool relay_names_port(std::uint32_t number);

}  // namespace ravo::platform

#endif

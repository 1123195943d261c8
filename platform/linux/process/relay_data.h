// The relay's data, as the daemon handed over its access (relay_access.h).
#ifndef PLATFORM_LINUX_PROCESS_RELAY_DATA_H
#define PLATFORM_LINUX_PROCESS_RELAY_DATA_H

#include "relay_access.h"

namespace ravo::platform {

// The daemon's functions, or null when no relay is registered.
const relay_access *relay_data();

}  // namespace ravo::platform

#endif

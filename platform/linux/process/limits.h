// SPDX-License-Identifier: Apache-2.0
// What the system lets the process have.
#ifndef PLATFORM_LINUX_PROCESS_LIMITS_H
#define PLATFORM_LINUX_PROCESS_LIMITS_H

namespace ravo::platform {

// Lets the process have as many descriptors as the system allows it: a switch may have more ports, and more sessions,
// than the usual 1024. Descriptors are polled, never put into an fd_set, so that large numbers do no harm.
void limits_raise_descriptors();

}  // namespace ravo::platform

#endif

// SPDX-License-Identifier: Apache-2.0
// The line in which sessions wait for their turns.
#ifndef PLATFORM_LINUX_MANAGEMENT_MANAGEMENT_TURNS_H
#define PLATFORM_LINUX_MANAGEMENT_MANAGEMENT_TURNS_H

namespace ravo::platform {

// Begins to give sessions their turns. Returns false when there is no memory.
[[nodiscard]] bool management_turns_open();
// All sessions must be gone.
void management_turns_close();

}  // namespace ravo::platform

#endif

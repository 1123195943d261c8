// SPDX-License-Identifier: Apache-2.0
// Readers and timers as the frame sees them.
#ifndef PLATFORM_LINUX_OSAL_OSAL_EVENTS_H
#define PLATFORM_LINUX_OSAL_OSAL_EVENTS_H

#include <cstddef>

namespace ravo::platform {

// Removes all readers, or all timers, without calling anything. Their handles and objects must not be used afterwards.
// Used when the daemon ends, before the event loop is freed.
void readers_free();
void timers_free();

// Sends what waits to be sent and enters its messages into the books, without a line in the log: for the handler of a
// signal that ends the process.
void sends_hand_over();

// How many there are now.
std::size_t readers_count();
std::size_t timers_count();

}  // namespace ravo::platform

#endif

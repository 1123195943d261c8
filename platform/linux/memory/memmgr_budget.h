// SPDX-License-Identifier: Apache-2.0
// The platform's budget of memory for the relay, and what it is to know of it.
#ifndef PLATFORM_LINUX_MEMORY_MEMMGR_BUDGET_H
#define PLATFORM_LINUX_MEMORY_MEMMGR_BUDGET_H

#include <cstddef>
#include <cstdint>

namespace ravo::platform {

// Sets how many bytes the relay's records may take at one time, with all that the platform needs for them: trees,
// timers, its own bookkeeping; 0: no limit. What is given out already stays, even when it is more.
void memmgr_set_budget(std::size_t bytes);
std::size_t memmgr_budget();

// Bytes taken now, and the most there ever were.
std::size_t memmgr_used();
std::size_t memmgr_peak();

// The part of the budget that is kept free for what is not to wait, and how much of it is used: the bytes that would
// have to be freed. 0 while there is room.
std::size_t memmgr_reserve();
std::size_t memmgr_short();

// Calls a function at each allocation that leaves less than the reserve free. It must not free anything. NULL: none.
void memmgr_on_short(void (*listener)());

// How often a record was refused because budget or memory was used up.
std::uint64_t memmgr_refused();

}  // namespace ravo::platform

#endif

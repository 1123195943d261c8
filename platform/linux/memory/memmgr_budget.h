// The platform's budget of memory for the relay.
#ifndef PLATFORM_LINUX_MEMORY_MEMMGR_BUDGET_H
#define PLATFORM_LINUX_MEMORY_MEMMGR_BUDGET_H

#include <cstddef>

namespace ravo::platform {

// Sets how many bytes mfh_calloc may have given out at one time (its own few bytes a block included); 0: no limit. What
// is given out already stays, even when it is more.
void memmgr_set_budget(std::size_t bytes);

// Bytes given out now, and the most there ever were.
std::size_t memmgr_used();
std::size_t memmgr_peak();

}  // namespace ravo::platform

#endif

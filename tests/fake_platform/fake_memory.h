// SPDX-License-Identifier: Apache-2.0
// Memory with a budget, and ordered trees.
#ifndef FAKE_MEMORY_H
#define FAKE_MEMORY_H

#include <cstddef>
#include <limits>

namespace fake {

// Bytes that may be allocated at a time. Unlimited after a reset.
extern std::size_t memory_budget;

// Bytes and blocks allocated now, and trees that exist.
std::size_t memory_used();
std::size_t blocks_used();
std::size_t trees_used();

// Blocks that were freed while a timer inside them was scheduled, or that were never allocated.
std::size_t bad_frees();

// Forgets every block (freeing it) and the counts. Trees stay what they are: they belong to the daemon.
void reset_memory();

}  // namespace fake

#endif

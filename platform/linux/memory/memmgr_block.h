// SPDX-License-Identifier: Apache-2.0
// Blocks of memory as other rooms of the platform use them.
//
// A small record's block has room at its end that is the platform's: an expiry timer's bookkeeping is there, in the
// same cache line as the record that it is for, and is found from the timer's address without a look-up.
#ifndef PLATFORM_LINUX_MEMORY_MEMMGR_BLOCK_H
#define PLATFORM_LINUX_MEMORY_MEMMGR_BLOCK_H

#include <cstddef>
#include <cstdint>

#include "memory/slab.h"

namespace ravo::platform {

inline constexpr std::size_t side_room_size = 40;

// Returns the side room of the record that an address lies in, NULL when it has none: the address is not of
// mfh_calloc's memory, or the record is larger than 88 bytes, or there was no room in the region of small blocks. It is
// zeroed with the record.
void *memmgr_side_room(const void *address);
// Side rooms have numbers other than 0, half as large as pointers.
inline std::uint32_t memmgr_side_number(const void *side_room) {
    return slab_number(side_room);
}
inline void *memmgr_side_at(std::uint32_t number) {
    return static_cast<unsigned char *>(slab_line_at(number)) + (slab_line - side_room_size);  // at its line's end
}
// Calls a function with the side room of each record that is freed. NULL: none.
void memmgr_on_free(void (*listener)(void *side_room));

// Memory for the platform's own records on the relay's behalf, such as a tree's nodes, within the budget. size: bytes,
// more than 128 and at most 1024. Its contents are undefined. NULL when budget or memory is used up.
void *memmgr_take_node(std::size_t size);
void memmgr_give_node(void *node);

}  // namespace ravo::platform

#endif

// SPDX-License-Identifier: Apache-2.0
// Small blocks of memory, a million of them: without a word of bookkeeping each, and given back to the system when they
// are free.
//
// Blocks of one size lie side by side in spans of 64 KiB, and all spans in one region of addresses. Where a block
// begins, and how large it is, follows from any address in it. The region is reserved when the first block is asked for
// and becomes memory as it is filled; a span that holds no block any more goes back to the system, but for a few.
#ifndef PLATFORM_LINUX_MEMORY_SLAB_H
#define PLATFORM_LINUX_MEMORY_SLAB_H

#include <cstddef>
#include <cstdint>

namespace ravo::platform {

// The sizes there are: 64, 128, 256, 512 and 1024 bytes, each block aligned to 64.
inline constexpr std::size_t slab_line = 64;
inline constexpr std::size_t slab_sizes = 5;
constexpr std::size_t slab_size(std::size_t kind) {
    return slab_line << kind;
}

// Says how many bytes the region is to have room for; 0: as many as it has without a limit. Has no effect once the
// first block was asked for.
void slab_reserve(std::size_t bytes);

// Returns a block of slab_size(kind), its contents undefined; NULL when the region is full or the system has no memory.
void *slab_take(std::size_t kind);
// Takes back a block of slab_take.
void slab_give(void *block);

// Tells whether an address lies in the region.
bool slab_has(const void *address);
// The size of the block that an address lies in; 0 for an address outside of the region.
std::size_t slab_size_at(const void *address);

// Where the region begins; NULL before.
extern unsigned char *slab_base;

// Lines of the region have numbers, half as large as their addresses: never 0 for one in a block.
inline std::uint32_t slab_number(const void *address) {
    return static_cast<std::uint32_t>(
        (reinterpret_cast<std::uintptr_t>(address) - reinterpret_cast<std::uintptr_t>(slab_base)) / slab_line);
}
inline void *slab_line_at(std::uint32_t number) {
    return slab_base + std::size_t{number} * slab_line;
}

// Bytes of the region that are memory now, in use or kept for the next blocks.
std::size_t slab_resident();

}  // namespace ravo::platform

#endif

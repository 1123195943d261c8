// SPDX-License-Identifier: Apache-2.0
// Memory for the relay's records, counted against an optional budget: small ones in blocks of the slab, larger ones
// from the C library with their size in front. What is counted is what is taken, so that the budget bounds the process
// and not only the records.
#include "memmgr.h"

#include <cstdlib>
#include <cstring>

#include "memory/memmgr_block.h"
#include "memory/memmgr_budget.h"
#include "memory/slab.h"

namespace {

using namespace ravo::platform;

// In front of a large block; a whole alignment unit, so that the record behind it is aligned for anything.
constexpr std::size_t header_size = alignof(std::max_align_t);
static_assert(header_size >= sizeof(std::size_t));

constexpr std::size_t record_kinds = 2;  // blocks of 64 and 128 bytes are records', larger ones nodes'
constexpr std::size_t most_reserve = 256 * 1024;

std::size_t budget = 0;  // 0: no limit
std::size_t used = 0;
std::size_t peak = 0;
std::uint64_t refused = 0;
void (*on_short)() = nullptr;
void (*on_free)(void *) = nullptr;

bool within_budget(std::size_t bytes) {
    return budget == 0 || (used <= budget && bytes <= budget - used);
}

void *refuse() {
    ++refused;
    return nullptr;
}

void count_taken(std::size_t bytes) {
    used += bytes;
    if (used > peak) peak = used;
    if (memmgr_short() != 0 && on_short != nullptr) on_short();
}

// The kind of block for a small record with its side room; record_kinds for a large one.
std::size_t kind_for(std::size_t bytes) {
    std::size_t kind = 0;
    while (kind < record_kinds && slab_size(kind) - side_room_size < bytes) ++kind;
    return kind;
}

// A zeroed block of the slab; NULL when there is none.
void *take_small(std::size_t kind) {
    void *block = slab_take(kind);
    if (block == nullptr) return nullptr;
    for (std::size_t line = 0; line < slab_size(kind); line += slab_line)
        std::memset(static_cast<unsigned char *>(block) + line, 0, slab_line);  // of a size that the compiler knows
    count_taken(slab_size(kind));
    return block;
}

void *take_large(std::size_t bytes) {
    auto *block = static_cast<unsigned char *>(std::calloc(1, bytes));
    if (block == nullptr) return refuse();
    std::memcpy(block, &bytes, sizeof bytes);
    count_taken(bytes);
    return block + header_size;
}

// The side room of the record in a block of this size: in the block's last line.
void *side_of(const void *address, std::size_t block_size) {
    const auto lines = static_cast<std::uint32_t>(block_size / slab_line);  // a power of two, as its place
    return memmgr_side_at(slab_number(address) | (lines - 1));
}

}  // namespace

void *mfh_calloc(std::size_t count, std::size_t size) {
    std::size_t bytes = 0;
    if (__builtin_mul_overflow(count, size, &bytes)) return refuse();
    if (const std::size_t kind = kind_for(bytes); kind < record_kinds) {
        if (!within_budget(slab_size(kind))) return refuse();
        if (void *block = take_small(kind)) return block;
    }
    if (__builtin_add_overflow(bytes, header_size, &bytes) || !within_budget(bytes)) return refuse();
    return take_large(bytes);
}

void memmgr_free(void *memory) {
    if (memory == nullptr) return;
    if (const std::size_t size = slab_size_at(memory); size != 0) {
        if (on_free != nullptr) on_free(side_of(memory, size));
        used -= size;
        slab_give(memory);
        return;
    }
    unsigned char *block = static_cast<unsigned char *>(memory) - header_size;
    std::size_t bytes = 0;
    std::memcpy(&bytes, block, sizeof(bytes));
    used -= bytes;
    std::free(block);
}

namespace ravo::platform {

void memmgr_set_budget(std::size_t bytes) {
    budget = bytes;
    slab_reserve(bytes == 0 ? 0 : bytes + bytes / 8 + (std::size_t{1} << 20));
}

std::size_t memmgr_budget() {
    return budget;
}

std::size_t memmgr_used() {
    return used;
}

std::size_t memmgr_peak() {
    return peak;
}

std::size_t memmgr_reserve() {
    return budget / 16 < most_reserve ? budget / 16 : most_reserve;
}

std::size_t memmgr_short() {
    const std::size_t mark = budget - memmgr_reserve();
    return budget == 0 || used <= mark ? 0 : used - mark;
}

void memmgr_on_short(void (*listener)()) {
    on_short = listener;
}

std::uint64_t memmgr_refused() {
    return refused;
}

void *memmgr_side_room(const void *address) {
    const std::size_t size = slab_size_at(address);
    return size == 0 || size >= slab_size(record_kinds) ? nullptr : side_of(address, size);
}

void memmgr_on_free(void (*listener)(void *side_room)) {
    on_free = listener;
}

void *memmgr_take_node(std::size_t size) {
    std::size_t kind = record_kinds;
    while (slab_size(kind) < size) ++kind;
    if (!within_budget(slab_size(kind))) return refuse();
    void *node = slab_take(kind);
    if (node == nullptr) return take_large(size + header_size);
    count_taken(slab_size(kind));
    return node;
}

void memmgr_give_node(void *node) {
    const std::size_t size = slab_size_at(node);
    if (size == 0) {
        memmgr_free(node);
        return;
    }
    used -= size;
    slab_give(node);
}

}  // namespace ravo::platform

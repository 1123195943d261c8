// Memory for the relay's records, counted against an optional budget. Each block carries its size in front, so that
// freeing needs no look-up; the size takes a whole alignment unit, so that the record behind it is aligned for
// anything.
#include "memmgr.h"

#include <cstdlib>
#include <cstring>
#include <limits>

#include "memory/memmgr_budget.h"

namespace {

constexpr std::size_t header_size = alignof(std::max_align_t);
static_assert(header_size >= sizeof(std::size_t));

std::size_t budget = 0;  // 0: no limit
std::size_t used = 0;
std::size_t peak = 0;

bool within_budget(std::size_t bytes) {
    return budget == 0 || (used <= budget && bytes <= budget - used);
}

}  // namespace

void *mfh_calloc(std::size_t count, std::size_t size) {
    std::size_t bytes = 0;
    if (__builtin_mul_overflow(count, size, &bytes) || __builtin_add_overflow(bytes, header_size, &bytes))
        return nullptr;
    if (!within_budget(bytes)) return nullptr;
    auto *block = static_cast<unsigned char *>(std::calloc(1, bytes));
    if (block == nullptr) return nullptr;
    std::memcpy(block, &bytes, sizeof(bytes));
    used += bytes;
    if (used > peak) peak = used;
    return block + header_size;
}

void memmgr_free(void *memory) {
    if (memory == nullptr) return;
    unsigned char *block = static_cast<unsigned char *>(memory) - header_size;
    std::size_t bytes = 0;
    std::memcpy(&bytes, block, sizeof(bytes));
    used -= bytes;
    std::free(block);
}

namespace ravo::platform {

void memmgr_set_budget(std::size_t bytes) {
    budget = bytes;
}

std::size_t memmgr_used() {
    return used;
}

std::size_t memmgr_peak() {
    return peak;
}

}  // namespace ravo::platform

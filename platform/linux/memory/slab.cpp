// SPDX-License-Identifier: Apache-2.0
// The region begins with the spans' records, for which the first spans are set aside. A span is full, in the list of
// those with room for one size, or empty; of the empty ones a few keep their memory, so that a tree that grows and
// shrinks all the time does not ask the system for memory each time. Free blocks of a span form a list through their
// first bytes; blocks behind `fresh` have never been given out, so that memory is not touched before it is needed.
#include "memory/slab.h"

#include <sys/mman.h>
#include <sys/resource.h>

#include <algorithm>
#include <cstring>

#ifdef RAVO_ADDRESS_SANITIZER
#include <sanitizer/asan_interface.h>
#endif

namespace ravo::platform {

unsigned char *slab_base = nullptr;

namespace {

constexpr std::size_t span_size = 65536;
constexpr std::size_t commit_step = 16;  // spans that become memory at a time
constexpr std::size_t spare_spans = 16;  // empty ones that keep their memory
constexpr std::size_t default_room = std::size_t{1} << 30;
constexpr std::uint32_t nothing = 0;  // no span; span 0 holds records
constexpr std::uint16_t no_block = 0xFFFF;

struct span_record {
    std::uint32_t next = nothing, previous = nothing;  // in the list it is in
    std::uint16_t free = no_block;                     // the first free block
    std::uint16_t fresh = 0;                           // blocks from here on were never given out
    std::uint16_t used = 0;                            // blocks given out
    std::uint8_t kind = 0;
};

struct region {
    std::size_t spans = 0;      // in all; 0: not reserved yet, or it could not be
    std::size_t first = 0;      // spans before this one hold the records
    std::size_t committed = 0;  // spans before this one are memory
    std::size_t reached = 0;    // spans before this one have been used
    std::uint32_t with_room[slab_sizes] = {};
    std::uint32_t spare = nothing, gone = nothing;  // empty: with memory, and without
    std::size_t spares = 0, resident = 0;
    bool tried = false;
};

region here;
std::size_t room_wanted = default_room;

span_record &record(std::uint32_t span) {
    return reinterpret_cast<span_record *>(slab_base)[span];
}

unsigned char *span_at(std::uint32_t span) {
    return slab_base + span * span_size;
}

// An address's distance from the region's beginning; of an address elsewhere a large number.
std::size_t offset_of(const void *address) {
    return reinterpret_cast<std::uintptr_t>(address) - reinterpret_cast<std::uintptr_t>(slab_base);
}

std::uint32_t span_of(const void *address) {
    return static_cast<std::uint32_t>(offset_of(address) / span_size);
}

// Under a limit of addresses the region must leave most of them to others.
std::size_t room_allowed() {
    rlimit limit{};
    if (getrlimit(RLIMIT_AS, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY) return room_wanted;
    return std::min<std::size_t>(room_wanted, limit.rlim_cur / 4);
}

bool commit_until(std::size_t spans) {
    if (spans <= here.committed) return true;
    const std::size_t until = std::min((spans + commit_step - 1) / commit_step * commit_step, here.spans);
    if (mprotect(slab_base + here.committed * span_size, (until - here.committed) * span_size,
                 PROT_READ | PROT_WRITE) != 0)
        return false;
    here.committed = until;
    return true;
}

// Reserves addresses; none of them is memory yet.
void open_region() {
    here.tried = true;
    const std::size_t spans = room_allowed() / span_size;
    const std::size_t records = (spans * sizeof(span_record) + span_size - 1) / span_size;
    const std::size_t size = (spans + records) * span_size;
    void *base = mmap(nullptr, size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (base == MAP_FAILED) return;
    slab_base = static_cast<unsigned char *>(base);
    here.spans = spans + records;
    here.first = here.reached = records;
    if (!commit_until(records)) {
        munmap(base, size);
        slab_base = nullptr;
        here = {};
        here.tried = true;
    }
}

void push(std::uint32_t &list, std::uint32_t span) {
    span_record &r = record(span);
    r.previous = nothing;
    r.next = list;
    if (list != nothing) record(list).previous = span;
    list = span;
}

void unlink(std::uint32_t &list, std::uint32_t span) {
    const span_record &r = record(span);
    if (r.previous != nothing)
        record(r.previous).next = r.next;
    else
        list = r.next;
    if (r.next != nothing) record(r.next).previous = r.previous;
}

std::uint32_t pop(std::uint32_t &list) {
    const std::uint32_t span = list;
    if (span != nothing) unlink(list, span);
    return span;
}

// An empty span: one that still has its memory, one that had, or a new one.
std::uint32_t take_span() {
    if (const std::uint32_t span = pop(here.spare); span != nothing) {
        --here.spares;
        return span;
    }
    ++here.resident;
    if (const std::uint32_t span = pop(here.gone); span != nothing) return span;
    if (here.reached < here.spans && commit_until(here.reached + 1)) return static_cast<std::uint32_t>(here.reached++);
    --here.resident;
    return nothing;
}

void put_away(std::uint32_t span) {
    if (here.spares < spare_spans) {
        ++here.spares;
        push(here.spare, span);
        return;
    }
    (void)madvise(span_at(span), span_size, MADV_DONTNEED);  // cannot fail on memory of our own
    --here.resident;
    push(here.gone, span);
}

// Sizes are powers of two; a division would take the processor longer than all the rest.
constexpr std::size_t blocks_in(std::size_t kind) {
    return span_size / slab_line >> kind;
}
static_assert(blocks_in(slab_sizes - 1) * slab_size(slab_sizes - 1) == span_size);

void hide([[maybe_unused]] void *block, [[maybe_unused]] std::size_t size) {
#ifdef RAVO_ADDRESS_SANITIZER
    ASAN_POISON_MEMORY_REGION(block, size);
#endif
}

void reveal([[maybe_unused]] void *block, [[maybe_unused]] std::size_t size) {
#ifdef RAVO_ADDRESS_SANITIZER
    ASAN_UNPOISON_MEMORY_REGION(block, size);
#endif
}

// Takes a block out of a span that has room.
void *take_block(std::uint32_t span, std::size_t size) {
    span_record &r = record(span);
    const bool used_before = r.free != no_block;
    unsigned char *block = span_at(span) + (used_before ? r.free : r.fresh) * size;
    reveal(block, size);
    if (used_before)
        std::memcpy(&r.free, block, sizeof r.free);
    else
        ++r.fresh;
    ++r.used;
    return block;
}

}  // namespace

void slab_reserve(std::size_t bytes) {
    room_wanted = bytes == 0 ? default_room : bytes;
}

void *slab_take(std::size_t kind) {
    if (!here.tried) open_region();
    std::uint32_t &with_room = here.with_room[kind];
    if (with_room == nothing) {
        if (here.spans == 0) return nullptr;
        const std::uint32_t span = take_span();
        if (span == nothing) return nullptr;
        record(span) = {.kind = static_cast<std::uint8_t>(kind)};
        push(with_room, span);
    }
    const std::uint32_t span = with_room;
    void *block = take_block(span, slab_size(kind));
    if (record(span).used == blocks_in(kind)) unlink(with_room, span);
    return block;
}

void slab_give(void *block) {
    const std::uint32_t span = span_of(block);
    span_record &r = record(span);
    const std::size_t size = slab_size(r.kind);
    const std::size_t offset = static_cast<std::size_t>(static_cast<unsigned char *>(block) - span_at(span));
    const auto number = static_cast<std::uint16_t>(offset / slab_line >> r.kind);
    std::memcpy(block, &r.free, sizeof r.free);
    r.free = number;
    hide(block, size);
    if (r.used-- == blocks_in(r.kind)) push(here.with_room[r.kind], span);
    if (r.used != 0) return;
    unlink(here.with_room[r.kind], span);
    put_away(span);
}

bool slab_has(const void *address) {
    return offset_of(address) < here.reached * span_size;
}

std::size_t slab_size_at(const void *address) {
    const std::size_t offset = offset_of(address);
    if (offset >= here.reached * span_size) return 0;
    return slab_size(record(static_cast<std::uint32_t>(offset / span_size)).kind);
}

std::size_t slab_resident() {
    return here.resident * span_size;
}

}  // namespace ravo::platform

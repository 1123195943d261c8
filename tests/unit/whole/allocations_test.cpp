// SPDX-License-Identifier: Apache-2.0
// In the steady state a message costs no allocation: tables, timers, books and buffers have what they need. The relay
// runs on its Linux platform, of which the sockets alone are replaced; every call of malloc and its like is counted.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <memory>

#include "micro_box.h"
#include "ravo_life.h"

namespace {

std::uint64_t allocated = 0;  // calls since the start

}  // namespace

#ifdef RAVO_ADDRESS_SANITIZER

// The sanitizer's own allocator tells of each call.
extern "C" int __sanitizer_install_malloc_and_free_hooks(void (*)(const volatile void *, std::size_t),
                                                         void (*)(const volatile void *));
namespace {
[[maybe_unused]] const int installed = __sanitizer_install_malloc_and_free_hooks(
    [](const volatile void *, std::size_t) { ++allocated; }, [](const volatile void *) {});
}

#else

// The C library's allocator under other names, behind functions that count.
extern "C" {
void *__libc_malloc(std::size_t size);
void *__libc_calloc(std::size_t count, std::size_t size);
void *__libc_realloc(void *memory, std::size_t size);

void *malloc(std::size_t size) {
    ++allocated;
    return __libc_malloc(size);
}
void *calloc(std::size_t count, std::size_t size) {
    ++allocated;
    return __libc_calloc(count, size);
}
void *realloc(void *memory, std::size_t size) {
    ++allocated;
    return __libc_realloc(memory, size);
}
}

#endif

namespace {

using namespace bench;

constexpr std::uint32_t exchanges = 6000;  // more than the flight recorder holds

// Requests of new transactions, and the replies that end them. Returns the calls of malloc and its like meanwhile.
std::uint64_t relayed(arrival request, arrival reply, std::uint32_t first) {
    const std::uint64_t before = allocated;
    for (std::uint32_t number = first; number < first + exchanges; ++number) {
        set_xid(request.frame, message_in_frame, number * 2654435761U);
        set_xid(reply.frame, message_in_frame, number * 2654435761U);
        receive(request);
        receive(reply);
    }
    return allocated - before;
}

TEST(Allocations, AreCounted) {
    const std::uint64_t before = allocated;
    const auto memory = std::make_unique<std::uint8_t[]>(exchanges);
    EXPECT_NE(memory, nullptr);
    EXPECT_EQ(allocated - before, 1u);
}

TEST(Allocations, NoneForAMessageInTheSteadyState) {
    start_box();
    arrival request = from_client(message(op_request, discover_options()));
    arrival reply = from_server(message(op_reply, joined({offer_options(), option82()})));
    request.aux.checksum_valid = true;  // transactions' numbers are set behind the checksum
    reply.aux.checksum_valid = true;
    (void)relayed(request, reply, 0);
    EXPECT_EQ(relayed(request, reply, exchanges), 0u);
    EXPECT_EQ(sent_count(), 4u * exchanges);
    ravo_db_exit();
}

TEST(Allocations, NoneForAMessageThatIsDropped) {
    start_box();
    arrival request = from_client(message(op_request, joined({discover_options(), option82()})));  // untrusted
    const arrival reply = from_server(message(op_reply, offer_options()));                         // without option 82
    request.aux.checksum_valid = true;
    (void)relayed(request, reply, 0);
    EXPECT_EQ(relayed(request, reply, exchanges), 0u);
    EXPECT_EQ(sent_count(), 0u);
    ravo_db_exit();
}

}  // namespace

// SPDX-License-Identifier: Apache-2.0
// Diagnostic output takes no memory.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <new>

#include "dhcp.h"
#include "fake_platform.h"
#include "output.h"

namespace {

std::atomic<bool> counting{false};
std::atomic<int> allocations{0};

void *counted_allocation(std::size_t size) {
    if (counting) ++allocations;
    void *memory = std::malloc(size == 0 ? 1 : size);
    if (memory == nullptr) throw std::bad_alloc();
    return memory;
}

}  // namespace

void *operator new(std::size_t size) {
    return counted_allocation(size);
}
void *operator new[](std::size_t size) {
    return counted_allocation(size);
}
void operator delete(void *memory) noexcept {
    std::free(memory);
}
void operator delete[](void *memory) noexcept {
    std::free(memory);
}
void operator delete(void *memory, std::size_t) noexcept {
    std::free(memory);
}
void operator delete[](void *memory, std::size_t) noexcept {
    std::free(memory);
}

namespace {

TEST(OutputAllocation, WritersDoNotAllocate) {
    char name[] = "output_test_XXXXXX";
    const int fd = mkstemp(name);
    ASSERT_GE(fd, 0);
    unlink(name);
    msg_fd = fd;
    sockaddr_in from{};
    from.sin_family = AF_INET;
    from.sin_addr.s_addr = fake::address("192.0.2.9");
    const ravo_pktinfo where = {1124, fake::address("192.0.2.1"), fake::address("255.255.255.255")};
    message_buffer message;
    message.bytes[0] = 2;
    allocations = 0;
    counting = true;
    writeMsgTimestamp();
    writeUInt(fd, 4294967295U);
    writeMsgUInt(7);
    writeMsgRaw("abc", 3);
    writeMsgLine("abc", 3);
    tracePacket(message.data(), 300, &where, reinterpret_cast<const sockaddr *>(&from));
    tracePacket(message.data(), 10, &where, reinterpret_cast<const sockaddr *>(&from));
    counting = false;
    EXPECT_EQ(allocations, 0);
    EXPECT_GT(lseek(fd, 0, SEEK_END), 0);
    msg_fd = -1;
    close(fd);
    counting = true;
    delete new int(1);
    counting = false;
    EXPECT_EQ(allocations, 1) << "the counter itself works";
}

}  // namespace

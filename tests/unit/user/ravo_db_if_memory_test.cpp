// SPDX-License-Identifier: Apache-2.0
// The interface database when memory is used up in the middle of a new record.
#include <cstdlib>
#include <new>

#include "relay_fixture.h"

namespace {

bool one_block_only = false;  // once the relay has one block of the platform's memory there is no more of any

void *allocated(std::size_t size) {
    void *memory = one_block_only && fake::blocks_used() > 0 ? nullptr : std::malloc(size == 0 ? 1 : size);
    if (memory == nullptr) throw std::bad_alloc();
    return memory;
}

}  // namespace

void *operator new(std::size_t size) {
    return allocated(size);
}
void operator delete(void *memory) noexcept {
    std::free(memory);
}
void operator delete(void *memory, std::size_t) noexcept {
    std::free(memory);
}

namespace {

using RavoDbIfMemory = Relay;

TEST_F(RavoDbIfMemory, ARecordThatCannotBeEnteredIntoTheIndexIsNotKept) {
    const iface record = vlan_record(10, {"10.0.0.1"});
    one_block_only = true;
    const int added = ravo_db_if_add(&record);
    one_block_only = false;
    EXPECT_EQ(added, 0);
    EXPECT_EQ(fake::blocks_used(), 0u);
    EXPECT_FALSE(stored_record("vlan10").has_value());
    EXPECT_EQ(ravo_db_if_add(&record), 1);
    EXPECT_EQ(describe(*stored_record("vlan10")), describe(record));
}

}  // namespace

// SPDX-License-Identifier: Apache-2.0
// What the relay takes of its platform: memory for what it keeps, and calls for each message. docs/porting.md promises
// it.
#include <gtest/gtest.h>

#include "fake_memory.h"
#include "packet_relay.h"
#include "ravo_db_xid.h"

namespace {

class Footprint : public packet::relay_test {};

constexpr bool wide = sizeof(void *) == 8;

TEST_F(Footprint, InterfaceIsOneBlock) {
    const std::size_t bytes = fake::memory_used(), blocks = fake::blocks_used();
    packet::store({.vlan = 77});
    EXPECT_EQ(fake::blocks_used() - blocks, 1U);
    EXPECT_EQ(fake::memory_used() - bytes, 1016U);
}

TEST_F(Footprint, TransactionIsOneBlockUntilItsReply) {
    const std::size_t bytes = fake::memory_used(), blocks = fake::blocks_used();
    const packet::message msg = packet::reply_message({});
    packet::remember(msg);
    EXPECT_EQ(fake::blocks_used() - blocks, 1U);
    EXPECT_EQ(fake::memory_used() - bytes, wide ? 24U : 16U);
    packet::remember(msg);
    EXPECT_EQ(fake::blocks_used() - blocks, 1U);
    ravo_db_xid_exit();
    ravo_db_xid_init();
    EXPECT_EQ(fake::memory_used(), bytes);
}

TEST_F(Footprint, MessageTakesNoMoreMemoryThanItsTransaction) {
    packet::store();
    packet::set({.option_state = 1});
    const std::size_t blocks = fake::blocks_used();
    packet::receive(encode(packet::message()));
    EXPECT_EQ(fake::datagrams.size(), 1U);  // a call of osal_sendto a server
    EXPECT_EQ(fake::blocks_used() - blocks, 1U);
}

}  // namespace

// SPDX-License-Identifier: Apache-2.0
// Open transactions that outlast the daemon: a table in a mapped file, which the next start takes over.
//
// Each timer that a message in hand arms is an open transaction, and is here until it fires or is disarmed; noting
// it is a few writes to memory. The table has a place for each record of the daemon's memory, and of those that share a
// place the last one has it. Every entry has a checksum of its own, so that one that was being written when the daemon
// died is missing and no other. The file belongs into a folder that a boot empties.
#ifndef PLATFORM_LINUX_OSAL_KEPT_TRANSACTIONS_H
#define PLATFORM_LINUX_OSAL_KEPT_TRANSACTIONS_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "fault.h"

namespace ravo::platform {

inline constexpr std::size_t kept_transactions_places = 65536;

struct kept_transaction {
    std::uint32_t xid = 0;      // as it is in the message
    std::uint32_t port = 0;     // number of the port that it came in on, 0: none
    std::uint32_t seconds = 0;  // how long it is remembered, from
    std::uint64_t since = 0;    // this moment of the coarse clock (base/clock.h)
};

// Opens the table, and takes out what the daemon before left in it: what is whole and has time left, oldest first.
// path: the file, made when it is missing. The fault, if any: one line that says why nothing is kept or why
// nothing was taken over.
fault kept_transactions_open(const std::string &path, std::vector<kept_transaction> *found);
// Leaves the table to the next daemon.
void kept_transactions_close();

// Notes a transaction, and that it has ended. number: that of its record's side room (memory/memmgr_block.h).
void kept_transactions_put(std::uint32_t number, const kept_transaction &what);
void kept_transactions_drop(std::uint32_t number);

// Hands transactions over to the relay one by one; what take arms meanwhile gets their ports and remaining times.
// Returns how many it took.
std::size_t kept_transactions_restore(const std::vector<kept_transaction> &found,
                                      const std::function<bool(const kept_transaction &)> &take);
// The one that is being handed over; NULL otherwise.
const kept_transaction *kept_transaction_in_hand();

}  // namespace ravo::platform

#endif

// SPDX-License-Identifier: Apache-2.0
// Room for transactions: who has to make it when the budget of memory is used up.
//
// Any port may use all of the budget that nobody else wants. When little of it is left, the oldest transactions of the
// port that has most of them are ended before their time: a flood on one port takes room from itself, and whatever
// others do, a port keeps what it has up to an equal share. That happens between messages, which find a reserve to live
// on meanwhile.
#ifndef PLATFORM_LINUX_OSAL_TRANSACTION_ROOM_H
#define PLATFORM_LINUX_OSAL_TRANSACTION_ROOM_H

#include <cstdint>
#include <vector>

namespace ravo::platform {

// Begins to see to the room, from the loop, and ends it.
void transaction_room_open();
void transaction_room_close();

struct transaction_figures {
    std::uint64_t open = 0;         // transactions remembered now
    std::uint64_t used = 0;         // bytes of the budget in use, by whatever
    std::uint64_t budget = 0;       // 0: none
    std::uint64_t ended_early = 0;  // to make room for others
    std::uint64_t refused = 0;      // records that found no room: the request was relayed, but not remembered
};
transaction_figures transaction_room_figures();

struct port_transactions {
    std::uint32_t port = 0;  // the port's number, 0: none
    std::uint64_t open = 0;
    std::uint64_t ended_early = 0;
};
// The ports that have transactions, or had some that were ended early.
std::vector<port_transactions> transaction_room_ports();

// Counts anew what was ended early and refused.
void transaction_room_forget();

}  // namespace ravo::platform

#endif

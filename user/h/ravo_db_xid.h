// SPDX-License-Identifier: Apache-2.0
// Transaction port map: on which module and port a client's transaction came in, for 300 seconds.
#ifndef RAVO_DB_XID_H
#define RAVO_DB_XID_H

#include <cstddef>
#include <cstdint>

#include "osal.h"

inline constexpr std::uint32_t RAVO_XID_SECONDS = 300;  // life of an entry after its last update

struct xid_entry {
    std::uint32_t xid;     // transaction id as it is in the message, not byte-swapped; the key
    std::uint32_t module;  // module number of the ingress port
    std::uint32_t port;    // port number within the module
    osal_timer expiry;     // one-shot expiry timer
};

static_assert(offsetof(xid_entry, xid) == 0 && offsetof(xid_entry, module) == 4 && offsetof(xid_entry, port) == 8);
static_assert(offsetof(xid_entry, expiry) ==
              (12 + alignof(osal_timer) - 1) / alignof(osal_timer) * alignof(osal_timer));
static_assert(sizeof(xid_entry) == offsetof(xid_entry, expiry) + sizeof(osal_timer));

// Creates the tree, after freeing what an earlier one holds.
void ravo_db_xid_init();

// Frees every entry, with its timer, and the tree.
void ravo_db_xid_exit();

// The order of the map: by xid as an unsigned number. a, b: xid_entry records.
[[nodiscard]] int ravo_db_xid_compare(const void *a, const void *b);

// All of these return 1 for success and 0 for failure, and 0 when the tree or the argument is missing.

// Stores a copy of *e, new or over the entry of the same xid, and arms its expiry. 0 when memory is used up.
[[nodiscard]] int ravo_db_xid_update(const xid_entry *e);
// Copies the stored entry with e->xid over *e.
[[nodiscard]] int ravo_db_xid_get(xid_entry *e);
// The stored entry of a transaction, null when there is none. It is valid until the map is changed.
[[nodiscard]] const xid_entry *ravo_db_xid_view(std::uint32_t xid);
// Zero-fills *e and copies the first entry into it.
[[nodiscard]] int ravo_db_xid_get_first(xid_entry *e);
// Copies the successor of the stored entry with e->xid over *e.
[[nodiscard]] int ravo_db_xid_get_next(xid_entry *e);
// The same for a walk that others may come between: also when the entry with e->xid has been removed since.
[[nodiscard]] int ravo_db_xid_go_on(xid_entry *e);
// Removes the entry with e->xid and its timer. 1 also when there is none.
[[nodiscard]] int ravo_db_xid_delete(const xid_entry *e);
// Removes a stored entry, as ravo_db_xid_view gave it; one that the tree does not give ends by itself.
void ravo_db_xid_finish(const xid_entry *stored);
// The timer callback: deletes the stored entry.
int ravo_db_xid_expire(xid_entry *e);

// Remembers a request's transaction and traces, in the name of a procedure, whether that could be done. xid: as it
// is in the message; port_ifindex: number of the port it came in on, 0 when unknown.
void ravo_db_xid_record(const char *procedure, std::uint32_t xid, std::uint32_t port_ifindex);

#endif

// SPDX-License-Identifier: Apache-2.0
// The transaction port map.
//
// A request that gets option 82 leaves an entry here under its transaction id: the module and port it came in on. The
// reply is checked against the entry and takes it out; what is never answered leaves by itself when the entry's timer
// fires. Entries are copied in and out whole, timer object included.
#include "ravo_db_xid.h"

#include "memmgr.h"
#include "port_number.h"
#include "ravo_db_if.h"
#include "trace.h"

namespace {

constexpr const char *timer_name = "ravo";

avl_tree *xid_tree = nullptr;

xid_entry *find_stored(const xid_entry *key) {
    return xid_tree == nullptr ? nullptr : static_cast<xid_entry *>(avl_search(xid_tree, key));
}

void expire(void *arg) {
    ravo_db_xid_expire(static_cast<xid_entry *>(arg));
}

// Arms the expiry of an entry that will stay where it is. Returns false when memory is used up.
bool arm(xid_entry *stored) {
    return OSAL_ZEBOS_Create_Sec_Once_Timer(&stored->expiry, timer_name, expire, RAVO_XID_SECONDS, /*repeat=*/1,
                                            stored) == 0;
}

void disarm(xid_entry *stored) {
    if (stored->expiry.armed != 0) OSAL_ZEBOS_Delete_Timer(&stored->expiry);
}

// Takes over a repeated request. An entry that could not expire is not kept.
int refresh(xid_entry *stored, const xid_entry &e) {
    // deliberate: the copy brings the caller's armed mark, so that of a running timer is lost; the platform, which
    // knows timers by their objects, lets the new one replace it.
    *stored = e;
    disarm(stored);
    if (arm(stored)) return 1;
    OSAL_ZEBOS_Delete_Timer(&stored->expiry);  // the one of before must not fire for an entry that is gone
    if (avl_remove(xid_tree, stored) == 0) memmgr_free(stored);
    return 0;
}

// Takes an entry out and frees it. Returns 1, 0 when the tree keeps it, without a timer then.
int take_out(xid_entry *stored) {
    disarm(stored);
    if (avl_remove(xid_tree, stored) < 0) return 0;
    memmgr_free(stored);
    return 1;
}

}  // namespace

void ravo_db_xid_init() {
    ravo_db_xid_exit();
    xid_tree = avl_create(0, ravo_db_xid_compare);
}

void ravo_db_xid_exit() {
    if (xid_tree == nullptr) return;
    while (auto *entry = static_cast<xid_entry *>(avl_first(xid_tree)))
        if (ravo_db_xid_delete(entry) == 0) break;
    avl_destroy(xid_tree);
    xid_tree = nullptr;
}

int ravo_db_xid_compare(const void *a, const void *b) {
    if (a == nullptr || b == nullptr) return -1;
    const std::uint32_t first = static_cast<const xid_entry *>(a)->xid;
    const std::uint32_t second = static_cast<const xid_entry *>(b)->xid;
    if (first == second) return 0;
    return first > second ? 1 : -1;
}

int ravo_db_xid_update(const xid_entry *e) {
    if (xid_tree == nullptr || e == nullptr) return 0;
    if (xid_entry *stored = find_stored(e)) return refresh(stored, *e);

    auto *created = static_cast<xid_entry *>(mfh_calloc(1, sizeof(xid_entry)));
    if (created == nullptr) return 0;
    *created = *e;
    disarm(created);
    if (!arm(created)) {
        memmgr_free(created);
        return 0;
    }
    // deliberate: an update counts as done whatever the tree answers; an entry that it refused must not linger, though.
    if (avl_insert(xid_tree, created) < 0) {
        disarm(created);
        memmgr_free(created);
    }
    return 1;
}

int ravo_db_xid_get(xid_entry *e) {
    if (xid_tree == nullptr || e == nullptr) return 0;
    const xid_entry *stored = find_stored(e);
    if (stored == nullptr) return 0;
    *e = *stored;
    return 1;
}

const xid_entry *ravo_db_xid_view(std::uint32_t xid) {
    xid_entry key{};
    key.xid = xid;
    return find_stored(&key);
}

int ravo_db_xid_get_first(xid_entry *e) {
    if (xid_tree == nullptr || e == nullptr) return 0;
    *e = {};
    const auto *first = static_cast<const xid_entry *>(avl_first(xid_tree));
    if (first == nullptr) return 0;
    *e = *first;
    return 1;
}

int ravo_db_xid_get_next(xid_entry *e) {
    // deliberate: the guard asks for the interface tree; both trees come and go together.
    if (!ravo_db_if_tree_exists() || e == nullptr) return 0;
    const xid_entry *stored = find_stored(e);
    if (stored == nullptr) return 0;
    const auto *next = static_cast<const xid_entry *>(avl_getnext(xid_tree, stored));
    if (next == nullptr) return 0;
    const bool differs = next->xid != e->xid;
    *e = *next;
    return differs ? 1 : 0;
}

int ravo_db_xid_go_on(xid_entry *e) {
    if (xid_tree == nullptr || e == nullptr) return 0;
    const auto *next = static_cast<const xid_entry *>(avl_getnext(xid_tree, e));
    if (next == nullptr) return 0;
    *e = *next;
    return 1;
}

int ravo_db_xid_delete(const xid_entry *e) {
    if (xid_tree == nullptr || e == nullptr) return 0;
    xid_entry *stored = find_stored(e);
    return stored == nullptr ? 1 : take_out(stored);
}

void ravo_db_xid_finish(const xid_entry *stored) {
    (void)take_out(const_cast<xid_entry *>(stored));
}

int ravo_db_xid_expire(xid_entry *e) {
    return ravo_db_xid_delete(e);
}

void ravo_db_xid_record(const char *procedure, std::uint32_t xid, std::uint32_t port_ifindex) {
    const port_place ingress = port_number_place(port_ifindex);
    xid_entry entry{};
    entry.xid = xid;
    entry.module = ingress.module;
    entry.port = ingress.port;
    if (ravo_db_xid_update(&entry) != 0)
        ravo_trace_as(procedure, ravo::level_trace, "%s (%d): Update Xid DB with xid=%X,modid=%d,port num=%d\n", xid,
                      ingress.module, ingress.port);
    else
        ravo_trace_as(procedure, ravo::level_failure,
                      "%s (%d): Failed to update Xid DB with xid=%X,modid=%d,port num=%d\n", xid, ingress.module,
                      ingress.port);
}

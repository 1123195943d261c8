// SPDX-License-Identifier: Apache-2.0
// Interface database: one record for every interface on which relaying is configured or that came up.
//
// Records live in an ordered tree keyed by the number at the end of the interface's name. Callers hold whole copies:
// get, change, store back.
#ifndef RAVO_DB_IF_H
#define RAVO_DB_IF_H

#include <cstddef>
#include <cstdint>

struct interface;

inline constexpr int RAVO_SERVERS = 4;  // entries of each server table
inline constexpr int RAVO_NAME_SIZE = 21;
inline constexpr std::uint32_t RAVO_MAC_SIZE = 6;  // of an interface that frames can leave

// A server for clients of one vendor class (option 60).
struct opt60_host {
    std::uint32_t used;        // 1: the entry holds a host
    std::uint32_t match_rule;  // 0: exact match, 1: partial match
    char vendor[68];           // vendor class text, NUL-terminated
    std::uint32_t server;      // IPv4 address, network byte order
};

static_assert(offsetof(opt60_host, used) == 0 && offsetof(opt60_host, match_rule) == 4);
static_assert(offsetof(opt60_host, vendor) == 8 && offsetof(opt60_host, server) == 76 && sizeof(opt60_host) == 80);

// A server for clients with one client identifier (option 61).
struct opt61_host {
    std::uint32_t used;           // 1: the entry holds a host
    std::uint8_t client_id[129];  // identifier bytes, zero-filled after the last
    std::uint32_t client_id_len;  // number of meaningful bytes in client_id
    std::uint32_t server;         // IPv4 address, network byte order
};

static_assert(offsetof(opt61_host, used) == 0 && offsetof(opt61_host, client_id) == 4);
static_assert(offsetof(opt61_host, client_id_len) == 136 && offsetof(opt61_host, server) == 140);
static_assert(sizeof(opt61_host) == 144);

// The relay interface record.
struct iface {
    char name[RAVO_NAME_SIZE];              // NUL-terminated; the key
    char aid[23];                           // agent id text, at most 21 characters
    std::uint32_t in_use;                   // 1 once configuration created the record
    std::uint32_t ifindex;                  // the switch's interface number
    std::uint32_t if_ip;                    // primary IPv4 address, network byte order; 0: none
    std::uint8_t if_mac[16];                // hardware address, the first if_maclen bytes are valid
    std::uint32_t if_maclen;                // hardware address length, 6 on Ethernet
    std::uint32_t reserved;                 // zero
    std::uint32_t server_count;             // used slots of server_db
    std::uint32_t trusted;                  // 1: clients may bring option 82 of their own
    std::uint32_t local_relay_state;        // 1: local relay on
    std::uint32_t server_db[RAVO_SERVERS];  // relay servers, network byte order; 0: empty slot
    std::uint32_t opt60_count;              // used entries of opt60_hosts
    std::uint32_t opt61_count;              // used entries of opt61_hosts
    opt60_host opt60_hosts[RAVO_SERVERS];
    opt61_host opt61_hosts[RAVO_SERVERS];
};

static_assert(offsetof(iface, name) == 0 && offsetof(iface, aid) == 21 && offsetof(iface, in_use) == 44);
static_assert(offsetof(iface, ifindex) == 48 && offsetof(iface, if_ip) == 52 && offsetof(iface, if_mac) == 56);
static_assert(offsetof(iface, if_maclen) == 72 && offsetof(iface, reserved) == 76);
static_assert(offsetof(iface, server_count) == 80 && offsetof(iface, trusted) == 84);
static_assert(offsetof(iface, local_relay_state) == 88 && offsetof(iface, server_db) == 92);
static_assert(offsetof(iface, opt60_count) == 108 && offsetof(iface, opt61_count) == 112);
static_assert(offsetof(iface, opt60_hosts) == 116 && offsetof(iface, opt61_hosts) == 436 && sizeof(iface) == 1012);

// An empty record with this name, of which at most 20 characters are taken: a key, or the start of a new record.
[[nodiscard]] iface ravo_db_if_named(const char *name);
// The same with the name of the interface of this number, empty when the number names nothing.
[[nodiscard]] iface ravo_db_if_numbered(std::uint32_t ifindex);
// Tells whether a record can bear this name.
[[nodiscard]] bool ravo_db_if_name_fits(const char *name);

// Creates the interface tree, after freeing what an earlier one holds.
void ravo_db_if_init();
// Frees every record and the tree.
void ravo_db_if_exit();

// What a record is known by: the number that its name ends in, modulo 65536; 0 for a name that ends in no digit.
struct ravo_if_key {
    std::int16_t number;
    std::int16_t none = 0;  // what is looked for in a tree has four bytes at least
};
[[nodiscard]] ravo_if_key ravo_db_if_key(const char *name);

// The order of the interface tree: by numbers, compared signed. a, b: ravo_if_key; a missing one gives -1.
[[nodiscard]] int ravo_db_if_compare(const void *a, const void *b);

// All of these return 1 for success and 0 for failure, and 0 when the tree or the argument is missing.

// Stores a copy of *record: over the record of the same key in place, or as a new one. 0 when memory is used up.
[[nodiscard]] int ravo_db_if_add(const iface *record);
// Copies the stored record with record->name over *record. 0 when there is none.
[[nodiscard]] int ravo_db_if_get(iface *record);
// The same, but where there is none *record becomes what a new record starts with: in use, without an address. It is
// not stored yet. 1 when it was stored, 0 when it is new.
[[nodiscard]] int ravo_db_if_get_or_new(iface *record);
// Zero-fills *record and copies the first record into it. 0 when there is none.
[[nodiscard]] int ravo_db_if_get_first(iface *record);
// Copies the successor of the stored record named record->name over *record. 0 when the name is not stored, has no
// successor, or the successor bears the same name.
[[nodiscard]] int ravo_db_if_get_next(iface *record);
// The same for a walk that others may come between: also when the record named record->name has been removed since.
[[nodiscard]] int ravo_db_if_go_on(iface *record);
// Removes the record with this name. 1 also when there is none.
[[nodiscard]] int ravo_db_if_delete(const char *name);
// Looks an interface up by its address (network byte order), the one that comes first in tree order; the last one
// found is remembered and tried first.
[[nodiscard]] int ravo_if_ifinfo_get_by_addr(iface *out, std::uint32_t address);

// Views of stored records, for reading while one message is handled: nothing changes them meanwhile. Null when there is
// none.

// The record of the interface of this number: the one named so.
[[nodiscard]] const iface *ravo_db_if_view(std::uint32_t ifindex);
// The record that ravo_if_view_by_addr would give now, without a trace, and without being remembered as the last one.
[[nodiscard]] const iface *ravo_db_if_at(std::uint32_t address);
// The record that ravo_if_ifinfo_get_by_addr copies, with its traces.
[[nodiscard]] const iface *ravo_if_view_by_addr(std::uint32_t address);

// Deletes every record. Returns 0.
int ravo_if_del_all_if();

// Fills ifindex, if_mac, if_maclen and, from the first primary address, if_ip of *record from the system's interface.
// Returns 0.
int RAVO_IF_Fill_Info(iface *record, const struct interface *ifp);

// Tells whether the interface tree exists.
[[nodiscard]] bool ravo_db_if_tree_exists();

// A walk over the records in tree order, each a copy: for (const iface &record : ravo_db_if_all()). The record in hand
// may be stored back or deleted; the walk goes on behind it. While a command prints, others may have their turns.
struct ravo_if_walk {
    iface record;  // the record in hand, while found
    bool found;

    struct end_mark {};
    [[nodiscard]] ravo_if_walk begin() const { return *this; }
    [[nodiscard]] end_mark end() const { return {}; }
    [[nodiscard]] const iface &operator*() const { return record; }
    [[nodiscard]] bool operator!=(end_mark) const { return found; }
    void operator++() { found = ravo_db_if_go_on(&record) != 0; }
};

[[nodiscard]] ravo_if_walk ravo_db_if_all();                        // from the first record on
[[nodiscard]] ravo_if_walk ravo_db_if_behind(const iface &record);  // from the one behind it on

#endif

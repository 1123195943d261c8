// Interface database: one record for every interface on which relaying is configured or that came up.
//
// Records live in an ordered tree keyed by the number at the end of the interface's name. Callers hold whole copies:
// get, change, store back.
#ifndef RAVO_DB_IF_H
#define RAVO_DB_IF_H

#include <cstdint>

struct interface;

inline constexpr int RAVO_SERVERS = 4;  // entries of each server table
inline constexpr int RAVO_NAME_SIZE = 21;

// A server for clients of one vendor class (option 60).
struct opt60_host {
    std::uint32_t used;        // 1: the entry holds a host
    std::uint32_t match_rule;  // 0: exact match, 1: partial match
    char vendor[68];           // vendor class text, NUL-terminated
    std::uint32_t server;      // IPv4 address, network byte order
};

static_assert(sizeof(opt60_host) == 80);

// A server for clients with one client identifier (option 61).
struct opt61_host {
    std::uint32_t used;           // 1: the entry holds a host
    std::uint8_t client_id[129];  // identifier bytes, zero-filled after the last
    std::uint32_t client_id_len;  // number of meaningful bytes in client_id
    std::uint32_t server;         // IPv4 address, network byte order
};

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

// Resets the settings and creates the interface tree and the transaction tree. Returns 0. Called once at start-up; a
// second call starts from empty trees again.
int ravo_db_init();

// Frees every record, every transaction and both trees.
void ravo_db_exit();

// The order of the interface tree: by the number that the last run of decimal digits in the name forms (16 bits,
// compared signed). a, b: iface records; a missing one gives -1.
int ravo_db_if_compare(const void *a, const void *b);

// All of these return 1 for success and 0 for failure, and 0 when the tree or the argument is missing.

// Stores a copy of *record: over the record of the same key in place, or as a new one. 0 when memory is used up.
int ravo_db_if_add(const iface *record);
// Copies the stored record with record->name over *record. 0 when there is none.
int ravo_db_if_get(iface *record);
// Zero-fills *record and copies the first record into it. 0 when there is none.
int ravo_db_if_get_first(iface *record);
// Copies the successor of the stored record named record->name over *record. 0 when the name is not stored, has no
// successor, or the successor bears the same name.
int ravo_db_if_get_next(iface *record);
// Removes the record with this name. 1 also when there is none.
int ravo_db_if_delete(const char *name);
// Looks an interface up by its address (network byte order), the one that comes first in tree order; the last one
// found is remembered and tried first.
int ravo_if_ifinfo_get_by_addr(iface *out, std::uint32_t address);

// Deletes every record. Returns 0.
int ravo_if_del_all_if();

// Fills ifindex, if_mac, if_maclen and, from the first primary address, if_ip of *record from the system's interface.
// Returns 0.
int RAVO_IF_Fill_Info(iface *record, const struct interface *ifp);

// Tells whether the interface tree exists.
bool ravo_db_if_tree_exists();

#endif

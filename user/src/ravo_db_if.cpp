// The interface database.
//
// Every interface on which relaying is configured, or which came up, has one record in an ordered tree. Records are
// copied in and out whole; the tree's own copies are reached from this file only. The packet path looks interfaces up
// by address: the last record found is tried first, and an index by address stands beside the tree so that an address
// that is not the last one costs no walk. Several records may bear one address (0 above all); the one that comes first
// in tree order is then meant, so the index is ordered by address and, within it, by the tree's key.
#include "ravo_db_if.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <map>
#include <new>
#include <utility>

#include "addr_text.h"
#include "if_utl.h"
#include "memmgr.h"
#include "nsm.h"
#include "trace.h"

namespace {

static_assert(RAVO_NAME_SIZE == IF_UTL_NAME_SIZE);

using address_key = std::pair<std::uint32_t, std::int16_t>;  // address (network byte order), number of the name

avl_tree *if_tree = nullptr;
const iface *if_cache = nullptr;  // the stored record that the last look-up by address found
std::map<address_key, iface *> address_index;

// The number that the last run of decimal digits in a name forms, modulo 65536; 0 when a name does not end in a digit.
// deliberate: names that end in the same number are the same key, for the interfaces served are VLAN interfaces.
std::int16_t number_of_name(const char *name) {
    std::uint16_t number = 0;
    for (int i = 0; i < RAVO_NAME_SIZE && name[i] != '\0'; ++i) {
        const bool digit = name[i] >= '0' && name[i] <= '9';
        number = digit ? static_cast<std::uint16_t>(number * 10u + static_cast<unsigned>(name[i] - '0'))
                       : static_cast<std::uint16_t>(0);
    }
    return static_cast<std::int16_t>(number);
}

address_key address_key_of(const iface &record) {
    return {record.if_ip, number_of_name(record.name)};
}

iface *find_stored(const iface *key) {
    return static_cast<iface *>(avl_search(if_tree, key));
}

// The first record in tree order with this address, or null.
const iface *find_by_address(std::uint32_t address) {
    const auto found = address_index.lower_bound({address, std::numeric_limits<std::int16_t>::min()});
    return found != address_index.end() && found->first.first == address ? found->second : nullptr;
}

// Overwrites a stored record. Its place in the tree stays, its place in the index follows the address.
void update_stored(iface *stored, const iface &record) {
    const address_key before = address_key_of(*stored);
    *stored = record;
    const address_key after = address_key_of(*stored);
    if (before == after) return;
    auto node = address_index.extract(before);
    node.key() = after;
    address_index.insert(std::move(node));
}

// Allocates a record and enters it into the index. Returns null when memory is used up.
iface *create_record(const iface &record) {
    auto *created = static_cast<iface *>(mfh_calloc(1, sizeof(iface)));
    if (created == nullptr) return nullptr;
    *created = record;
    try {
        address_index.emplace(address_key_of(*created), created);
    } catch (const std::bad_alloc &) {
        memmgr_free(created);
        return nullptr;
    }
    return created;
}

void destroy_record(iface *record) {
    address_index.erase(address_key_of(*record));
    memmgr_free(record);
}

}  // namespace

iface ravo_db_if_named(const char *name) {
    iface record{};
    std::memcpy(record.name, name, strnlen(name, sizeof record.name - 1));
    return record;
}

iface ravo_db_if_numbered(std::uint32_t ifindex) {
    iface record{};
    (void)if_utl_ifindex_to_ifname(ifindex, record.name);  // a number that names nothing leaves the name empty
    return record;
}

bool ravo_db_if_name_fits(const char *name) {
    return std::strlen(name) < sizeof iface::name;
}

void ravo_db_if_init() {
    ravo_db_if_exit();
    if_tree = avl_create(0, ravo_db_if_compare);
}

void ravo_db_if_exit() {
    if (if_tree == nullptr) return;
    while (auto *record = static_cast<iface *>(avl_first(if_tree))) {
        if (avl_remove(if_tree, record) < 0) break;
        destroy_record(record);
    }
    avl_destroy(if_tree);
    if_tree = nullptr;
    if_cache = nullptr;
    address_index.clear();
}

bool ravo_db_if_tree_exists() {
    return if_tree != nullptr;
}

int ravo_db_if_compare(const void *a, const void *b) {
    if (a == nullptr || b == nullptr) return -1;
    const std::int16_t first = number_of_name(static_cast<const iface *>(a)->name);
    const std::int16_t second = number_of_name(static_cast<const iface *>(b)->name);
    if (first == second) return 0;
    return first > second ? 1 : -1;
}

int ravo_db_if_add(const iface *record) {
    if (if_tree == nullptr || record == nullptr) return 0;
    if (iface *stored = find_stored(record)) {
        update_stored(stored, *record);
        return 1;
    }
    iface *created = create_record(*record);
    if (created == nullptr) return 0;
    // deliberate: an add counts as done whatever the tree answers; a record that it refused must not linger, though.
    if (avl_insert(if_tree, created) < 0) destroy_record(created);
    return 1;
}

int ravo_db_if_get(iface *record) {
    if (if_tree == nullptr || record == nullptr) return 0;
    const iface *stored = find_stored(record);
    if (stored == nullptr) return 0;
    *record = *stored;
    return 1;
}

int ravo_db_if_get_or_new(iface *record) {
    if (ravo_db_if_get(record) != 0) return 1;
    record->in_use = 1;
    record->if_ip = 0;
    return 0;
}

int ravo_db_if_get_first(iface *record) {
    if (if_tree == nullptr || record == nullptr) return 0;
    *record = {};
    const auto *first = static_cast<const iface *>(avl_first(if_tree));
    if (first == nullptr) return 0;
    *record = *first;
    return 1;
}

int ravo_db_if_get_next(iface *record) {
    if (if_tree == nullptr || record == nullptr) return 0;
    const iface *stored = find_stored(record);
    if (stored == nullptr) return 0;
    const auto *next = static_cast<const iface *>(avl_getnext(if_tree, stored));
    if (next == nullptr) return 0;
    const bool differs = std::strncmp(next->name, record->name, sizeof next->name) != 0;
    *record = *next;
    return differs ? 1 : 0;
}

int ravo_db_if_delete(const char *name) {
    if (if_tree == nullptr || name == nullptr) return 0;
    if (!ravo_db_if_name_fits(name)) return 1;
    const iface key = ravo_db_if_named(name);
    iface *stored = find_stored(&key);
    if (stored == nullptr) return 1;
    if (avl_remove(if_tree, stored) < 0) return 0;
    if (if_cache != nullptr && if_cache->ifindex == stored->ifindex) if_cache = nullptr;
    destroy_record(stored);
    return 1;
}

int ravo_if_del_all_if() {
    if (if_tree == nullptr) return 0;
    ravo_trace(ravo::level_trace, "%s (%d)++\n");
    iface record;
    // A record that cannot be deleted would be first for ever.
    while (ravo_db_if_get_first(&record) != 0 && ravo_db_if_delete(record.name) != 0) {
    }
    ravo_trace(ravo::level_trace, "%s (%d)--\n");
    return 0;
}

int ravo_if_ifinfo_get_by_addr(iface *out, std::uint32_t address) {
    if (if_tree == nullptr || out == nullptr) return 0;
    if (if_cache != nullptr && if_cache->if_ip == address) {
        ravo_trace(ravo::level_trace, "%s (%d):Matched interface cache %s\n", if_cache->name);
        *out = *if_cache;
        return 1;
    }
    const iface *found = find_by_address(address);
    if (found == nullptr) {
        ravo_trace(ravo::level_failure, "%s (%d): Get interface by addr failed,ip=%s\n", ravo_addr_text(address).text);
        return 0;
    }
    *out = *found;
    if_cache = found;
    ravo_trace(ravo::level_trace, "%s (%d): Get interface by addr succeed,ifindex=%d,ip=%s\n",
               static_cast<int>(found->ifindex), ravo_addr_text(address).text);
    return 1;
}

ravo_if_walk ravo_db_if_all() {
    ravo_if_walk walk;
    walk.found = ravo_db_if_get_first(&walk.record) != 0;
    return walk;
}

ravo_if_walk ravo_db_if_behind(const iface &record) {
    ravo_if_walk walk{record, true};
    ++walk;
    return walk;
}

int RAVO_IF_Fill_Info(iface *record, const struct interface *ifp) {
    if (if_tree == nullptr || record == nullptr || ifp == nullptr) return 0;
    const std::uint8_t *mac = ifp->hw_addr;
    ravo_trace(ravo::level_trace, "%s (%d): Fill interface %s information \n", record->name);
    ravo_trace(ravo::level_trace, "%s (%d): ifindex=%d, MAC Len=%d, MAC=%02X%02X.%02X%02X.%02X%02X\n",
               static_cast<int>(ifp->ifindex), static_cast<int>(ifp->hw_addr_len), mac[0], mac[1], mac[2], mac[3],
               mac[4], mac[5]);
    record->ifindex = ifp->ifindex;
    static_assert(sizeof record->if_mac == sizeof ifp->hw_addr);
    std::memcpy(record->if_mac, ifp->hw_addr, sizeof record->if_mac);
    record->if_maclen = ifp->hw_addr_len;

    // Only a primary address names the interface; without one the address stays what it was.
    for (const connected *ifc = ifp->ifc_ipv4; ifc != nullptr; ifc = ifc->next) {
        if ((ifc->flags & (NSM_IFA_SECONDARY | NSM_IFA_OTHER)) != 0) continue;
        record->if_ip = ifc->address;
        break;
    }
    return 0;
}

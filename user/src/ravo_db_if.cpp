// SPDX-License-Identifier: Apache-2.0
// The interface database.
//
// Every interface on which relaying is configured, or which came up, has one record in an ordered tree. Records are
// copied in and out whole; only the packet path reads them where they are stored, while nothing changes them. It looks
// interfaces up by number and by address, for which there are two indexes beside the tree. By address, the record that
// was found last is tried first, then what the index answered before, then the index. Several records may have one
// address (0 above all); the one that comes first in tree order is then meant, so that index is ordered by address and,
// within it, by the tree's key.
#include "ravo_db_if.h"

#include <array>
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

// A record where it is stored, behind its key, which is computed once.
struct stored_if {
    ravo_if_key key;
    iface record;
};

using address_key = std::pair<std::uint32_t, std::int16_t>;  // address (network byte order), number of the name

constexpr const char *looking_up = "ravo_if_ifinfo_get_by_addr";  // whose steps the look-ups by address are
constexpr std::uint32_t vlan_numbers = 4095;                      // VLAN ids from 1 to 4094, by their number

avl_tree *if_tree = nullptr;
const stored_if *if_cache = nullptr;  // the record that the last look-up by address found
std::map<address_key, stored_if *> address_index;
std::uint64_t address_changes = 1;  // of that index so far

// Answers of that index, the last one of those that share a place.
struct found_address {
    std::uint64_t change;  // of the index, behind which it was found; 0: none was
    std::uint32_t address;
    const stored_if *found;  // null: nobody has the address
};
constexpr unsigned found_bits = 10;
std::array<found_address, std::size_t{1} << found_bits> found_addresses;

std::array<stored_if *, vlan_numbers> vlan_index;  // records whose number is a VLAN id

stored_if *find_stored(ravo_if_key key) {
    const auto number = static_cast<std::uint32_t>(key.number);  // a negative one is large
    return number < vlan_numbers ? vlan_index[number] : static_cast<stored_if *>(avl_search(if_tree, &key));
}

stored_if *find_stored(const char *name) {
    return find_stored(ravo_db_if_key(name));
}

address_key address_key_of(const stored_if &stored) {
    return {stored.record.if_ip, stored.key.number};
}

// The first record in tree order with this address, or null.
const stored_if *search_address(std::uint32_t address) {
    const auto found = address_index.lower_bound({address, std::numeric_limits<std::int16_t>::min()});
    return found != address_index.end() && found->first.first == address ? found->second : nullptr;
}

// The same, for messages: most addresses were looked for before, and since then the index has not changed.
const stored_if *find_by_address(std::uint32_t address) {
    found_address &last = found_addresses[(address * 2654435761U) >> (32 - found_bits)];
    if (last.change != address_changes || last.address != address)
        last = {address_changes, address, search_address(address)};
    return last.found;
}

// The interface of an address: the one that was found last when it has it, others may have it, too.
const stored_if *stored_at(std::uint32_t address) {
    return if_cache != nullptr && if_cache->record.if_ip == address ? if_cache : find_by_address(address);
}

// Overwrites a stored record. Its place in the tree stays, its place in the index follows the address.
void update_stored(stored_if *stored, const iface &record) {
    const address_key before = address_key_of(*stored);
    stored->record = record;
    const address_key after = address_key_of(*stored);
    if (before == after) return;
    ++address_changes;
    auto node = address_index.extract(before);
    node.key() = after;
    address_index.insert(std::move(node));
}

// Allocates a record and enters it into the index by address. Returns null when memory is used up.
stored_if *create_record(const iface &record) {
    auto *created = static_cast<stored_if *>(mfh_calloc(1, sizeof(stored_if)));
    if (created == nullptr) return nullptr;
    created->key = ravo_db_if_key(record.name);
    created->record = record;
    ++address_changes;
    try {
        address_index.emplace(address_key_of(*created), created);
    } catch (const std::bad_alloc &) {
        memmgr_free(created);
        return nullptr;
    }
    return created;
}

void destroy_record(stored_if *stored) {
    ++address_changes;
    address_index.erase(address_key_of(*stored));
    memmgr_free(stored);
}

// Notes in the index of VLAN ids who has a number now, null for nobody.
void note_owner(ravo_if_key key, stored_if *owner) {
    const auto number = static_cast<std::uint32_t>(key.number);
    if (number < vlan_numbers) vlan_index[number] = owner;
}

// Takes a record out of the tree and frees it. Returns false when the tree keeps it.
bool take_out(stored_if *stored) {
    if (avl_remove(if_tree, stored) < 0) return false;
    note_owner(stored->key, nullptr);
    if (if_cache != nullptr && if_cache->record.ifindex == stored->record.ifindex) if_cache = nullptr;
    destroy_record(stored);
    return true;
}

stored_if *first_stored() {
    return static_cast<stored_if *>(avl_first(if_tree));
}

}  // namespace

// deliberate: names that end in the same number are the same key, for the interfaces served are VLAN interfaces. A name
// that does not end in a digit has number 0.
ravo_if_key ravo_db_if_key(const char *name) {
    std::uint16_t number = 0;
    for (int i = 0; i < RAVO_NAME_SIZE && name[i] != '\0'; ++i) {
        const bool digit = name[i] >= '0' && name[i] <= '9';
        number = digit ? static_cast<std::uint16_t>(number * 10u + static_cast<unsigned>(name[i] - '0'))
                       : static_cast<std::uint16_t>(0);
    }
    return {.number = static_cast<std::int16_t>(number)};
}

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
    while (stored_if *stored = first_stored())
        if (!take_out(stored)) break;
    avl_destroy(if_tree);
    if_tree = nullptr;
    if_cache = nullptr;
    ++address_changes;
    address_index.clear();
    vlan_index.fill(nullptr);
}

bool ravo_db_if_tree_exists() {
    return if_tree != nullptr;
}

int ravo_db_if_compare(const void *a, const void *b) {
    if (a == nullptr || b == nullptr) return -1;
    const std::int16_t first = static_cast<const ravo_if_key *>(a)->number;
    const std::int16_t second = static_cast<const ravo_if_key *>(b)->number;
    if (first == second) return 0;
    return first > second ? 1 : -1;
}

int ravo_db_if_add(const iface *record) {
    if (if_tree == nullptr || record == nullptr) return 0;
    if (stored_if *stored = find_stored(record->name)) {
        update_stored(stored, *record);
        return 1;
    }
    stored_if *created = create_record(*record);
    if (created == nullptr) return 0;
    // deliberate: an add counts as done whatever the tree answers; a record that it refused must not linger, though.
    if (avl_insert(if_tree, created) < 0)
        destroy_record(created);
    else
        note_owner(created->key, created);
    return 1;
}

int ravo_db_if_get(iface *record) {
    if (if_tree == nullptr || record == nullptr) return 0;
    const stored_if *stored = find_stored(record->name);
    if (stored == nullptr) return 0;
    *record = stored->record;
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
    const stored_if *first = first_stored();
    if (first == nullptr) return 0;
    *record = first->record;
    return 1;
}

int ravo_db_if_get_next(iface *record) {
    if (if_tree == nullptr || record == nullptr) return 0;
    const stored_if *stored = find_stored(record->name);
    if (stored == nullptr) return 0;
    const auto *next = static_cast<const stored_if *>(avl_getnext(if_tree, stored));
    if (next == nullptr) return 0;
    const bool differs = std::strncmp(next->record.name, record->name, sizeof record->name) != 0;
    *record = next->record;
    return differs ? 1 : 0;
}

int ravo_db_if_go_on(iface *record) {
    if (if_tree == nullptr || record == nullptr) return 0;
    const ravo_if_key key = ravo_db_if_key(record->name);
    const auto *next = static_cast<const stored_if *>(avl_getnext(if_tree, &key));
    if (next == nullptr) return 0;
    *record = next->record;
    return 1;
}

int ravo_db_if_delete(const char *name) {
    if (if_tree == nullptr || name == nullptr) return 0;
    if (!ravo_db_if_name_fits(name)) return 1;
    stored_if *stored = find_stored(name);
    return stored == nullptr || take_out(stored) ? 1 : 0;
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

const iface *ravo_db_if_view(std::uint32_t ifindex) {
    if (if_tree == nullptr) return nullptr;
    const std::uint32_t vlan = ifindex - IF_UTL_VLAN_BASE;
    // A VLAN interface's name ends in its VLAN id; any other number has to be asked for its name.
    const bool is_vlan = vlan >= 1 && vlan < vlan_numbers;
    const stored_if *stored = is_vlan ? vlan_index[vlan] : find_stored(ravo_db_if_numbered(ifindex).name);
    return stored == nullptr ? nullptr : &stored->record;
}

const iface *ravo_db_if_at(std::uint32_t address) {
    const stored_if *found = if_tree == nullptr ? nullptr : stored_at(address);
    return found == nullptr ? nullptr : &found->record;
}

const iface *ravo_if_view_by_addr(std::uint32_t address) {
    if (if_tree == nullptr) return nullptr;
    const stored_if *found = stored_at(address);
    if (found == nullptr) {
        ravo_trace_as(looking_up, ravo::level_failure, "%s (%d): Get interface by addr failed,ip=%s\n",
                      ravo_addr_text(address).text);
        return nullptr;
    }
    if (found == if_cache) {
        ravo_trace_as(looking_up, ravo::level_trace, "%s (%d):Matched interface cache %s\n", found->record.name);
        return &found->record;
    }
    if_cache = found;
    ravo_trace_as(looking_up, ravo::level_trace, "%s (%d): Get interface by addr succeed,ifindex=%d,ip=%s\n",
                  static_cast<int>(found->record.ifindex), ravo_addr_text(address).text);
    return &found->record;
}

int ravo_if_ifinfo_get_by_addr(iface *out, std::uint32_t address) {
    if (out == nullptr) return 0;
    const iface *found = ravo_if_view_by_addr(address);
    if (found == nullptr) return 0;
    *out = *found;
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

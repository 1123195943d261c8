// SPDX-License-Identifier: Apache-2.0
// The promises of the boundary's headers that need neither an event loop nor a network, one function a service.
#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>

#include "cli.h"
#include "if_utl.h"
#include "memmgr.h"
#include "osal.h"
#include "ravo_conformance.h"
#include "report.h"

namespace {

using conformance::expect;

// ---- Memory ----

void try_memory() {
    constexpr std::size_t size = 4096;
    auto *memory = static_cast<std::uint8_t *>(mfh_calloc(2, size / 2));
    expect(memory != nullptr, "mfh_calloc", "gives no memory for 4096 bytes");
    if (memory == nullptr) return;
    expect(std::all_of(memory, memory + size, [](std::uint8_t byte) { return byte == 0; }), "mfh_calloc",
           "memory is not zeroed");
    expect(reinterpret_cast<std::uintptr_t>(memory) % alignof(std::max_align_t) == 0, "mfh_calloc",
           "memory is not aligned for every type");
    std::memset(memory, 0xA5, size);
    memmgr_free(memory);
    memmgr_free(nullptr);
    volatile std::size_t half = std::numeric_limits<std::size_t>::max() / 2 + 1;
    expect(mfh_calloc(half, 2) == nullptr, "mfh_calloc", "a product that overflows gives memory");
}

// ---- Ordered trees ----

struct record {
    std::int32_t key;
    std::int32_t value;
};

int compare(const void *a, const void *b) {
    const std::int32_t first = static_cast<const record *>(a)->key;
    const std::int32_t second = static_cast<const record *>(b)->key;
    return first == second ? 0 : first < second ? -1000 : 1000;  // only the sign counts
}

constexpr std::int32_t records = 1000;
std::array<record, records> stored;

// Walks the tree. Returns whether it holds the keys from 0 on, each once, that `wanted` asks for.
template <typename Wanted>
bool holds(avl_tree *tree, Wanted wanted) {
    auto *at = static_cast<record *>(avl_first(tree));
    for (std::int32_t key = 0; key < records; ++key) {
        if (!wanted(key)) continue;
        if (at == nullptr || at->key != key) return false;
        at = static_cast<record *>(avl_getnext(tree, at));
    }
    return at == nullptr;
}

void try_empty_tree(avl_tree *tree) {
    const record key{1, 0};
    expect(avl_first(tree) == nullptr, "avl_first", "an empty tree has a first record");
    expect(avl_search(tree, &key) == nullptr, "avl_search", "an empty tree has a record");
    expect(avl_remove(tree, &key) == -1, "avl_remove", "taking out what is not there is no failure");
}

void fill(avl_tree *tree) {
    bool taken = true;
    for (std::int32_t i = 0; i < records; ++i) {
        const std::int32_t key = i * 617 % records;  // in no order
        stored[static_cast<std::size_t>(key)] = {key, i};
        taken = avl_insert(tree, &stored[static_cast<std::size_t>(key)]) == 0 && taken;
    }
    expect(taken, "avl_insert", "refuses a record with a new key");
    expect(holds(tree, [](std::int32_t) { return true; }), "avl_getnext", "a walk does not meet every record in order");
}

void try_full_tree(avl_tree *tree) {
    record twin{records / 2, -1};
    expect(avl_insert(tree, &twin) == -1, "avl_insert", "takes a second record of the same key");
    expect(avl_search(tree, &twin) == &stored[records / 2], "avl_search", "does not find the stored record by its key");
    bool removed = true;
    for (std::int32_t key = 0; key < records; key += 2) {
        const record even{key, -1};
        removed = avl_remove(tree, &even) == 0 && removed;
    }
    expect(removed, "avl_remove", "does not take a record out by its key");
    expect(holds(tree, [](std::int32_t key) { return key % 2 == 1; }), "avl_remove",
           "what stays is not whole and in order");
}

void try_limit() {
    avl_tree *tree = avl_create(1, compare);
    if (tree == nullptr) return;
    stored[0] = {0, 0};
    stored[1] = {1, 0};
    expect(avl_insert(tree, &stored[0]) == 0 && avl_insert(tree, &stored[1]) == -1, "avl_create",
           "the most records that a tree takes are not kept to");
    avl_destroy(tree);
}

void try_trees() {
    avl_tree *tree = avl_create(0, compare);
    expect(tree != nullptr, "avl_create", "gives no tree");
    if (tree == nullptr) return;
    try_empty_tree(tree);
    fill(tree);
    try_full_tree(tree);
    avl_destroy(tree);
    avl_destroy(nullptr);
    try_limit();
}

// ---- Interface names ----

void try_names() {
    bool there = true;
    bool back = true;
    for (std::uint32_t vlan = 1; vlan <= 4094; ++vlan) {
        std::array<char, IF_UTL_NAME_SIZE> name{};
        back = if_utl_ifindex_to_ifname(IF_UTL_VLAN_BASE + vlan, name.data()) == 1 && back;
        there = if_utl_ifname_to_ifindex(name.data()) == IF_UTL_VLAN_BASE + vlan && there;
    }
    expect(back, "if_utl_ifindex_to_ifname", "1024 + VLAN id is not always a VLAN interface's number");
    expect(there, "if_utl_ifname_to_ifindex", "a VLAN interface's name does not give its number back");
    expect(if_utl_ifname_to_ifindex("vlan10") == IF_UTL_VLAN_BASE + 10, "if_utl_ifname_to_ifindex",
           "vlan10 is not 1034");
    expect(if_utl_ifname_to_ifindex("no such name") == 0, "if_utl_ifname_to_ifindex", "an unknown name has a number");
    std::array<char, IF_UTL_NAME_SIZE> name;
    name.fill('x');
    expect(if_utl_ifindex_to_ifname(0, name.data()) == 0 && name[0] == '\0', "if_utl_ifindex_to_ifname",
           "number 0 has a name, or the name is not emptied");
}

// ---- Numbers in commands ----

void expect_number(const char *text, int ok, int number, const char *what) {
    int found = -1;
    const int result = cmd_str2int(text, &found);
    expect(found == ok && result == number, "cmd_str2int", what);
}

void try_numbers() {
    expect_number("4094", 1, 4094, "4094 is not read");
    expect_number("-1", 1, -1, "-1 is not read");
    expect_number("2147483647", 1, 2147483647, "the largest number is not read");
    expect_number("2147483648", 0, 0, "a number above 32 bits is not refused");
    expect_number("10x", 0, 0, "text behind a number is not refused");
    expect_number("", 0, 0, "an empty text is not refused");
}

// ---- Timers ----

void never(void *) {
    expect(false, "OSAL_ZEBOS_Delete_Timer", "a deleted timer fires");
}

void try_timers() {
    osal_timer timer{};
    OSAL_ZEBOS_Delete_Timer(&timer);
    expect(timer.armed == 0, "OSAL_ZEBOS_Delete_Timer", "a timer that was not armed is armed now");
    for (int turn = 0; turn < 2; ++turn)  // the second replaces the first
        expect(OSAL_ZEBOS_Create_Sec_Once_Timer(&timer, "conformance", never, 3600, 1, nullptr) == 0,
               "OSAL_ZEBOS_Create_Sec_Once_Timer", "refuses a timer");
    expect(timer.armed != 0, "OSAL_ZEBOS_Create_Sec_Once_Timer", "does not set the armed mark");
    OSAL_ZEBOS_Delete_Timer(&timer);
    expect(timer.armed == 0, "OSAL_ZEBOS_Delete_Timer", "does not clear the armed mark");
}

}  // namespace

int ravo_conformance(ravo_conformance_fault fault) {
    conformance::begin(fault);
    try_memory();
    try_trees();
    try_names();
    try_numbers();
    try_timers();
    return conformance::faults();
}

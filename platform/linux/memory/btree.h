// SPDX-License-Identifier: Apache-2.0
// An ordered tree of pointers to records, by the daemon's comparator: a B-tree, whose nodes hold many pointers side by
// side. A million records so cost 18 bytes each, and a look-up touches few lines of memory.
//
// The tree remembers where it was last: whoever looks for a record, puts in or takes out the one just looked for, or
// walks from one to the next, is there already.
#ifndef PLATFORM_LINUX_MEMORY_BTREE_H
#define PLATFORM_LINUX_MEMORY_BTREE_H

#include <array>
#include <cstddef>
#include <cstdint>

#include "memmgr.h"

namespace ravo::platform {

struct btree_node;

// A way from the root: at each level the node and the place in it. The last one is where a record is, or where it would
// have to be.
struct btree_way {
    struct step {
        btree_node *node = nullptr;
        unsigned place = 0;
    };
    static constexpr unsigned most_levels = 12;  // more than any memory has room for
    std::array<step, most_levels> steps{};
    unsigned levels = 0;  // 0: nowhere
    bool found = false;
};

struct btree {
    avl_compare compare = nullptr;
    btree_node *root = nullptr;
    std::size_t records = 0;
    unsigned misguesses = 0;  // of the order by the records' first bytes
    btree_way last{};
};

// The record with key's key, or NULL.
void *btree_search(btree &tree, const void *key);
// Puts in a record. Returns 0; -1 when there is one of its key or memory is used up (then nothing has changed).
int btree_insert(btree &tree, void *record);
// Takes out the record with key's key. Returns 0, or -1 when there is none.
int btree_remove(btree &tree, const void *key);
// The first record, or NULL; the first one behind key's key, or NULL.
void *btree_first(btree &tree);
void *btree_next(btree &tree, const void *key);
// Takes out all records and frees the nodes.
void btree_clear(btree &tree);

// Tells whether the tree is as it has to be: in order, its nodes filled, all leaves at one level. For tests.
bool btree_is_sound(const btree &tree);

}  // namespace ravo::platform

#endif

// SPDX-License-Identifier: Apache-2.0
// Ordered trees. Their nodes come out of the same budget as the records, so that a tree that cannot grow is reported
// like any other lack of memory.
#include <cstddef>
#include <new>

#include "memmgr.h"
#include "memory/btree.h"

struct avl_tree {
    std::size_t max_nodes;  // 0: no limit
    ravo::platform::btree records;
};

struct avl_tree *avl_create(std::size_t max_nodes, avl_compare compare) {
    void *memory = mfh_calloc(1, sizeof(avl_tree));
    if (memory == nullptr) return nullptr;
    return new (memory) avl_tree{max_nodes, {.compare = compare}};
}

int avl_insert(struct avl_tree *tree, void *record) {
    if (tree->max_nodes != 0 && tree->records.records >= tree->max_nodes) return -1;
    return btree_insert(tree->records, record);
}

void *avl_search(struct avl_tree *tree, const void *key) {
    return btree_search(tree->records, key);
}

int avl_remove(struct avl_tree *tree, const void *key) {
    return btree_remove(tree->records, key);
}

void *avl_first(struct avl_tree *tree) {
    return btree_first(tree->records);
}

void *avl_getnext(struct avl_tree *tree, const void *record) {
    return btree_next(tree->records, record);
}

void avl_destroy(struct avl_tree *tree) {
    if (tree == nullptr) return;
    btree_clear(tree->records);
    memmgr_free(tree);
}

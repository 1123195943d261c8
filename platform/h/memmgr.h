// SPDX-License-Identifier: Apache-2.0
// Ordered trees and memory.
//
// The platform provides both. A tree holds pointers to records that belong to the daemon; the tree never
// frees or copies a record. The daemon provides the comparator.
#ifndef PLATFORM_MEMMGR_H
#define PLATFORM_MEMMGR_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

// Allocates count * size zeroed bytes. Returns NULL when memory, or the platform's budget for the daemon,
// is used up, or when the product overflows. Free with memmgr_free.
void *mfh_calloc(size_t count, size_t size);

// Frees what mfh_calloc returned; NULL is allowed.
void memmgr_free(void *memory);

struct avl_tree;

// Compares two records by key: negative, 0 or positive as a sorts before, with or after b. Only the sign
// counts. It must stay a strict order over the records in the tree, whose keys do not change while there.
// A record is at least four bytes long, which the platform may read to look for it where it probably is.
typedef int (*avl_compare)(const void *a, const void *b);

// Creates an empty tree. max_nodes: most records it takes, 0 for no limit. Returns NULL when memory is used
// up. Trees live as long as the process; avl_destroy exists for tests and shutdown.
struct avl_tree *avl_create(size_t max_nodes, avl_compare compare);

// Inserts a record. Returns 0; -1 when a record of the same key is there, the limit is reached or memory is
// used up (the tree is then unchanged).
int avl_insert(struct avl_tree *tree, void *record);

// Returns the stored record whose key equals that of key, or NULL. key: a record with its key set.
void *avl_search(struct avl_tree *tree, const void *key);

// Takes the record with key's key out of the tree, without freeing it. Returns 0, or -1 when there is none.
int avl_remove(struct avl_tree *tree, const void *key);

// Returns the record that sorts first, or NULL when the tree is empty.
void *avl_first(struct avl_tree *tree);

// Returns the first record behind the given one in the order of keys, or NULL when there is none. record: a stored
// record, or any other with a key, such as a copy of one that has been removed since.
void *avl_getnext(struct avl_tree *tree, const void *record);

// Frees the tree, not its records; NULL is allowed.
void avl_destroy(struct avl_tree *tree);

#ifdef __cplusplus
}
#endif

#endif

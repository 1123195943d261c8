// SPDX-License-Identifier: Apache-2.0
// Blocks are counted, so that a test can tell what was not given back; trees are ordered sets with the daemon's
// comparator.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <new>
#include <set>

#include "fake_memory.h"
#include "fake_script.h"
#include "fake_timer.h"
#include "memmgr.h"

namespace fake {

std::size_t memory_budget = std::numeric_limits<std::size_t>::max();

namespace {

std::map<void *, std::size_t> blocks;
std::size_t used = 0;
std::size_t trees = 0;
std::size_t wrong_frees = 0;

struct by_key {
    avl_compare compare;
    bool operator()(const void *a, const void *b) const { return compare(a, b) < 0; }
};

// A platform may read four bytes of every record and key: a sanitizer reports one that is shorter.
std::uint32_t beginning_of(const void *key) {
    std::uint32_t beginning = 0;
    std::memcpy(&beginning, key, sizeof beginning);
    return beginning;
}

}  // namespace

std::size_t memory_used() {
    return used;
}
std::size_t blocks_used() {
    return blocks.size();
}
std::size_t trees_used() {
    return trees;
}
std::size_t bad_frees() {
    return wrong_frees;
}

void reset_memory() {
    for (const auto &[memory, size] : blocks) std::free(memory);
    blocks.clear();
    used = 0;
    wrong_frees = 0;
    memory_budget = std::numeric_limits<std::size_t>::max();
}

}  // namespace fake

struct avl_tree {
    std::size_t max_nodes;
    std::set<const void *, fake::by_key> records;
};

void *mfh_calloc(std::size_t count, std::size_t size) {
    if (fake::scripted(fake::op::calloc)) return nullptr;
    if (size != 0 && count > fake::memory_budget / size) return nullptr;
    if (fake::used > fake::memory_budget - count * size) return nullptr;
    void *memory = std::calloc(count, size);
    if (memory == nullptr) return nullptr;
    fake::blocks.emplace(memory, count * size);
    fake::used += count * size;
    return memory;
}

void memmgr_free(void *memory) {
    if (memory == nullptr) return;
    const auto block = fake::blocks.find(memory);
    if (block == fake::blocks.end()) {
        ++fake::wrong_frees;
        return;
    }
    if (fake::timer_within(memory, block->second)) ++fake::wrong_frees;
    fake::used -= block->second;
    fake::blocks.erase(block);
    std::free(memory);
}

avl_tree *avl_create(std::size_t max_nodes, avl_compare compare) {
    if (fake::scripted(fake::op::avl_create)) return nullptr;
    ++fake::trees;
    return new avl_tree{max_nodes, std::set<const void *, fake::by_key>(fake::by_key{compare})};
}

int avl_insert(avl_tree *tree, void *record) {
    if (const auto result = fake::scripted(fake::op::avl_insert)) return *result;
    if (tree->max_nodes != 0 && tree->records.size() >= tree->max_nodes) return -1;
    return tree->records.insert(record).second ? 0 : -1;
}

void *avl_search(avl_tree *tree, const void *key) {
    (void)fake::beginning_of(key);
    const auto found = tree->records.find(key);
    return found == tree->records.end() ? nullptr : const_cast<void *>(*found);
}

int avl_remove(avl_tree *tree, const void *key) {
    if (const auto result = fake::scripted(fake::op::avl_remove)) return *result;
    (void)fake::beginning_of(key);
    return tree->records.erase(key) == 1 ? 0 : -1;
}

void *avl_first(avl_tree *tree) {
    return tree->records.empty() ? nullptr : const_cast<void *>(*tree->records.begin());
}

void *avl_getnext(avl_tree *tree, const void *record) {
    (void)fake::beginning_of(record);
    const auto next = tree->records.upper_bound(record);
    return next == tree->records.end() ? nullptr : const_cast<void *>(*next);
}

void avl_destroy(avl_tree *tree) {
    if (tree == nullptr) return;
    --fake::trees;
    delete tree;
}

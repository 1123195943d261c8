// Ordered trees: a standard set of pointers that sorts by the daemon's comparator. Its nodes come out of the same
// budget as the records, so that a tree that cannot grow is reported like any other lack of memory; no exception leaves
// here.
#include <cstddef>
#include <new>
#include <set>

#include "memmgr.h"

namespace {

// Orders records by key. The keys of look-ups are constant records, hence transparent.
struct by_key {
    using is_transparent = void;
    avl_compare compare;
    bool operator()(const void *a, const void *b) const { return compare(a, b) < 0; }
};

// Allocates through the counted memory.
template <typename T>
struct counted_allocator {
    using value_type = T;
    counted_allocator() = default;
    template <typename U>
    explicit counted_allocator(const counted_allocator<U> & /*other*/) {}
    T *allocate(std::size_t count) {
        void *memory = mfh_calloc(count, sizeof(T));
        if (memory == nullptr) throw std::bad_alloc();
        return static_cast<T *>(memory);
    }
    void deallocate(T *memory, std::size_t /*count*/) { memmgr_free(memory); }
    bool operator==(const counted_allocator & /*other*/) const { return true; }
};

}  // namespace

struct avl_tree {
    std::size_t max_nodes;  // 0: no limit
    std::set<void *, by_key, counted_allocator<void *>> records;
};

struct avl_tree *avl_create(std::size_t max_nodes, avl_compare compare) {
    void *memory = mfh_calloc(1, sizeof(avl_tree));
    if (memory == nullptr) return nullptr;
    return new (memory) avl_tree{max_nodes, decltype(avl_tree::records)(by_key{compare})};
}

int avl_insert(struct avl_tree *tree, void *record) {
    if (tree->max_nodes != 0 && tree->records.size() >= tree->max_nodes) return -1;
    try {
        return tree->records.insert(record).second ? 0 : -1;
    } catch (const std::bad_alloc &) {
        return -1;
    }
}

void *avl_search(struct avl_tree *tree, const void *key) {
    const auto found = tree->records.find(key);
    return found == tree->records.end() ? nullptr : *found;
}

int avl_remove(struct avl_tree *tree, const void *key) {
    const auto found = tree->records.find(key);
    if (found == tree->records.end()) return -1;
    tree->records.erase(found);
    return 0;
}

void *avl_first(struct avl_tree *tree) {
    return tree->records.empty() ? nullptr : *tree->records.begin();
}

void *avl_getnext(struct avl_tree *tree, const void *record) {
    const auto next = tree->records.upper_bound(record);
    return next == tree->records.end() ? nullptr : *next;
}

void avl_destroy(struct avl_tree *tree) {
    if (tree == nullptr) return;
    tree->~avl_tree();
    memmgr_free(tree);
}

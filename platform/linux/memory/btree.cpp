// SPDX-License-Identifier: Apache-2.0
// As in the books (Knuth, The Art of Computer Programming 6.2.4): a node but the root holds between half and all of its
// capacity, and all leaves are at the same depth. Going down notes the way; putting in and taking out go back up along
// it as far as nodes are split or joined. All nodes that splitting needs are taken before anything is changed.
//
// Among a million records most of the time of a look-up is waiting for memory, one comparison after the other. So nodes
// hold the first four bytes of each record beside its pointer, and the way down is guessed by them, as if records were
// ordered by these bytes taken as a number. Where the guess ends the comparator is asked about the neighbours: only it
// decides. Records that have another order are found by the comparator alone, once some guesses were wrong.
#include "memory/btree.h"

#include <algorithm>
#include <cstring>

#include "memory/memmgr_block.h"

namespace ravo::platform {

namespace {

constexpr unsigned capacity = 41;
constexpr unsigned least = capacity / 2;         // but in the root
constexpr unsigned guesses_held = capacity + 3;  // a multiple of four, compared four at a time
constexpr std::size_t leaf_size = 512;
constexpr std::size_t inner_size = 1024;
constexpr unsigned most_misguesses = 32;
constexpr std::int32_t no_guess = INT32_MAX;  // behind the last record

}  // namespace

struct btree_node {
    std::uint32_t count;
    std::uint32_t level;  // 0: a leaf
    std::int32_t guesses[guesses_held];
    void *records[capacity];
    // Of a leaf the memory ends here.
    btree_node *children[capacity + 1];
};

namespace {

static_assert(offsetof(btree_node, children) <= leaf_size);
static_assert(sizeof(btree_node) <= inner_size);

btree_node *take_node(std::uint32_t level) {
    auto *node = static_cast<btree_node *>(memmgr_take_node(level == 0 ? leaf_size : inner_size));
    if (node == nullptr) return nullptr;
    node->count = 0;
    node->level = level;
    std::fill(std::begin(node->guesses), std::end(node->guesses), no_guess);
    return node;
}

// In the order of the bytes as a number, shifted so that it has a sign: processors compare such ones many at a time.
std::int32_t guess_of(const void *record) {
    std::uint32_t bytes;
    std::memcpy(&bytes, record, sizeof bytes);
    return static_cast<std::int32_t>(bytes ^ 0x80000000U);
}

// ---- Looking ----

// The place of a key in a node, of its record or of the first one behind, by comparing.
unsigned place_in(const btree &tree, const btree_node &node, const void *key, bool *found) {
    unsigned from = 0;
    unsigned count = node.count;
    while (count > 0) {
        const unsigned middle = count / 2;
        const int order = tree.compare(node.records[from + middle], key);
        if (order == 0) {
            *found = true;
            return from + middle;
        }
        if (order < 0) {
            from += middle + 1;
            count -= middle + 1;
        } else {
            count = middle;
        }
    }
    return from;
}

void go_down_comparing(btree &tree, const void *key) {
    btree_way &way = tree.last;
    way.levels = 0;
    way.found = false;
    for (btree_node *node = tree.root; node != nullptr;) {
        const unsigned place = place_in(tree, *node, key, &way.found);
        way.steps[way.levels++] = {node, place};
        if (way.found || node->level == 0) return;
        node = node->children[place];
    }
}

// The number of records in a node that a guess is behind. Of three parts, which overlap, one is looked at whole.
unsigned guess_place(const btree_node &node, std::int32_t guess) {
    constexpr unsigned part = 16;
    constexpr unsigned last = guesses_held - part;
    const unsigned upper = node.guesses[2 * part - 1] < guess ? last : part;
    const unsigned from = node.guesses[part - 1] < guess ? upper : 0;
    const std::int32_t *guesses = node.guesses + from;
    std::int32_t less = 0;
    for (unsigned at = 0; at < part; ++at) less += guesses[at] < guess ? 1 : 0;
    return std::min(from + static_cast<unsigned>(less), node.count);
}

void ask_for_guesses(const btree_node *node) {
    for (std::size_t at = 0; at < offsetof(btree_node, records); at += 64)
        __builtin_prefetch(reinterpret_cast<const unsigned char *>(node) + at);
}

// Follows the guesses, to a record with the key's own or to a leaf.
void go_down_guessing(btree &tree, const void *key) {
    const std::int32_t guess = guess_of(key);
    btree_way &way = tree.last;
    way.levels = 0;
    way.found = false;
    for (btree_node *node = tree.root; node != nullptr;) {
        const unsigned place = guess_place(*node, guess);
        way.steps[way.levels++] = {node, place};
        way.found = place < node->count && node->guesses[place] == guess;
        if (way.found || node->level == 0) return;
        node = node->children[place];
        ask_for_guesses(node);
    }
}

void *record_at(const btree_way &way) {
    const btree_way::step &here = way.steps[way.levels - 1];
    return here.node->records[here.place];
}

// The record before (or behind) the place that the way leads to, which is in a leaf; NULL when there is none.
void *neighbour(const btree_way &way, bool behind) {
    for (unsigned level = way.levels; level-- > 0;) {
        const btree_way::step &step = way.steps[level];
        if (behind ? step.place < step.node->count : step.place > 0)
            return step.node->records[behind ? step.place : step.place - 1];
    }
    return nullptr;
}

// Tells whether the way leads to a gap in which a key belongs.
bool leads_to_gap_for(const btree &tree, const void *key) {
    const btree_way &way = tree.last;
    if (way.levels == 0 || way.found) return false;
    const btree_way::step &end = way.steps[way.levels - 1];
    const bool within = end.place > 0 && end.place < end.node->count;  // as mostly
    const void *before = within ? end.node->records[end.place - 1] : neighbour(way, false);
    const void *behind = within ? end.node->records[end.place] : neighbour(way, true);
    __builtin_prefetch(behind);
    return (before == nullptr || tree.compare(before, key) < 0) && (behind == nullptr || tree.compare(behind, key) > 0);
}

bool leads_to_record_of(const btree &tree, const void *key) {
    if (tree.last.levels == 0 || !tree.last.found) return false;
    const void *record = record_at(tree.last);
    return record == key || tree.compare(record, key) == 0;
}

// Makes the way lead to a key, or to where it would be.
void go_down(btree &tree, const void *key) {
    if (tree.misguesses < most_misguesses) {
        go_down_guessing(tree, key);
        if (tree.root == nullptr || leads_to_record_of(tree, key) || leads_to_gap_for(tree, key)) return;
        ++tree.misguesses;
    }
    go_down_comparing(tree, key);
}

void lead_to(btree &tree, const void *key) {
    if (!leads_to_record_of(tree, key)) go_down(tree, key);
}

void go_down_first(btree_way &way, btree_node *node) {
    for (;;) {
        way.steps[way.levels++] = {node, 0};
        if (node->level == 0) return;
        node = node->children[0];
    }
}

// Makes the way lead to the record behind the one it leads to, or behind the gap. Returns it, or NULL at the end.
void *go_on(btree_way &way) {
    btree_way::step &here = way.steps[way.levels - 1];
    if (way.found) {
        ++here.place;
        if (here.node->level != 0) go_down_first(way, here.node->children[here.place]);
    }
    while (way.levels > 0 && way.steps[way.levels - 1].place == way.steps[way.levels - 1].node->count) --way.levels;
    way.found = way.levels != 0;
    return way.found ? record_at(way) : nullptr;
}

// ---- Putting in ----

template <typename Element>
void make_gap(Element *elements, unsigned count, unsigned place) {
    std::copy_backward(elements + place, elements + count, elements + count + 1);
}

template <typename Element>
void close_gap(Element *elements, unsigned count, unsigned place) {
    std::copy(elements + place + 1, elements + count, elements + place);
}

void put_record(btree_node &node, unsigned place, void *record) {
    make_gap(node.records, node.count, place);
    make_gap(node.guesses, node.count, place);
    node.records[place] = record;
    node.guesses[place] = guess_of(record);
    ++node.count;
}

void take_record(btree_node &node, unsigned place) {
    close_gap(node.records, node.count, place);
    close_gap(node.guesses, node.count, place);
    node.guesses[--node.count] = no_guess;
}

// Puts a record of one node in the place of one of another.
void copy_record(btree_node &to, unsigned place, const btree_node &from, unsigned from_place) {
    to.records[place] = from.records[from_place];
    to.guesses[place] = from.guesses[from_place];
}

// Appends what is in a node from a place on.
void append_records(btree_node &to, const btree_node &from, unsigned place) {
    std::copy(from.records + place, from.records + from.count, to.records + to.count);
    std::copy(from.guesses + place, from.guesses + from.count, to.guesses + to.count);
    if (to.level != 0) std::copy(from.children + place, from.children + from.count + 1, to.children + to.count);
    to.count += from.count - place;
}

// Puts a record into a node with room, with the child that belongs behind it.
void put_into(btree_node &node, unsigned place, void *record, btree_node *child) {
    if (node.level != 0) {
        make_gap(node.children, node.count + 1, place + 1);
        node.children[place + 1] = child;
    }
    put_record(node, place, record);
}

// Moves what is behind the middle of a full node to a new one.
void halve(btree_node &full, btree_node &upper) {
    constexpr unsigned middle = capacity / 2;
    append_records(upper, full, middle + 1);
    full.count = middle;
    std::fill(full.guesses + middle, std::end(full.guesses), no_guess);
}

// The nodes that splitting takes.
struct fresh_nodes {
    std::array<btree_node *, btree_way::most_levels> nodes;
    unsigned count = 0;
};

void give_back(fresh_nodes &fresh) {
    while (fresh.count > 0) memmgr_give_node(fresh.nodes[--fresh.count]);
}

bool take_one(fresh_nodes &fresh, std::uint32_t level) {
    btree_node *node = take_node(level);
    if (node != nullptr) fresh.nodes[fresh.count++] = node;
    return node != nullptr;
}

// Takes a node for each full one along the way from its end, and one for a new root when all are full.
bool take_for_splits(const btree_way &way, fresh_nodes *fresh) {
    unsigned level = way.levels;
    while (level > 0 && way.steps[level - 1].node->count == capacity) {
        if (!take_one(*fresh, way.steps[level - 1].node->level)) return false;
        --level;
    }
    return level > 0 || (way.levels < way.most_levels && take_one(*fresh, way.levels));
}

void grow_root(btree &tree, btree_node *root, void *record, btree_node *upper) {
    root->children[0] = tree.root;
    put_into(*root, 0, record, upper);
    tree.root = root;
}

// Puts a record where the way ends; full nodes are split on the way up.
void put_and_split(btree &tree, void *record, fresh_nodes &fresh) {
    btree_way &way = tree.last;
    btree_node *child = nullptr;
    unsigned used = 0;
    for (unsigned level = way.levels; level-- > 0;) {
        auto [node, place] = way.steps[level];
        if (node->count < capacity) {
            put_into(*node, place, record, child);
            return;
        }
        btree_node *upper = fresh.nodes[used++];
        halve(*node, *upper);
        // The record between the halves goes up; what is put in goes to the side it belongs to.
        void *between = node->records[node->count];
        if (place <= node->count)
            put_into(*node, place, record, child);
        else
            put_into(*upper, place - node->count - 1, record, child);
        record = between;
        child = upper;
    }
    grow_root(tree, fresh.nodes[used], record, child);
}

// ---- Taking out ----

// Moves one record from a neighbour over the parent. parent.records[place] is between the two.
void borrow_from_left(btree_node &parent, unsigned place) {
    btree_node &left = *parent.children[place];
    btree_node &right = *parent.children[place + 1];
    if (right.level != 0) {
        make_gap(right.children, right.count + 1, 0);
        right.children[0] = left.children[left.count];
    }
    put_record(right, 0, parent.records[place]);
    copy_record(parent, place, left, left.count - 1);
    take_record(left, left.count - 1);
}

void borrow_from_right(btree_node &parent, unsigned place) {
    btree_node &left = *parent.children[place];
    btree_node &right = *parent.children[place + 1];
    put_record(left, left.count, parent.records[place]);
    if (left.level != 0) {
        left.children[left.count] = right.children[0];
        close_gap(right.children, right.count + 1, 0);
    }
    copy_record(parent, place, right, 0);
    take_record(right, 0);
}

// Makes one node of two and of the record between them, which leaves the parent.
void join(btree_node &parent, unsigned place) {
    btree_node &left = *parent.children[place];
    btree_node &right = *parent.children[place + 1];
    put_record(left, left.count, parent.records[place]);
    append_records(left, right, 0);
    close_gap(parent.children, parent.count + 1, place + 1);
    take_record(parent, place);
    memmgr_give_node(&right);
}

// Fills up a child that has too few records. Returns whether the parent lost one by that.
bool refill(btree_node &parent, unsigned place) {
    if (place > 0 && parent.children[place - 1]->count > least) {
        borrow_from_left(parent, place - 1);
        return false;
    }
    if (place < parent.count && parent.children[place + 1]->count > least) {
        borrow_from_right(parent, place);
        return false;
    }
    join(parent, place > 0 ? place - 1 : place);
    return true;
}

// A record of an inner node changes places with the one before it, which is in a leaf.
void move_to_leaf(btree_way &way) {
    const btree_way::step top = way.steps[way.levels - 1];
    if (top.node->level == 0) return;
    btree_node *node = top.node->children[top.place];
    while (node->level != 0) {
        way.steps[way.levels++] = {node, node->count};
        node = node->children[node->count];
    }
    way.steps[way.levels++] = {node, node->count - 1};
    copy_record(*top.node, top.place, *node, node->count - 1);
}

// The root goes when it is empty: its only child takes its place, or nothing.
void shrink_root(btree &tree) {
    btree_node *root = tree.root;
    if (root->count > 0) return;
    tree.root = root->level == 0 ? nullptr : root->children[0];
    memmgr_give_node(root);
}

void take_out(btree &tree) {
    btree_way &way = tree.last;
    move_to_leaf(way);
    const btree_way::step &leaf = way.steps[way.levels - 1];
    take_record(*leaf.node, leaf.place);
    for (unsigned level = way.levels - 1; level > 0; --level) {
        if (way.steps[level].node->count >= least) break;
        if (!refill(*way.steps[level - 1].node, way.steps[level - 1].place)) break;
    }
    shrink_root(tree);
    way.levels = 0;
}

void free_nodes(btree_node *node) {
    if (node->level != 0)
        for (unsigned at = 0; at <= node->count; ++at) free_nodes(node->children[at]);
    memmgr_give_node(node);
}

// Whether a node and all below it are sound; *before is the record that the first one has to be behind.
bool is_sound(const btree &tree, const btree_node &node, const void **before, std::size_t *records) {
    if (node.count > capacity || (&node != tree.root && node.count < least) || node.count == 0) return false;
    for (unsigned at = 0; at <= node.count; ++at) {
        if (node.level != 0) {
            const btree_node *child = node.children[at];
            if (child->level + 1 != node.level || !is_sound(tree, *child, before, records)) return false;
        }
        if (at == node.count) break;
        if (*before != nullptr && tree.compare(*before, node.records[at]) >= 0) return false;
        *before = node.records[at];
        ++*records;
    }
    return true;
}

}  // namespace

void *btree_search(btree &tree, const void *key) {
    lead_to(tree, key);
    return tree.last.found ? record_at(tree.last) : nullptr;
}

int btree_insert(btree &tree, void *record) {
    if (tree.root == nullptr) {
        tree.root = take_node(0);
        if (tree.root == nullptr) return -1;
    }
    if (!leads_to_gap_for(tree, record)) go_down(tree, record);
    if (tree.last.found) return -1;
    const btree_way::step &leaf = tree.last.steps[tree.last.levels - 1];
    if (leaf.node->count < capacity) {
        put_into(*leaf.node, leaf.place, record, nullptr);
        tree.last.found = true;
    } else {
        fresh_nodes fresh;
        if (!take_for_splits(tree.last, &fresh)) {
            give_back(fresh);
            return -1;
        }
        put_and_split(tree, record, fresh);
        tree.last.levels = 0;
    }
    ++tree.records;
    return 0;
}

int btree_remove(btree &tree, const void *key) {
    lead_to(tree, key);
    if (!tree.last.found) return -1;
    take_out(tree);
    --tree.records;
    return 0;
}

void *btree_first(btree &tree) {
    tree.last.levels = 0;
    tree.last.found = false;
    if (tree.root == nullptr) return nullptr;
    go_down_first(tree.last, tree.root);
    tree.last.found = true;
    return record_at(tree.last);
}

void *btree_next(btree &tree, const void *key) {
    lead_to(tree, key);
    return tree.last.levels == 0 ? nullptr : go_on(tree.last);
}

void btree_clear(btree &tree) {
    if (tree.root != nullptr) free_nodes(tree.root);
    tree = {.compare = tree.compare};
}

bool btree_is_sound(const btree &tree) {
    const void *before = nullptr;
    std::size_t records = 0;
    if (tree.root != nullptr && !is_sound(tree, *tree.root, &before, &records)) return false;
    return records == tree.records;
}

}  // namespace ravo::platform

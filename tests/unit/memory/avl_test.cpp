// SPDX-License-Identifier: Apache-2.0
// Ordered trees: order, limits, and what happens when memory runs out.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <memory>
#include <vector>

#include "memmgr.h"
#include "memory/memmgr_budget.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

struct record {
    int key;
    int value;
};

int by_key(const void *a, const void *b) {
    const int x = static_cast<const record *>(a)->key;
    const int y = static_cast<const record *>(b)->key;
    // Only the sign may count.
    return x == y ? 0 : (x < y ? -1000 : 7);
}

struct tree_delete {
    void operator()(avl_tree *tree) const { avl_destroy(tree); }
};
using tree_ptr = std::unique_ptr<avl_tree, tree_delete>;

tree_ptr make_tree(std::size_t limit) {
    return tree_ptr(avl_create(limit, by_key));
}

std::vector<int> keys(avl_tree *tree) {
    std::vector<int> out;
    for (void *r = avl_first(tree); r != nullptr; r = avl_getnext(tree, r))
        out.push_back(static_cast<record *>(r)->key);
    return out;
}

struct Tree : testing::Test {
    ~Tree() override {
        ravo::platform::memmgr_set_budget(0);
        EXPECT_EQ(ravo::platform::memmgr_used(), 0U) << "a node was not freed";
    }
};

TEST_F(Tree, WalksInOrderOfTheComparator) {
    const tree_ptr tree = make_tree(0);
    EXPECT_THAT(keys(tree.get()), IsEmpty());
    record records[] = {{30, 0}, {10, 0}, {20, 0}, {-5, 0}};
    for (record &r : records) EXPECT_EQ(avl_insert(tree.get(), &r), 0);
    EXPECT_THAT(keys(tree.get()), ElementsAre(-5, 10, 20, 30));
}

TEST_F(Tree, SearchFindsTheStoredRecordByAnotherWithItsKey) {
    const tree_ptr tree = make_tree(0);
    record stored{5, 1};
    ASSERT_EQ(avl_insert(tree.get(), &stored), 0);
    const record key{5, 99};
    EXPECT_EQ(avl_search(tree.get(), &key), &stored);
    const record other{6, 1};
    EXPECT_EQ(avl_search(tree.get(), &other), nullptr);
}

TEST_F(Tree, SecondRecordOfAKeyIsRefusedAndTheFirstStays) {
    const tree_ptr tree = make_tree(0);
    record first{5, 1};
    record second{5, 2};
    EXPECT_EQ(avl_insert(tree.get(), &first), 0);
    EXPECT_EQ(avl_insert(tree.get(), &second), -1);
    EXPECT_EQ(avl_search(tree.get(), &second), &first);
}

TEST_F(Tree, TakesNoMoreThanItsLimit) {
    const tree_ptr tree = make_tree(2);
    record records[] = {{1, 0}, {2, 0}, {3, 0}};
    EXPECT_EQ(avl_insert(tree.get(), &records[0]), 0);
    EXPECT_EQ(avl_insert(tree.get(), &records[1]), 0);
    EXPECT_EQ(avl_insert(tree.get(), &records[2]), -1);
    EXPECT_THAT(keys(tree.get()), ElementsAre(1, 2));
    EXPECT_EQ(avl_remove(tree.get(), &records[0]), 0);
    EXPECT_EQ(avl_insert(tree.get(), &records[2]), 0);
    EXPECT_THAT(keys(tree.get()), ElementsAre(2, 3));
}

TEST_F(Tree, RemoveTakesOutWithoutFreeing) {
    const tree_ptr tree = make_tree(0);
    record stored{5, 1};
    ASSERT_EQ(avl_insert(tree.get(), &stored), 0);
    const record key{5, 0};
    EXPECT_EQ(avl_remove(tree.get(), &key), 0);
    EXPECT_EQ(avl_remove(tree.get(), &key), -1);
    EXPECT_EQ(stored.value, 1);
    EXPECT_THAT(keys(tree.get()), IsEmpty());
}

TEST_F(Tree, GetnextGoesOnAfterTheKeyOfARecordThatWasRemoved) {
    const tree_ptr tree = make_tree(0);
    record records[] = {{1, 0}, {2, 0}, {3, 0}};
    for (record &r : records) ASSERT_EQ(avl_insert(tree.get(), &r), 0);
    ASSERT_EQ(avl_remove(tree.get(), &records[1]), 0);
    EXPECT_EQ(avl_getnext(tree.get(), &records[1]), &records[2]);
    EXPECT_EQ(avl_getnext(tree.get(), &records[2]), nullptr);
}

TEST_F(Tree, WithoutMemoryInsertFailsAndTheTreeStaysAsItWas) {
    const tree_ptr tree = make_tree(0);
    record stored{1, 0};
    ravo::platform::memmgr_set_budget(1);
    EXPECT_EQ(avl_insert(tree.get(), &stored), -1);
    EXPECT_THAT(keys(tree.get()), IsEmpty());
    ravo::platform::memmgr_set_budget(0);
    EXPECT_EQ(avl_insert(tree.get(), &stored), 0);
    EXPECT_THAT(keys(tree.get()), ElementsAre(1));
}

TEST_F(Tree, WithoutMemoryNoTreeIsMade) {
    ravo::platform::memmgr_set_budget(1);
    EXPECT_EQ(avl_create(0, by_key), nullptr);
}

TEST_F(Tree, DestroyingNothingIsAllowed) {
    avl_destroy(nullptr);
}

}  // namespace

// SPDX-License-Identifier: Apache-2.0
// The tree behind the ordered trees, against a standard map: whatever is done to it, it holds the same records in the
// same order and stays sound.
#include "memory/btree.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <vector>

#include "memory/memmgr_budget.h"

namespace {

using namespace ravo::platform;

struct record {
    std::uint32_t first;  // what the tree guesses by
    std::uint32_t key;
};

int by_key(const void *a, const void *b) {
    const std::uint32_t x = static_cast<const record *>(a)->key;
    const std::uint32_t y = static_cast<const record *>(b)->key;
    return x == y ? 0 : x < y ? -1 : 1;
}

// How a record's first bytes go with its key.
enum class guide { right, constant, wrong, reversed, half };

std::uint32_t first_of(guide how, std::uint32_t key) {
    switch (how) {
        case guide::right:
            return key;
        case guide::constant:
            return 7;
        case guide::wrong:
            return key * 2654435761U;
        case guide::reversed:
            return ~key;
        case guide::half:
            return key / 64;
    }
    return 0;
}

struct Btree : testing::TestWithParam<guide> {
    ~Btree() override {
        btree_clear(tree);
        memmgr_set_budget(0);
        EXPECT_EQ(memmgr_used(), 0U);
    }
    record make(std::uint32_t key) const { return {first_of(GetParam(), key), key}; }

    void insert(std::uint32_t key) {
        auto made = std::make_unique<record>(make(key));
        const bool is_new = !model.contains(key);
        ASSERT_EQ(btree_insert(tree, made.get()), is_new ? 0 : -1) << key;
        if (is_new) model.emplace(key, std::move(made));
    }
    void remove(std::uint32_t key) {
        const record wanted = make(key);
        ASSERT_EQ(btree_remove(tree, &wanted), model.contains(key) ? 0 : -1) << key;
        model.erase(key);
    }
    void search(std::uint32_t key) {
        const record wanted = make(key);
        const auto found = model.find(key);
        ASSERT_EQ(btree_search(tree, &wanted), found == model.end() ? nullptr : found->second.get()) << key;
    }
    void next(std::uint32_t key) {
        const record wanted = make(key);
        const auto found = model.upper_bound(key);
        ASSERT_EQ(btree_next(tree, &wanted), found == model.end() ? nullptr : found->second.get()) << key;
    }
    void check() {
        ASSERT_TRUE(btree_is_sound(tree));
        void *at = btree_first(tree);
        for (const auto &[key, expected] : model) {
            ASSERT_EQ(at, expected.get()) << key;
            at = btree_next(tree, at);
        }
        ASSERT_EQ(at, nullptr);
    }

    btree tree{.compare = by_key};
    std::map<std::uint32_t, std::unique_ptr<record>> model;
};

TEST_P(Btree, OfNothingHasNothing) {
    search(1);
    next(1);
    remove(1);
    EXPECT_EQ(btree_first(tree), nullptr);
    check();
}

TEST_P(Btree, GrowsAndShrinksInAnyOrder) {
    constexpr std::uint32_t count = 3000;
    for (std::uint32_t i = 0; i < count; ++i) insert(i);
    check();
    for (std::uint32_t i = 0; i < count; ++i) remove(i);
    check();
    for (std::uint32_t i = count; i-- > 0;) insert(i);
    check();
    for (std::uint32_t i = count; i-- > 0;) remove(i);
    check();
    EXPECT_EQ(memmgr_used(), 0U) << "an empty tree has no nodes";
    for (std::uint32_t i = 0; i < count; ++i) insert(i * 7919 % count);
    check();
    for (std::uint32_t i = 0; i < count; ++i) remove(i * 4801 % count);
    check();
}

// Keys of few values, so that what is looked for is often there, and of many.
TEST_P(Btree, DoesAsAMapDoesAtRandom) {
    std::mt19937 random(2);
    for (const std::uint32_t range : {50U, 5000U, 0xFFFFFFFFU}) {
        for (int step = 0; step < 30000; ++step) {
            const auto key = static_cast<std::uint32_t>(random() % range);
            // Times of growth and times of decline.
            const unsigned long what = random() % 100 + (step / 5000 % 2 == 0 ? 0 : 20);
            if (what < 40)
                insert(key);
            else if (what < 60)
                search(key);
            else if (what < 75)
                next(key);
            else
                remove(model.empty() || what % 2 == 0 ? key : model.begin()->first);
            if (step % 1000 == 0) check();
        }
        check();
    }
}

// As the relay does: looks for it, puts it in; looks for it, looks again, takes it out.
TEST_P(Btree, IsWhereItWasLastAndStillRight) {
    std::mt19937 random(3);
    std::vector<std::uint32_t> keys;
    for (int step = 0; step < 20000; ++step) {
        const auto key = static_cast<std::uint32_t>(random());
        search(key);
        insert(key);
        search(key);
        insert(key);
        keys.push_back(key);
        if (keys.size() < 500) continue;
        const std::uint32_t old = keys[keys.size() - 500];
        search(old);
        search(old);
        remove(old);
        search(old);
        if (step % 2000 == 0) check();
    }
}

TEST_P(Btree, GoesOnBehindWhatWasTakenOutOnTheWalk) {
    for (std::uint32_t i = 0; i < 2000; ++i) insert(i * 3);
    std::uint32_t seen = 0;
    for (void *at = btree_first(tree); at != nullptr;) {
        const record here = *static_cast<record *>(at);
        EXPECT_EQ(here.key, seen * 3);
        ++seen;
        remove(here.key);
        at = btree_next(tree, &here);
    }
    EXPECT_EQ(seen, 2000U);
    EXPECT_EQ(btree_first(tree), nullptr);
}

TEST_P(Btree, WithoutMemoryIsAsItWas) {
    std::mt19937 random(4);
    int refused = 0;
    for (int step = 0; step < 20000; ++step) {
        // Memory for what is there, and for nothing, one or two nodes more.
        memmgr_set_budget(memmgr_used() + 512 * (random() % 3) + 1);
        const auto key = static_cast<std::uint32_t>(random());
        auto made = std::make_unique<record>(make(key));
        if (btree_insert(tree, made.get()) == 0)
            model.emplace(key, std::move(made));
        else
            ++refused;
        if (step % 2000 == 0) check();
    }
    check();
    EXPECT_GT(refused, 100);
    // Taking out needs none.
    memmgr_set_budget(1);
    while (!model.empty()) remove(std::next(model.begin(), model.size() / 2)->first);
    check();
}

INSTANTIATE_TEST_SUITE_P(Guides, Btree,
                         testing::Values(guide::right, guide::constant, guide::wrong, guide::reversed, guide::half));

// First bytes that change while the record is there mislead the guesses and nothing else.
TEST(BtreeGuesses, AreOnlyGuesses) {
    btree tree{.compare = by_key};
    std::vector<record> records(5000);
    for (std::uint32_t i = 0; i < records.size(); ++i) {
        records[i] = {i, i};
        ASSERT_EQ(btree_insert(tree, &records[i]), 0);
    }
    std::mt19937 random(5);
    for (record &one : records) one.first = static_cast<std::uint32_t>(random());
    for (std::uint32_t i = 0; i < records.size(); ++i) {
        const record wanted{static_cast<std::uint32_t>(random()), i};
        ASSERT_EQ(btree_search(tree, &wanted), &records[i]);
    }
    for (std::uint32_t i = 0; i < records.size(); ++i) ASSERT_EQ(btree_remove(tree, &records[i]), 0);
    EXPECT_EQ(tree.records, 0U);
    EXPECT_EQ(tree.root, nullptr);
}

TEST(BtreeMemory, AMillionRecordsTakeLittleMore) {
    btree tree{.compare = by_key};
    std::vector<record> records(1000000);
    std::mt19937 random(6);
    for (record &one : records) {
        one.first = one.key = static_cast<std::uint32_t>(random());
        btree_insert(tree, &one);
    }
    EXPECT_LE(memmgr_used() / tree.records, 20U);
    btree_clear(tree);
    EXPECT_EQ(memmgr_used(), 0U);
}

}  // namespace

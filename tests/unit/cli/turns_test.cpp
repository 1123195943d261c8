// SPDX-License-Identifier: Apache-2.0
// Work in turns: it stands still where it may, goes on where it stood, and ends by itself, by an exception, or because
// nobody wants it any more.
#include "cli/turns.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <future>
#include <new>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

extern "C" int __lsan_is_turned_off();  // asked by the leak sanitizer

namespace {

using ravo::cli::turns_aside;
using ravo::cli::turns_begin;
using ravo::cli::turns_go_on;
using ravo::cli::turns_pause;
using ravo::cli::turns_pause_if_due;
using ravo::cli::turns_ptr;
using ravo::cli::turns_undivided;
using std::chrono::microseconds;
using testing::ElementsAre;

constexpr microseconds long_slice{60000000};

struct leaves_mark {
    std::vector<std::string> *marks;
    ~leaves_mark() { marks->push_back("cleaned up"); }
};

TEST(Turns, WorkGoesOnWhereItStood) {
    std::vector<std::string> heard;
    const turns_ptr task = turns_begin([&] {
        for (int i = 0; i < 3; ++i) {
            heard.push_back("work " + std::to_string(i));
            EXPECT_TRUE(turns_pause());
        }
    });
    EXPECT_TRUE(heard.empty()) << "nothing is done before its first turn";
    while (!turns_go_on(*task, long_slice)) heard.emplace_back("others");
    EXPECT_THAT(heard, ElementsAre("work 0", "others", "work 1", "others", "work 2", "others"));
}

TEST(Turns, OthersHaveTheirTurnsWhileWorkIsDoneAside) {
    std::promise<void> go;
    std::thread::id where;
    const turns_ptr task = turns_begin([&] {
        turns_aside([&, may = go.get_future().share()] {
            may.wait();
            where = std::this_thread::get_id();
        });
    });
    for (int turn = 0; turn < 3; ++turn) EXPECT_FALSE(turns_go_on(*task, long_slice));
    go.set_value();
    while (!turns_go_on(*task, long_slice)) std::this_thread::yield();
    EXPECT_NE(where, std::thread::id());
    EXPECT_NE(where, std::this_thread::get_id());
}

TEST(Turns, WorkAsideOfATaskThatIsGivenUpIsDoneAllTheSame) {
    std::promise<void> go, done;
    turns_ptr task = turns_begin([&] {
        turns_aside([may = go.get_future().share(), &done] {
            may.wait();
            done.set_value();
        });
    });
    EXPECT_FALSE(turns_go_on(*task, long_slice));
    task.reset();
    go.set_value();
    done.get_future().wait();
}

TEST(Turns, WithoutATaskAndUndividedNothingIsDoneAside) {
    const auto here = std::this_thread::get_id();
    std::vector<std::thread::id> where;
    const auto work = [&] { turns_aside([&] { where.push_back(std::this_thread::get_id()); }); };
    work();
    const turns_ptr task = turns_begin([&] {
        const turns_undivided whole;
        work();
    });
    EXPECT_TRUE(turns_go_on(*task, long_slice));
    EXPECT_THAT(where, ElementsAre(here, here));
}

TEST(Turns, SeveralTasksTakeTurns) {
    std::string heard;
    const auto work = [&](char name) {
        return [&heard, name] {
            for (int i = 0; i < 3; ++i, turns_pause()) heard += name;
        };
    };
    const turns_ptr a = turns_begin(work('a')), b = turns_begin(work('b'));
    bool a_done = false, b_done = false;
    while (!a_done || !b_done) {
        if (!a_done) a_done = turns_go_on(*a, long_slice);
        if (!b_done) b_done = turns_go_on(*b, long_slice);
    }
    EXPECT_EQ(heard, "ababab");
}

TEST(Turns, ATurnLastsItsTime) {
    const turns_ptr task = turns_begin([] {
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(30);
        while (std::chrono::steady_clock::now() < end) turns_pause_if_due();
    });
    int count = 1;
    while (!turns_go_on(*task, microseconds(1000))) ++count;
    EXPECT_GE(count, 2);
    EXPECT_LE(count, 31);
    const turns_ptr quick = turns_begin([] { turns_pause_if_due(); });
    EXPECT_TRUE(turns_go_on(*quick, long_slice)) << "one that is not over its time does not stop";
}

TEST(Turns, OutsideOfATaskNothingPauses) {
    EXPECT_FALSE(turns_pause());
    turns_pause_if_due();
    const turns_undivided whole;
    EXPECT_FALSE(turns_pause());
}

TEST(Turns, WhatMustNotBeDividedIsNot) {
    int pauses = 0;
    const turns_ptr task = turns_begin([&] {
        {
            const turns_undivided outer;
            const turns_undivided inner;
            EXPECT_FALSE(turns_pause());
        }
        EXPECT_TRUE(turns_pause());
    });
    while (!turns_go_on(*task, microseconds(0))) ++pauses;
    EXPECT_EQ(pauses, 1);
}

TEST(Turns, AnExceptionComesOutOfTheTurn) {
    std::vector<std::string> marks;
    const turns_ptr task = turns_begin([&] {
        const leaves_mark mark{&marks};
        turns_pause();
        throw std::runtime_error("no way");
    });
    EXPECT_FALSE(turns_go_on(*task, long_slice));
    EXPECT_THROW((void)turns_go_on(*task, long_slice), std::runtime_error);
    EXPECT_THAT(marks, ElementsAre("cleaned up"));
    const turns_ptr short_of_memory = turns_begin([] { throw std::bad_alloc(); });
    EXPECT_THROW((void)turns_go_on(*short_of_memory, long_slice), std::bad_alloc);
}

TEST(Turns, ATaskThatNobodyWantsEndsWhereItStands) {
    std::vector<std::string> marks;
    {
        const turns_ptr task = turns_begin([&] {
            const leaves_mark mark{&marks};
            turns_pause();
            marks.emplace_back("never");
        });
        EXPECT_FALSE(turns_go_on(*task, long_slice));
    }
    EXPECT_THAT(marks, ElementsAre("cleaned up"));
    {
        const turns_ptr never_begun = turns_begin([&] { marks.emplace_back("never"); });
    }
    EXPECT_THAT(marks, ElementsAre("cleaned up"));
}

// Prints and formats need room on a stack.
TEST(Turns, ThereIsRoomForAHandler) {
    std::size_t sum = 0;
    const turns_ptr task = turns_begin([&] {
        volatile char room[128 * 1024];
        for (std::size_t i = 0; i < sizeof room; i += 512) room[i] = 1;
        turns_pause();
        for (std::size_t i = 0; i < sizeof room; i += 512) sum += static_cast<std::size_t>(room[i]);
    });
    while (!turns_go_on(*task, long_slice)) continue;
    EXPECT_EQ(sum, 256u);
}

TEST(Turns, ManyTasksComeAndGo) {
    for (int round = 0; round < 20; ++round) {
        std::vector<turns_ptr> tasks;
        int ended = 0;
        for (int i = 0; i < 100; ++i) {
            tasks.push_back(turns_begin([&] {
                turns_pause();
                ++ended;
            }));
            (void)turns_go_on(*tasks.back(), long_slice);
        }
        for (std::size_t i = 0; i < tasks.size(); i += 2) (void)turns_go_on(*tasks[i], long_slice);
        EXPECT_EQ(ended, 50);
    }
}

// Whether the process ends on a task's stack. The search for leaks does not look at the stack that it left.
bool ends_elsewhere = false;

// As when a port is in use: the relay ends the process in the middle of a command, while other sessions wait.
TEST(TurnsDeathTest, TheProcessMayEndInTheMiddleOfATurn) {
    static std::vector<turns_ptr> tasks;
    const auto end_in_a_turn = [] {
        ends_elsewhere = true;
        tasks.push_back(turns_begin([] {
            turns_pause();
            ADD_FAILURE() << "goes on";
        }));
        (void)turns_go_on(*tasks.back(), long_slice);
        tasks.push_back(turns_begin([] {
            static bool entered = false;
            std::exit(std::exchange(entered, true) ? 9 : 7);
        }));
        (void)turns_go_on(*tasks.back(), long_slice);
    };
    EXPECT_EXIT(end_in_a_turn(), testing::ExitedWithCode(7), "");
}

}  // namespace

int __lsan_is_turned_off() {
    return ends_elsewhere ? 1 : 0;
}

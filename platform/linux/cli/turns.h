// SPDX-License-Identifier: Apache-2.0
// Work that is done in turns: it has a stack of its own, and pauses where it says that it may, so that the event
// loop serves messages and others between two turns.
//
//     turns_ptr task = turns_begin([&] { ...; turns_pause_if_due(); ... });
//     while (!turns_go_on(*task, slice)) ...;  // each call is a turn
//
// Between two turns everything else goes on and may change any table: what the work holds then must be its own.
#ifndef PLATFORM_LINUX_CLI_TURNS_H
#define PLATFORM_LINUX_CLI_TURNS_H

#include <chrono>
#include <functional>
#include <memory>

namespace ravo::cli {

struct turns;
struct turns_delete {
    void operator()(turns *task) const;
};
using turns_ptr = std::unique_ptr<turns, turns_delete>;

// Makes a task of some work; nothing of it is done yet. Throws std::bad_alloc when there is no memory for its stack.
turns_ptr turns_begin(std::function<void()> work);

// Goes on with a task for about this long. Returns true when its work is done. What the work throws comes out here, and
// ends it. A task that is deleted before its end is ended by an exception where it is, which the work must not
// stop. When the work itself ends the program, its stack stays.
[[nodiscard]] bool turns_go_on(turns &task, std::chrono::microseconds slice);

// Within a task, and unless the work must not be divided, ends the turn: when it has lasted its time, or in any case.
// Elsewhere nothing happens. turns_pause tells whether it did.
void turns_pause_if_due();
bool turns_pause();

// Does some work in a thread while others have their turns, and returns when it is done: for what has to wait for the
// disk. Outside of a task, and where the task must not be divided, others wait too. What the work uses must be its own,
// as a task that is given up does not wait for it; it must not throw.
void turns_aside(const std::function<void()> &work);

// While this lives, the work goes on without a pause.
class turns_undivided {
  public:
    turns_undivided();
    turns_undivided(const turns_undivided &) = delete;
    turns_undivided &operator=(const turns_undivided &) = delete;
    ~turns_undivided();
};

}  // namespace ravo::cli

#endif

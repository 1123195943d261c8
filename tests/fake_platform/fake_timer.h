// SPDX-License-Identifier: Apache-2.0
// The clock and the timers on it. Timers are known by the address of their object.
#ifndef FAKE_TIMER_H
#define FAKE_TIMER_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "osal.h"

namespace fake {

struct timer {
    const osal_timer *object;
    std::string name;
    std::uint64_t due;  // on the clock, seconds
    int repeat;
    osal_timer_callback callback;
    void *arg;
};

// The scheduled timers, soonest first.
std::vector<timer> timers();

// What was asked of the timer service: "create ravo 300 s, repeat 1", "delete", "replace ravo 300 s, repeat 1".
extern std::vector<std::string> timer_calls;

// Seconds since the reset.
std::uint64_t now();

// Lets time pass and calls what comes due, in order.
void advance(std::uint64_t seconds);

// Tells whether a scheduled timer's object lies within this memory.
bool timer_within(const void *memory, std::size_t size);

void reset_timers();

}  // namespace fake

#endif

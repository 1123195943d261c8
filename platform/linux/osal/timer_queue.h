// SPDX-License-Identifier: Apache-2.0
// Timers of the daemon's records: queues of equal durations.
//
// Whatever runs for the same time ends in the order in which it began, so a queue a duration and one timer of the event
// loop serve a million records. What a timer needs is in its record's block of memory (memmgr_block.h): arming and
// disarming find it without a look-up and take no memory. The timers armed while a message was in hand also form a list
// for the port that it came in on, oldest first: such a record is an open transaction, and its port's share of memory
// is known by it.
#ifndef PLATFORM_LINUX_OSAL_TIMER_QUEUE_H
#define PLATFORM_LINUX_OSAL_TIMER_QUEUE_H

#include <cstddef>
#include <cstdint>

#include "base/clock.h"
#include "osal.h"

namespace ravo::platform {

// Arms a timer whose object lies in a record of mfh_calloc's, replacing what the same object was armed for. port: where
// the message in hand came in, 0 without one; now: of the coarse clock. Returns the number of its side room
// (memory/memmgr_block.h); 0, and changes nothing, when it cannot be kept here: the object lies elsewhere, its record
// has another timer, or its duration is too long or one too many.
std::uint32_t timer_queue_arm(struct osal_timer *timer, osal_timer_callback callback, std::uint32_t seconds, void *arg,
                              std::uint32_t port, std::uint64_t now = clock_coarse_ms());
// Makes a timer that was just armed older than it is, by less than its duration; none armed since has it again. It is
// for what an earlier daemon remembered, oldest first, before anything else is armed.
void timer_queue_make_older(struct osal_timer *timer, std::uint32_t milliseconds);
// Disarms a timer and clears its mark. Returns false when it is not armed here.
bool timer_queue_disarm(struct osal_timer *timer);

// How many are armed.
std::size_t timer_queue_count();

// ---- Ports ----

// The records of a port.
struct port_timers {
    std::uint32_t port = 0;         // its number; 0: no port
    std::uint32_t armed = 0;        // open transactions
    std::uint64_t ended_early = 0;  // fired before their time, to make room
};

// Rows of ports, from 0 (no port) on.
std::size_t timer_queue_ports();
const port_timers &timer_queue_port(std::size_t row);

// Fires the oldest timer of a port before its time. It must have one.
void timer_queue_fire_oldest(std::size_t row);

// Counts anew what was fired early.
void timer_queue_forget_ended();

// Disarms all, without calling anything.
void timer_queue_free();

}  // namespace ravo::platform

#endif

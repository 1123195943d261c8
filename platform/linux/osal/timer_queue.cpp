// SPDX-License-Identifier: Apache-2.0
// The event loop's timer is set for the first one that becomes due and is not touched when that one is disarmed: it
// then fires for nothing and is set anew, once in a duration. What is due all at once is served in portions, between
// which the loop serves others.
#include "osal/timer_queue.h"

#include <event2/event.h>

#include <algorithm>
#include <array>
#include <limits>

#include "base/clock.h"
#include "base/loop.h"
#include "base/owners.h"
#include "base/port_rows.h"
#include "memory/memmgr_block.h"
#include "osal/kept_transactions.h"

namespace ravo::platform {

namespace {

constexpr std::uint32_t nobody = 0;
constexpr std::uint32_t never = std::numeric_limits<std::uint32_t>::max();
constexpr std::size_t most_queues = 64;
constexpr std::uint32_t longest = 2000000;  // seconds; twice as many milliseconds fit a node
constexpr std::uint64_t portion_us = 1000;
constexpr unsigned fired_a_look = 32;      // timers fired between two looks at the clock
constexpr std::uint32_t clock_slack = 10;  // milliseconds that the loop's clock may be ahead of the coarse one
constexpr std::size_t most_ports = 16384;

// What a timer needs, in the side room of its record's block.
struct timer_node {
    std::uint32_t next, previous;            // in its queue
    std::uint32_t port_next, port_previous;  // in its port's list
    std::uint32_t since;                     // milliseconds of the coarse clock, cut to these bits
    std::uint8_t queue;                      // counted from 1; 0: not armed
    std::int8_t place;                       // of the timer's object, from here, in units of 8 bytes
    std::uint16_t row;                       // of its port
    osal_timer_callback callback;
    void *arg;
};
static_assert(sizeof(timer_node) == side_room_size);

// First and last of a list of nodes.
struct ends {
    std::uint32_t first = nobody, last = nobody;
};

struct timer_queue {
    std::uint32_t seconds = 0;
    ends nodes;
};

std::array<timer_queue, most_queues> queues;
std::size_t queues_used = 0;
std::size_t armed = 0;
event_ptr due;             // the loop's timer
bool due_set = false;      // it is set, for
std::uint32_t due_at = 0;  // this moment of the coarse clock, at which the first timer is due, or before

port_rows rows;
std::array<port_timers, most_ports> ports;
std::array<ends, most_ports> of_port;

timer_node *node_at(std::uint32_t number) {
    return static_cast<timer_node *>(memmgr_side_at(number));
}

std::uint32_t now_ms() {
    return static_cast<std::uint32_t>(clock_coarse_ms());
}

struct osal_timer *timer_of(timer_node *node) {
    return reinterpret_cast<struct osal_timer *>(reinterpret_cast<unsigned char *>(node) + node->place * 8);
}

// ---- Lists ----

using link = std::uint32_t timer_node::*;

void append(ends &list, std::uint32_t number, link next, link previous) {
    timer_node *node = node_at(number);
    node->*next = nobody;
    node->*previous = list.last;
    (list.last == nobody ? list.first : node_at(list.last)->*next) = number;
    list.last = number;
}

void unlink(ends &list, const timer_node *node, link next, link previous) {
    (node->*previous == nobody ? list.first : node_at(node->*previous)->*next) = node->*next;
    (node->*next == nobody ? list.last : node_at(node->*next)->*previous) = node->*previous;
}

void enter(timer_node *node) {
    const std::uint32_t number = memmgr_side_number(node);
    append(queues[node->queue - 1U].nodes, number, &timer_node::next, &timer_node::previous);
    append(of_port[node->row], number, &timer_node::port_next, &timer_node::port_previous);
    ++ports[node->row].armed;
    ++armed;
}

void leave(timer_node *node) {
    kept_transactions_drop(memmgr_side_number(node));
    unlink(queues[node->queue - 1U].nodes, node, &timer_node::next, &timer_node::previous);
    unlink(of_port[node->row], node, &timer_node::port_next, &timer_node::port_previous);
    --ports[node->row].armed;
    --armed;
    node->queue = 0;
}

// ---- Firing ----

void fire(timer_node *node) {
    const osal_timer_callback callback = node->callback;
    void *arg = node->arg;
    leave(node);
    timer_of(node)->armed = 0;
    callback(arg);
}

// Milliseconds until the first of a queue is due.
std::uint32_t wait_of(const timer_queue &queue, std::uint32_t now) {
    if (queue.nodes.first == nobody) return never;
    const std::uint32_t age = now - node_at(queue.nodes.first)->since;
    const std::uint32_t whole = queue.seconds * 1000;
    return age >= whole ? 0 : whole - age;
}

void on_due(evutil_socket_t /*fd*/, short /*what*/, void * /*arg*/);

// Sets the loop's timer.
void set_due(std::uint32_t now, std::uint32_t milliseconds) {
    if (due == nullptr) due.reset(evtimer_new(loop_base(), on_due, nullptr));
    const timeval wait{static_cast<time_t>(milliseconds / 1000), static_cast<suseconds_t>(milliseconds % 1000 * 1000)};
    due_set = due != nullptr && event_add(due.get(), &wait) == 0;
    due_at = now + milliseconds;
}

// Sets the loop's timer for the first timer of all. portion_ended: what is due is left for the next turn.
void set_due_for_first(bool portion_ended) {
    std::uint32_t wait = never;
    const std::uint32_t now = now_ms();
    for (std::size_t i = 0; i < queues_used; ++i) wait = std::min(wait, wait_of(queues[i], now));
    if (wait == never) return;
    set_due(now, portion_ended ? 0 : wait + clock_slack);
}

// Sets the loop's timer for a timer just armed, unless it is set for an earlier one, as it mostly is.
bool set_due_for(const timer_node *node) {
    const std::uint32_t whole = queues[node->queue - 1U].seconds * 1000 + clock_slack;
    const auto later = static_cast<std::int32_t>(node->since + whole - due_at);
    if (!due_set || later < 0) set_due(node->since, whole);
    return due_set;
}

// Fires what is due in a queue, until the portion's end. Returns whether all of it was fired.
bool fire_due(timer_queue &queue, std::uint64_t portion_end) {
    const std::uint32_t now = now_ms();
    for (unsigned fired = 1; wait_of(queue, now) == 0; ++fired) {
        fire(node_at(queue.nodes.first));
        if (fired % fired_a_look == 0 && clock_exact_us() >= portion_end) return false;
    }
    return true;
}

void on_due(evutil_socket_t /*fd*/, short /*what*/, void * /*arg*/) {
    due_set = false;
    const std::uint64_t portion_end = clock_exact_us() + portion_us;
    bool all = true;
    for (std::size_t i = 0; i < queues_used && all; ++i) all = fire_due(queues[i], portion_end);
    set_due_for_first(!all);
}

// A record that is freed takes its timer with it.
void on_record_freed(void *side_room) {
    auto *node = static_cast<timer_node *>(side_room);
    if (node->queue != 0) leave(node);
}

// ---- Arming ----

// The queue of a duration, counted from 1; 0 when there can be no more.
std::uint8_t queue_for(std::uint32_t seconds) {
    for (std::size_t i = 0; i < queues_used; ++i)
        if (queues[i].seconds == seconds) return static_cast<std::uint8_t>(i + 1);
    if (queues_used == most_queues || seconds > longest) return 0;
    memmgr_on_free(on_record_freed);
    queues[queues_used++] = {.seconds = seconds, .nodes = {}};
    return static_cast<std::uint8_t>(queues_used);
}

// The node for a timer's object, also of another one in the same record; NULL when it has no side room.
timer_node *node_for(const struct osal_timer *timer) {
    return static_cast<timer_node *>(memmgr_side_room(timer));
}

std::int8_t place_of(const struct osal_timer *timer, const timer_node *node) {
    return static_cast<std::int8_t>((reinterpret_cast<std::intptr_t>(timer) - reinterpret_cast<std::intptr_t>(node)) /
                                    8);
}

bool is_of(const timer_node *node, const struct osal_timer *timer) {
    return node != nullptr && node->queue != 0 && node->place == place_of(timer, node);
}

std::uint16_t row_of(std::uint32_t port) {
    const std::uint16_t row = port_row(rows, port, most_ports);
    ports[row].port = row == 0 ? 0 : port;
    return row;
}

}  // namespace

std::uint32_t timer_queue_arm(struct osal_timer *timer, osal_timer_callback callback, std::uint32_t seconds, void *arg,
                              std::uint32_t port, std::uint64_t now) {
    timer_node *node = node_for(timer);
    if (node == nullptr || (node->queue != 0 && !is_of(node, timer))) return 0;
    const std::uint8_t queue = queue_for(seconds);
    if (queue == 0) return 0;
    if (node->queue != 0) leave(node);
    node->since = static_cast<std::uint32_t>(now);
    node->queue = queue;
    node->place = place_of(timer, node);
    node->row = row_of(port);
    node->callback = callback;
    node->arg = arg;
    enter(node);
    timer->armed = set_due_for(node) ? 1 : 0;
    if (timer->armed == 0) leave(node);
    return timer->armed != 0 ? memmgr_side_number(node) : 0;
}

void timer_queue_make_older(struct osal_timer *timer, std::uint32_t milliseconds) {
    timer_node *node = node_for(timer);
    if (!is_of(node, timer)) return;
    node->since -= milliseconds;
    set_due_for_first(/*portion_ended=*/false);
}

bool timer_queue_disarm(struct osal_timer *timer) {
    timer_node *node = node_for(timer);
    if (!is_of(node, timer)) return false;
    leave(node);
    timer->armed = 0;
    return true;
}

std::size_t timer_queue_count() {
    return armed;
}

std::size_t timer_queue_ports() {
    return rows.rows;
}

const port_timers &timer_queue_port(std::size_t row) {
    return ports[row];
}

void timer_queue_fire_oldest(std::size_t row) {
    ++ports[row].ended_early;
    fire(node_at(of_port[row].first));
}

void timer_queue_forget_ended() {
    for (std::size_t row = 0; row < rows.rows; ++row) ports[row].ended_early = 0;
}

void timer_queue_free() {
    for (std::size_t i = 0; i < queues_used; ++i)
        while (queues[i].nodes.first != nobody) leave(node_at(queues[i].nodes.first));
    queues_used = 0;
    due.reset();
    due_set = false;
}

}  // namespace ravo::platform

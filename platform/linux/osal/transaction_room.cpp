// SPDX-License-Identifier: Apache-2.0
// The memory says when it is short, in the midst of a message; the work is done by an event of the loop, for ending a
// transaction calls the daemon, which is at work on that message then.
#include "osal/transaction_room.h"

#include <event2/event.h>

#include "base/clock.h"
#include "base/loop.h"
#include "base/owners.h"
#include "log/log.h"
#include "memory/memmgr_budget.h"
#include "osal/timer_queue.h"
#include "port_number.h"

namespace ravo::platform {

namespace {

constexpr unsigned most_a_turn = 1024;  // transactions ended in one turn of the loop
constexpr std::uint64_t log_interval_ms = 60000;

event_ptr making_room;
bool waiting = false;  // for its turn
std::uint64_t logged_at = 0;
std::uint64_t ended_when_logged = 0;
std::uint64_t refused_forgotten = 0;

// The ports with most and second most transactions, as rows. Equal without any.
struct leaders {
    std::size_t first = 0, second = 0;
};

leaders find_leaders() {
    leaders found;
    for (std::size_t row = 1; row < timer_queue_ports(); ++row) {
        const std::uint32_t armed = timer_queue_port(row).armed;
        if (armed > timer_queue_port(found.first).armed)
            found = {row, found.first};
        else if (found.second == found.first || armed > timer_queue_port(found.second).armed)
            found.second = row;
    }
    return found;
}

// Ends transactions of the port that has most, down to the number of the next one. Returns how many.
unsigned end_oldest(unsigned most) {
    const leaders ports = find_leaders();
    const std::uint32_t others = ports.first == ports.second ? 0 : timer_queue_port(ports.second).armed;
    unsigned ended = 0;
    do {
        if (timer_queue_port(ports.first).armed == 0) break;
        timer_queue_fire_oldest(ports.first);
        ++ended;
    } while (ended < most && memmgr_short() != 0 && timer_queue_port(ports.first).armed > others);
    return ended;
}

std::uint64_t ended_in_all() {
    std::uint64_t ended = 0;
    for (std::size_t row = 0; row < timer_queue_ports(); ++row) ended += timer_queue_port(row).ended_early;
    return ended;
}

// At most once a minute.
void log_it() {
    const std::uint64_t now = clock_coarse_ms();
    if (logged_at != 0 && now - logged_at < log_interval_ms) return;
    logged_at = now;
    const std::uint64_t ended = ended_in_all();
    const port_timers &most = timer_queue_port(find_leaders().first);
    char name[PORT_NUMBER_TEXT_SIZE];
    port_number_text(most.port, name);
    log_line(
        log_level_warning,
        "the budget of %zu bytes for transactions is used up: port %s has %u of %zu, and the oldest of who has most "
        "are ended early (%llu since the last such line)",
        memmgr_budget(), name, most.armed, timer_queue_count(),
        static_cast<unsigned long long>(ended - ended_when_logged));
    ended_when_logged = ended;
}

void make_room(evutil_socket_t /*fd*/, short /*what*/, void * /*arg*/) {
    waiting = false;
    unsigned ended = 0;
    while (memmgr_short() != 0 && ended < most_a_turn) {
        const unsigned more = end_oldest(most_a_turn - ended);
        if (more == 0) break;  // what takes the room are no transactions
        ended += more;
    }
    if (ended != 0) log_it();
}

void on_short() {
    if (waiting || making_room == nullptr) return;
    constexpr timeval at_once{};
    waiting = event_add(making_room.get(), &at_once) == 0;
}

}  // namespace

void transaction_room_open() {
    making_room.reset(evtimer_new(loop_base(), make_room, nullptr));
    memmgr_on_short(on_short);
}

void transaction_room_close() {
    memmgr_on_short(nullptr);
    making_room.reset();
    waiting = false;
}

transaction_figures transaction_room_figures() {
    return {.open = timer_queue_count(),
            .used = memmgr_used(),
            .budget = memmgr_budget(),
            .ended_early = ended_in_all(),
            .refused = memmgr_refused() - refused_forgotten};
}

std::vector<port_transactions> transaction_room_ports() {
    std::vector<port_transactions> ports;
    for (std::size_t row = 0; row < timer_queue_ports(); ++row) {
        const port_timers &timers = timer_queue_port(row);
        if (timers.armed != 0 || timers.ended_early != 0)
            ports.push_back({.port = timers.port, .open = timers.armed, .ended_early = timers.ended_early});
    }
    return ports;
}

void transaction_room_forget() {
    timer_queue_forget_ended();
    ended_when_logged = 0;
    refused_forgotten = memmgr_refused();
}

}  // namespace ravo::platform

// Timers, keyed by the address of the daemon's timer object. Most of them run for the same few durations (a transaction
// lives 300 seconds), and there may be a million of them: each duration gets one of libevent's queues of equal
// timeouts, where arming and disarming take constant time. A fired or deleted timer's bookkeeping is kept for the next
// one, so that a steady flow of transactions does not allocate.
#include <event2/event.h>
#include <event2/event_struct.h>
#include <sys/time.h>

#include <cstddef>
#include <cstdint>
#include <new>
#include <unordered_map>
#include <vector>

#include "base/loop.h"
#include "osal.h"
#include "osal/osal_events.h"

namespace {

struct entry {
    struct event event;
    struct osal_timer *timer;
    osal_timer_callback callback;
    void *arg;
};

using timer_map = std::unordered_map<const struct osal_timer *, entry>;

// libevent has room for 256 queues; beyond these durations a timer goes into its heap.
constexpr std::size_t max_queues = 64;
constexpr std::size_t max_spare = 4096;

struct timer_state {
    timer_map timers;
    std::vector<timer_map::node_type> spare;
    std::unordered_map<std::uint32_t, const struct timeval *> queues;  // seconds -> libevent's queue
};

timer_state state;

// Returns what event_add wants for a duration: libevent's queue of it, or the plain duration in *plain.
const struct timeval *timeout_for(std::uint32_t seconds, struct timeval *plain) {
    plain->tv_sec = static_cast<time_t>(seconds);
    plain->tv_usec = 0;
    const auto known = state.queues.find(seconds);
    if (known != state.queues.end()) return known->second;
    if (state.queues.size() >= max_queues) return plain;
    const struct timeval *queue = event_base_init_common_timeout(ravo::platform::loop_base(), plain);
    if (queue == nullptr) return plain;
    state.queues.emplace(seconds, queue);
    return queue;
}

void release(timer_map::iterator which) {
    timer_map::node_type node = state.timers.extract(which);
    if (state.spare.size() < max_spare) state.spare.push_back(std::move(node));
}

void on_timeout(evutil_socket_t /*fd*/, short /*what*/, void *arg) {
    const entry fired = *static_cast<const entry *>(arg);
    release(state.timers.find(fired.timer));
    fired.timer->armed = 0;
    fired.callback(fired.arg);
}

// The entry of a timer object, disarmed.
entry &claim(struct osal_timer *timer) {
    const auto scheduled = state.timers.find(timer);
    if (scheduled != state.timers.end()) {
        event_del(&scheduled->second.event);
        return scheduled->second;
    }
    if (state.spare.empty()) return state.timers[timer];
    timer_map::node_type node = std::move(state.spare.back());
    state.spare.pop_back();
    node.key() = timer;
    return state.timers.insert(std::move(node)).position->second;
}

bool arm(entry &mine, std::uint32_t seconds) {
    if (event_assign(&mine.event, ravo::platform::loop_base(), -1, 0, on_timeout, &mine) != 0) return false;
    struct timeval plain {};
    return event_add(&mine.event, timeout_for(seconds, &plain)) == 0;
}

}  // namespace

int OSAL_ZEBOS_Create_Sec_Once_Timer(struct osal_timer *timer, const char * /*name*/, osal_timer_callback callback,
                                     std::uint32_t seconds, int /*repeat*/, void *arg) {
    try {
        entry &mine = claim(timer);
        mine.timer = timer;
        mine.callback = callback;
        mine.arg = arg;
        timer->armed = arm(mine, seconds) ? 1 : 0;
    } catch (const std::bad_alloc &) {
        timer->armed = 0;
    }
    if (timer->armed != 0) return 0;
    const auto failed = state.timers.find(timer);
    if (failed != state.timers.end()) release(failed);
    return -1;
}

void OSAL_ZEBOS_Delete_Timer(struct osal_timer *timer) {
    const auto scheduled = state.timers.find(timer);
    if (scheduled == state.timers.end()) return;
    event_del(&scheduled->second.event);
    release(scheduled);
    timer->armed = 0;
}

namespace ravo::platform {

void timers_free() {
    for (auto &[timer, mine] : state.timers) event_del(&mine.event);
    state = timer_state{};
}

std::size_t timers_count() {
    return state.timers.size();
}

}  // namespace ravo::platform

// SPDX-License-Identifier: Apache-2.0
// Timers, keyed by the address of the daemon's timer object. Those that count, a million of equal duration, are in
// records of the daemon's memory and are served by queues (timer_queue.h). Any other object gets an event of the loop's
// own, in an ordered table by address.
#include <arpa/inet.h>
#include <event2/event.h>

#include <map>
#include <new>
#include <optional>

#include "base/clock.h"
#include "base/loop.h"
#include "base/owners.h"
#include "books/books.h"
#include "osal.h"
#include "osal/kept_transactions.h"
#include "osal/osal_events.h"
#include "osal/timer_queue.h"
#include "osal/transaction_room.h"

namespace {

struct lone_timer {
    ravo::platform::event_ptr event;
    osal_timer_callback callback;
    void *arg;
};

std::map<struct osal_timer *, lone_timer> lone_timers;

void on_timeout(evutil_socket_t /*fd*/, short /*what*/, void *object) {
    auto *timer = static_cast<struct osal_timer *>(object);
    const auto found = lone_timers.find(timer);
    const osal_timer_callback callback = found->second.callback;
    void *arg = found->second.arg;
    lone_timers.erase(found);
    timer->armed = 0;
    callback(arg);
}

bool disarm_lone(struct osal_timer *timer) {
    return !lone_timers.empty() && lone_timers.erase(timer) != 0;
}

bool arm_lone(struct osal_timer *timer, osal_timer_callback callback, std::uint32_t seconds, void *arg) {
    const struct timeval wait { static_cast<time_t>(seconds), 0 };
    ravo::platform::event_ptr event(evtimer_new(ravo::platform::loop_base(), on_timeout, timer));
    if (event == nullptr || event_add(event.get(), &wait) != 0) return false;
    try {
        lone_timers.insert_or_assign(timer, lone_timer{std::move(event), callback, arg});
    } catch (const std::bad_alloc &) {
        return false;
    }
    return true;
}

// An open transaction: of the message in hand, or handed over from the daemon before.
struct origin {
    std::uint32_t xid = 0;  // as it is in the message
    std::uint32_t port = 0;
    bool is_transaction = false;
    std::uint64_t since = 0;
};

origin origin_in_hand(std::uint64_t now) {
    if (const ravo::platform::kept_transaction *kept = ravo::platform::kept_transaction_in_hand())
        return {.xid = kept->xid, .port = kept->port, .is_transaction = true, .since = kept->since};
    const std::optional<std::uint32_t> xid = ravo::platform::books_xid_in_hand();
    return {.xid = htonl(xid.value_or(0)),
            .port = ravo::platform::books_port_in_hand(),
            .is_transaction = xid.has_value(),
            .since = now};
}

}  // namespace

int OSAL_ZEBOS_Create_Sec_Once_Timer(struct osal_timer *timer, const char * /*name*/, osal_timer_callback callback,
                                     std::uint32_t seconds, int /*repeat*/, void *arg) {
    using namespace ravo::platform;
    disarm_lone(timer);
    const std::uint64_t now = clock_coarse_ms();
    const origin from = origin_in_hand(now);
    if (const std::uint32_t number = timer_queue_arm(timer, callback, seconds, arg, from.port, now)) {
        if (from.since != now) timer_queue_make_older(timer, static_cast<std::uint32_t>(now - from.since));
        // It is remembered beyond the end of the daemon.
        if (from.is_transaction)
            kept_transactions_put(number,
                                  {.xid = from.xid, .port = from.port, .seconds = seconds, .since = from.since});
        return 0;
    }
    timer_queue_disarm(timer);
    timer->armed = arm_lone(timer, callback, seconds, arg) ? 1 : 0;
    return timer->armed != 0 ? 0 : -1;
}

void OSAL_ZEBOS_Delete_Timer(struct osal_timer *timer) {
    if (ravo::platform::timer_queue_disarm(timer)) return;
    if (disarm_lone(timer)) timer->armed = 0;
}

namespace ravo::platform {

void timers_free() {
    timer_queue_free();
    lone_timers.clear();
}

std::size_t timers_count() {
    return timer_queue_count() + lone_timers.size();
}

}  // namespace ravo::platform

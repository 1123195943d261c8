// SPDX-License-Identifier: Apache-2.0
// Who has something to do is in one line and gets turns in order, one session's for each pass of the event loop:
// between any two of them messages, timers and the system's events are served. A command that is not done when its turn
// is over, or a session with more requests, goes to the end of the line.
#include <event2/buffer.h>
#include <event2/event.h>

#include <new>

#include "base/loop.h"
#include "management/management_state.h"
#include "management/management_turns.h"

namespace ravo::platform {

namespace {

// Long enough for nearly every command, short enough for a message to wait.
constexpr std::chrono::microseconds slice{250};

management_session *first = nullptr;
management_session *last = nullptr;
event_ptr next_turn;

void arm() {
    constexpr timeval at_once{};
    if (first != nullptr && evtimer_pending(next_turn.get(), nullptr) == 0) evtimer_add(next_turn.get(), &at_once);
}

management_session *take_first() {
    management_session *s = first;
    first = s->next;
    if (first == nullptr) last = nullptr;
    s->next = nullptr;
    s->queued = false;
    return s;
}

void start_deadline(management_session &s) {
    if (evtimer_pending(s.deadline.get(), nullptr) != 0) return;  // not put off by bytes that drip in
    const timeval time = to_timeval(s.settings->frame_seconds);
    evtimer_add(s.deadline.get(), &time);
}

// Puts off the end of a session that nobody uses.
void note_use(management_session &s) {
    s.used = std::chrono::steady_clock::now();
    const timeval time = to_timeval(s.settings->idle_seconds);
    if (s.settings->idle_seconds > 0) evtimer_add(s.idle.get(), &time);
}

void serve(management_session &s) {
    switch (serve_turn(s, slice)) {
        case progress::served:
            evtimer_del(s.deadline.get());
            note_use(s);
            if (!s.dead && !s.ending) want_turn(s);
            break;
        case progress::partial:
            start_deadline(s);
            break;
        case progress::nothing:
            break;
        case progress::broken:
            refuse(s, protocol::refusal::malformed, "what it sent is no frame of the management protocol");
            break;
    }
}

void on_turn(evutil_socket_t /*fd*/, short /*what*/, void * /*arg*/) {
    if (first == nullptr) return;
    management_session &s = *take_first();
    // Whoever waits for its client has its turn when the client has read something.
    if (!s.dead && !s.ending && !is_full(s)) {
        try {
            serve(s);
        } catch (const std::bad_alloc &) {
            s.running = false;
            end_session_for_memory(s);
        }
    }
    arm();
}

}  // namespace

bool management_turns_open() {
    next_turn.reset(evtimer_new(loop_base(), on_turn, nullptr));
    return next_turn != nullptr;
}

void management_turns_close() {
    next_turn.reset();
    first = last = nullptr;
}

void want_turn(management_session &s) {
    if (s.queued || next_turn == nullptr) return;
    s.queued = true;
    if (last != nullptr)
        last->next = &s;
    else
        first = &s;
    last = &s;
    arm();
}

void drop_turn(management_session &s) {
    if (!s.queued) return;
    management_session *before = nullptr;
    for (management_session *each = first; each != &s; each = each->next) before = each;
    (before == nullptr ? first : before->next) = s.next;
    if (last == &s) last = before;
    s.queued = false;
}

}  // namespace ravo::platform

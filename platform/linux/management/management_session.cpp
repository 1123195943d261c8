// SPDX-License-Identifier: Apache-2.0
// A session reads frames and answers each with output frames and a status. Its client may be anything: bytes come in
// any pieces, may stop in the middle of a frame, may be no frames at all, and what is written may never be read. So:
//
// - the input buffer never holds more than one largest frame; a head that claims more ends the session;
// - a frame that has begun must be complete in time, and so must the hello; a session that nobody uses ends;
// - what waits for the client is bounded, and it must read something of it now and then;
// - requests are served in turns (management_turns.cpp), one at a time;
// - when memory is short the session ends, and nothing else.
//
// A session that breaks is marked and deleted from the event loop, never from within: handlers may be running that
// print to it, and a log listener that writes to it must not log.
#include "management/management_session.h"

#include <event2/buffer.h>
#include <event2/event.h>

#include <cmath>
#include <new>
#include <utility>

#include "base/loop.h"
#include "log/log.h"
#include "management/management_state.h"

namespace ravo::platform {

timeval to_timeval(double seconds) {
    const double whole = std::floor(seconds);
    return {static_cast<time_t>(whole), static_cast<suseconds_t>((seconds - whole) * 1e6)};
}

namespace {

// A client's event must not end more than its session.
template <typename action>
void guarded(management_session &s, action act) {
    try {
        act();
    } catch (const std::bad_alloc &) {
        end_session_for_memory(s);
    }
}

void log_end(const management_session &s) {
    const std::string_view why =
        s.out_of_memory ? "no memory is left for what it asked" : std::string_view(s.end_reason);
    if (s.line != nullptr)
        log_line(log_level_warning, "audit: user %s, session %u: closed", s.peer.user.c_str(), s.number);
    if (why.empty())
        log_line(log_level_trace, "management: session %u of user %s ends", s.number, s.peer.user.c_str());
    else
        log_line(log_level_warning, "management: session %u of user %s (%u) is closed: %.*s", s.number,
                 s.peer.user.c_str(), s.peer.uid, static_cast<int>(why.size()), why.data());
}

void on_ended(evutil_socket_t /*fd*/, short /*what*/, void *arg) {
    auto *s = static_cast<management_session *>(arg);
    log_end(*s);
    s->on_end(s);
}

void on_deadline(evutil_socket_t /*fd*/, short /*what*/, void *arg) {
    auto *s = static_cast<management_session *>(arg);
    guarded(*s, [s] {
        refuse(
            *s, protocol::refusal::too_slow,
            s->line == nullptr ? "its hello did not come in time" : "it began a frame and did not finish it in time");
    });
}

// How long a session may go on without a request; 0 or less: its time is over. Who watches messages, or waits for a
// command that takes its time, is not idle.
double idle_seconds_left(const management_session &s) {
    if (s.streaming || cli::session_busy(*s.line)) return s.settings->idle_seconds;
    return s.settings->idle_seconds - std::chrono::duration<double>(std::chrono::steady_clock::now() - s.used).count();
}

// The limit may have been changed since the timer was set.
void on_idle(evutil_socket_t /*fd*/, short /*what*/, void *arg) {
    auto *s = static_cast<management_session *>(arg);
    if (s->line == nullptr || s->settings->idle_seconds <= 0) return;
    if (const double left = idle_seconds_left(*s); left > 0) {
        const timeval time = to_timeval(left);
        evtimer_add(s->idle.get(), &time);
        return;
    }
    guarded(*s, [s] {
        const auto minutes = static_cast<long>(std::lround(s->settings->idle_seconds / 60));
        refuse(*s, protocol::refusal::idle,
               "it was not used for " + std::to_string(minutes) + (minutes == 1 ? " minute" : " minutes"));
    });
}

void on_readable(struct bufferevent * /*stream*/, void *arg) {
    auto *s = static_cast<management_session *>(arg);
    guarded(*s, [s] { serve_interrupt(*s); });
    want_turn(*s);
}

void on_written(struct bufferevent *stream, void *arg) {
    auto *s = static_cast<management_session *>(arg);
    if (s->ending && evbuffer_get_length(bufferevent_get_output(stream)) == 0)
        end_session(*s, {});
    else
        want_turn(*s);
}

void on_stream_event(struct bufferevent * /*stream*/, short what, void *arg) {
    auto *s = static_cast<management_session *>(arg);
    const bool stalled = (what & BEV_EVENT_TIMEOUT) != 0;
    guarded(*s, [s, stalled] { end_session(*s, stalled ? "it does not read its output" : ""); });
}

bool make_events(management_session &s, descriptor fd) {
    s.stream.reset(bufferevent_socket_new(loop_base(), fd.get(), BEV_OPT_CLOSE_ON_FREE));
    if (s.stream == nullptr) return false;
    (void)fd.release();  // the stream closes it
    s.ended.reset(evtimer_new(loop_base(), on_ended, &s));
    s.deadline.reset(evtimer_new(loop_base(), on_deadline, &s));
    s.idle.reset(evtimer_new(loop_base(), on_idle, &s));
    if (s.ended == nullptr || s.deadline == nullptr || s.idle == nullptr) return false;
    const timeval stall = to_timeval(s.settings->stall_seconds);
    bufferevent_set_timeouts(s.stream.get(), nullptr, &stall);
    bufferevent_setwatermark(s.stream.get(), EV_READ, 0, protocol::head_size + protocol::max_request);
    bufferevent_setwatermark(s.stream.get(), EV_WRITE, s.settings->waiting_output / 4, 0);
    bufferevent_setcb(s.stream.get(), on_readable, on_written, on_stream_event, &s);
    const timeval hello = to_timeval(s.settings->frame_seconds);
    evtimer_add(s.deadline.get(), &hello);
    return bufferevent_enable(s.stream.get(), EV_READ | EV_WRITE) == 0;
}

}  // namespace

void management_session_delete::operator()(management_session *s) const {
    s->dead = true;  // whatever the command library still prints while it goes is dropped
    drop_turn(*s);
    delete s;
}

management_session_ptr management_session_open(descriptor fd, unsigned number, const management_peer &peer,
                                               const management_rights &rights, const management_settings &settings,
                                               management_on_end on_end) {
    management_session_ptr s(new management_session);
    s->number = number;
    s->peer = peer;
    s->rights = rights;
    s->settings = &settings;
    s->on_end = on_end;
    if (!make_events(*s, std::move(fd))) return nullptr;
    return s;
}

session_about management_session_about(const management_session &s) {
    session_about out;
    out.number = s.number;
    out.user = s.peer.user;
    out.uid = s.peer.uid;
    out.pid = s.peer.pid;
    out.terminal = s.peer.terminal;
    out.privilege = s.line == nullptr ? 0 : cli::session_privilege(*s.line);
    out.opened_us = std::chrono::duration_cast<std::chrono::microseconds>(s.opened.time_since_epoch()).count();
    out.idle = std::chrono::steady_clock::now() - s.used;
    out.busy = s.streaming || (s.line != nullptr && cli::session_busy(*s.line));
    return out;
}

void management_session_end(management_session &s, const std::string &why) {
    refuse(s, protocol::refusal::cleared, why);
}

void management_session_flush(management_session &s) {
    struct evbuffer *out = bufferevent_get_output(s.stream.get());
    // The buffer's front is the bufferevent's own while it is enabled for writing.
    bufferevent_disable(s.stream.get(), EV_WRITE);
    evbuffer_unfreeze(out, /*at_front=*/1);
    while (evbuffer_get_length(out) > 0 && evbuffer_write(out, bufferevent_getfd(s.stream.get())) > 0) continue;
    evbuffer_freeze(out, /*at_front=*/1);
}

}  // namespace ravo::platform

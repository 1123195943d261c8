// SPDX-License-Identifier: Apache-2.0
// A session of the management socket as this room's own sources see it.
#ifndef PLATFORM_LINUX_MANAGEMENT_MANAGEMENT_STATE_H
#define PLATFORM_LINUX_MANAGEMENT_MANAGEMENT_STATE_H

#include <event2/bufferevent.h>
#include <sys/time.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "base/owners.h"
#include "cli/command_line.h"
#include "management/management_session.h"
#include "management_protocol.h"

namespace ravo::platform {

struct bufferevent_delete {
    void operator()(struct bufferevent *b) const { bufferevent_free(b); }
};

struct management_session {
    unsigned number = 0;
    management_peer peer;
    management_rights rights;
    const management_settings *settings = nullptr;
    management_on_end on_end = nullptr;

    std::unique_ptr<struct bufferevent, bufferevent_delete> stream;
    event_ptr ended;     // the session is deleted
    event_ptr deadline;  // of the hello or of a frame that has begun
    event_ptr idle;      // nobody has asked for anything for so long
    cli::session_ptr line;

    std::string text;                    // output of the command that has not been made a frame yet
    std::string end_reason;              // for the log, when dead
    std::string question;                // the running command asks the person
    protocol::run_message request;       // the running command
    std::string behalf;                  // for whom the peer's user acts; empty: for itself
    std::int32_t page = -1;              // lines of a page, -1: not set
    management_session *next = nullptr;  // whose turn comes behind its own
    bool queued = false;                 // it will have a turn
    bool running = false;                // a command's handler may be printing
    bool streaming = false;              // the command of the request goes on
    bool muted = false;                  // what it prints is dropped
    bool ending = false;                 // ends when everything is written
    bool dead = false;                   // ends as soon as the loop has its turn
    bool out_of_memory = false;          // why it is dead: no memory even for a reason
    std::chrono::system_clock::time_point opened = std::chrono::system_clock::now();
    std::chrono::steady_clock::time_point used = std::chrono::steady_clock::now();  // the last request
};

// A time in seconds, not negative, as timers take it.
timeval to_timeval(double seconds);

// ---- management_output.cpp ----

// Marks the session; it is deleted from the event loop. reason: for the log, empty when nothing went wrong.
void end_session(management_session &s, std::string reason);
// The same when there is no memory for a reason.
void end_session_for_memory(management_session &s);
// Tells the client why and ends the session. What it has not read yet comes first, as far as it goes without waiting.
void refuse(management_session &s, protocol::refusal reason, const std::string &why);

// Sends a frame; one that keeps its place among the text of the running command. Return false when the session is over.
bool send_frame(management_session &s, const protocol::bytes &frame);
bool send_in_order(management_session &s, const protocol::bytes &frame);
// Sends what a command has printed so far.
bool flush_text(management_session &s);
// The end of a request.
void send_status(management_session &s, std::uint32_t id, int result);

// Tells whether so much waits for the client that commands should wait for it.
bool is_full(const management_session &s);

// Where the output of the session's command line goes.
cli::session_output output_of(management_session *s);

// ---- management_turns.cpp ----

// Lets the session have a turn as soon as the event loop has served what else there is.
void want_turn(management_session &s);
// The session goes; it has no turns any more.
void drop_turn(management_session &s);

// ---- management_requests.cpp ----

enum class progress { served, partial, nothing, broken };

// Goes on with the running command for about this long; without one, serves the first frame of the input when all of it
// is there.
progress serve_turn(management_session &s, std::chrono::microseconds slice);
// Ends the running command when the client wants that: the next frame of the input is an interrupt.
void serve_interrupt(management_session &s);

}  // namespace ravo::platform

#endif

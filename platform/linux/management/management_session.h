// SPDX-License-Identifier: Apache-2.0
// One session of the management socket: its frames, its limits, its command line.
#ifndef PLATFORM_LINUX_MANAGEMENT_MANAGEMENT_SESSION_H
#define PLATFORM_LINUX_MANAGEMENT_MANAGEMENT_SESSION_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "base/owners.h"
#include "management/management_peer.h"

namespace ravo::platform {

// Bounds and names; the defaults are what the daemon runs with.
struct management_settings {
    std::size_t sessions = 64;
    std::size_t kept_sessions = 8;                        // of these for root and administrators alone
    std::size_t per_user = 16;                            // of one user but root
    std::size_t waiting_output = std::size_t{256} << 10;  // bytes that wait for a client before its command waits too
    std::size_t unread_output = std::size_t{8} << 20;     // bytes that wait for a client before it is given up
    double frame_seconds = 10;      // time for the hello, and for the rest of a frame that has begun to arrive
    double stall_seconds = 30;      // time for a client to read something of what waits for it
    double idle_seconds = 30 * 60;  // time without a request after which a session ends, 0: none
    double names_seconds = 2;       // time for the system to look up users and groups
    std::string viewers = "ravo";   // groups
    std::string admins = "ravo-admin";
};

struct management_session;
struct management_session_delete {
    void operator()(management_session *s) const;
};
using management_session_ptr = std::unique_ptr<management_session, management_session_delete>;

// Opens a session on an accepted, non-blocking socket. number: names it in the log; on_end: called from
// the event loop, once, when the session is to be deleted (it may be deleted in that call). settings must outlive it.
// Returns NULL when there is no memory.
using management_on_end = void (*)(management_session *s);
management_session_ptr management_session_open(descriptor fd, unsigned number, const management_peer &peer,
                                               const management_rights &rights, const management_settings &settings,
                                               management_on_end on_end);

// What others may know of a session.
struct session_about {
    unsigned number = 0;
    std::string user;
    uid_t uid = 0;
    pid_t pid = 0;
    std::string terminal;
    int privilege = 0;                           // 0: it has not begun yet
    std::int64_t opened_us = 0;                  // microseconds since 1970
    std::chrono::steady_clock::duration idle{};  // since its last request
    bool busy = false;                           // a command runs or goes on
};
session_about management_session_about(const management_session &s);

// Tells the client why and ends the session.
void management_session_end(management_session &s, const std::string &why);

// Writes what waits for the client as far as that goes without waiting.
void management_session_flush(management_session &s);

}  // namespace ravo::platform

#endif

// One session of the management socket: its frames, its limits, its command line.
#ifndef PLATFORM_LINUX_MANAGEMENT_MANAGEMENT_SESSION_H
#define PLATFORM_LINUX_MANAGEMENT_MANAGEMENT_SESSION_H

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include "management/management_peer.h"

namespace ravo::platform {

// Bounds and names; the defaults are what the daemon runs with.
struct management_settings {
    std::size_t sessions = 64;
    std::size_t unread_output = std::size_t{8} << 20;  // bytes that wait for a client to read them
    double frame_seconds = 10;     // time for the hello, and for the rest of a frame that has begun to arrive
    double stall_seconds = 30;     // time for a client to read something of what waits for it
    int requests_a_turn = 8;       // served before the loop's other events get their turn
    std::string viewers = "ravo";  // groups
    std::string admins = "ravo-admin";
};

struct management_session;
struct management_session_delete {
    void operator()(management_session *s) const;
};
using management_session_ptr = std::unique_ptr<management_session, management_session_delete>;

// Opens a session on an accepted, non-blocking socket, which it closes. number: names it in the log; on_end: called
// from the event loop, once, when the session is to be deleted (it may be deleted in that call). settings must outlive
// it. Returns NULL when there is no memory.
using management_on_end = void (*)(management_session *s);
management_session_ptr management_session_open(int fd, unsigned number, const management_peer &peer,
                                               const management_rights &rights, const management_settings &settings,
                                               management_on_end on_end);

// Writes what waits for the client as far as that goes without waiting.
void management_session_flush(management_session &s);

}  // namespace ravo::platform

#endif

// The socket takes connections and turns each into a session, or refuses it: the peer may be nobody who is allowed in,
// or every session may be taken. A session that ends tells so from the event loop and is deleted then.
#include "management/management.h"

#include <event2/event.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <memory>
#include <vector>

#include "base/loop.h"
#include "base/owners.h"
#include "log/log.h"
#include "management/management_open.h"
#include "management/management_socket.h"
#include "management_protocol.h"

namespace ravo::platform {

namespace {

struct management_state {
    management_settings settings;
    management_socket socket;
    event_ptr readable;  // somebody connects
    event_ptr resume;    // takes connections again after the process had no descriptor for one
    std::vector<management_session_ptr> sessions;
    unsigned next_number = 1;
};

std::unique_ptr<management_state> state;

constexpr int connections_a_turn = 16;
constexpr timeval resume_after{1, 0};

void on_session_end(management_session *s) {
    std::erase_if(state->sessions, [s](const management_session_ptr &held) { return held.get() == s; });
}

// Tells a connection that it is not taken, and closes it. The few bytes fit any new socket's buffer.
void turn_away(int fd, protocol::refusal reason, const std::string &why) {
    const protocol::bytes frame = protocol::refused_frame({reason, why});
    (void)send(fd, frame.data(), frame.size(), MSG_NOSIGNAL | MSG_DONTWAIT);  // a peer that has gone needs no reason
    close(fd);
}

management_groups current_groups() {
    return {management_group_id(state->settings.viewers), management_group_id(state->settings.admins)};
}

std::string both_groups() {
    return state->settings.viewers + " or " + state->settings.admins;
}

void take_connection(int fd) {
    const std::optional<management_peer> peer = management_peer_of(fd);
    if (!peer) {
        log_line(log_level_warning, "management: refused a connection: the kernel does not tell whose it is: %s",
                 strerrordesc_np(errno));
        turn_away(fd, protocol::refusal::not_permitted, "the kernel does not tell whose connection this is");
        return;
    }
    // Groups may be made while the daemon runs; root needs none.
    const management_rights rights =
        management_rights_of(*peer, peer->uid == 0 ? management_groups{} : current_groups());
    if (rights.privilege == 0) {
        log_line(log_level_warning, "management: refused user %s (%u), process %d: no member of group %s",
                 peer->user.c_str(), peer->uid, peer->pid, both_groups().c_str());
        turn_away(fd, protocol::refusal::not_permitted,
                  "permission denied: user " + peer->user + " is no member of group " + both_groups());
        return;
    }
    if (state->sessions.size() >= state->settings.sessions) {
        log_line(log_level_warning, "management: refused user %s (%u), process %d: all %zu sessions are in use",
                 peer->user.c_str(), peer->uid, peer->pid, state->settings.sessions);
        turn_away(fd, protocol::refusal::too_many,
                  "all " + std::to_string(state->settings.sessions) + " sessions are in use; end one of them first");
        return;
    }
    management_session_ptr session =
        management_session_open(fd, state->next_number++, *peer, rights, state->settings, on_session_end);
    if (session != nullptr) state->sessions.push_back(std::move(session));
}

// The connection stays in the kernel's queue and would wake us for ever: look again a little later.
void pause_connections(int error) {
    log_line(log_level_warning, "management: cannot take a connection now: %s", strerrordesc_np(error));
    event_del(state->readable.get());
    evtimer_add(state->resume.get(), &resume_after);
}

void on_connection(evutil_socket_t listener, short /*what*/, void * /*arg*/) {
    for (int i = 0; i < connections_a_turn; ++i) {
        const int fd = accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd >= 0) {
            take_connection(fd);
            continue;
        }
        if (errno == EAGAIN || errno == EWOULDBLOCK) return;
        if (errno == EINTR || errno == ECONNABORTED) continue;
        pause_connections(errno);
        return;
    }
}

void on_resume(evutil_socket_t /*fd*/, short /*what*/, void * /*arg*/) {
    event_add(state->readable.get(), nullptr);
}

}  // namespace

std::string management_open_with(const std::string &path, const management_settings &settings) {
    management_close();
    auto made = std::make_unique<management_state>();
    made->settings = settings;
    const management_groups groups{management_group_id(settings.viewers), management_group_id(settings.admins)};
    std::string reason = management_socket_listen(path, groups, &made->socket);
    if (!reason.empty()) return reason;
    // A client that goes away while it is written to is an error of that write and nothing else.
    std::signal(SIGPIPE, SIG_IGN);
    made->readable.reset(event_new(loop_base(), made->socket.fd, EV_READ | EV_PERSIST, on_connection, nullptr));
    made->resume.reset(evtimer_new(loop_base(), on_resume, nullptr));
    if (made->readable == nullptr || made->resume == nullptr || event_add(made->readable.get(), nullptr) != 0)
        return path + ": cannot watch the management socket: no memory";
    state = std::move(made);
    return {};
}

std::string management_open(const std::string &path) {
    return management_open_with(path, {});
}

std::string management_check(const std::string &path) {
    return management_socket_check(path);
}

void management_close() {
    if (state == nullptr) return;
    for (const management_session_ptr &session : state->sessions) management_session_flush(*session);
    // Sessions go before the settings they look at.
    state->sessions.clear();
    state.reset();
}

std::size_t management_sessions() {
    return state == nullptr ? 0 : state->sessions.size();
}

}  // namespace ravo::platform

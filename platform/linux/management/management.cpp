// SPDX-License-Identifier: Apache-2.0
// The socket takes connections and turns each into a session, or refuses it: the peer may be nobody who is allowed in,
// or there may be too many sessions. First the system is asked for the names of the peer's user and of the groups, by
// another thread (management_names.h); root is known without asking, and gets in even when the system does not answer.
// A session that ends reports that from the event loop, and is deleted then.
#include "management/management.h"

#include <event2/event.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <memory>
#include <new>
#include <vector>

#include "base/loop.h"
#include "base/owners.h"
#include "log/log.h"
#include "management/management_open.h"
#include "management/management_socket.h"
#include "management/management_turns.h"
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
management_limits limits;

void apply_limits(management_settings *out) {
    out->sessions = limits.sessions;
    out->per_user = limits.per_user;
    out->idle_seconds = 60.0 * limits.idle_minutes;
}

constexpr int connections_a_turn = 16;
constexpr timeval resume_after{1, 0};

void on_session_end(management_session *s) {
    std::erase_if(state->sessions, [s](const management_session_ptr &held) { return held.get() == s; });
}

// Tells a connection that it is not taken, and closes it.
void turn_away(descriptor fd, protocol::refusal reason, const std::string &why) {
    const protocol::bytes frame = protocol::refused_frame({reason, why});
    // The few bytes fit any new socket's buffer; a peer that has gone needs no reason.
    (void)send(fd.get(), frame.data(), frame.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
}

std::string both_groups() {
    return state->settings.viewers + " or " + state->settings.admins;
}

// ---- Who may come in ----

std::size_t sessions_of(uid_t uid) {
    return static_cast<std::size_t>(std::count_if(
        state->sessions.begin(), state->sessions.end(),
        [uid](const management_session_ptr &each) { return management_session_about(*each).uid == uid; }));
}

// Why there is no room for a session.
fault no_room(const management_peer &peer, const management_rights &rights) {
    const management_settings &set = state->settings;
    const std::size_t open = state->sessions.size();
    if (open >= set.sessions)
        return {"all " + std::to_string(set.sessions) + " sessions are in use; end one of them first"};
    if (!rights.may_change && open + set.kept_sessions >= set.sessions)
        return {"all sessions for viewers are in use; the last " + std::to_string(set.kept_sessions) +
                " are kept for root and administrators"};
    if (peer.uid != 0 && sessions_of(peer.uid) >= set.per_user)
        return {"user " + peer.user + " has " + std::to_string(set.per_user) + " sessions; end one of them first"};
    return {};
}

void open_session(descriptor fd, const management_peer &peer, const management_rights &rights) {
    const fault wrong = no_room(peer, rights);
    if (wrong) {
        log_line(log_level_warning, "management: refused user %s (%u), process %d: %s", peer.user.c_str(), peer.uid,
                 peer.pid, wrong.text.c_str());
        return turn_away(std::move(fd), protocol::refusal::too_many, wrong.text);
    }
    management_session_ptr session =
        management_session_open(std::move(fd), state->next_number++, peer, rights, state->settings, on_session_end);
    if (session != nullptr) state->sessions.push_back(std::move(session));
}

// Takes or refuses a connection whose user is known.
void decide(descriptor fd, management_peer peer, const known_names &names) {
    peer.user = names.user;
    const management_rights rights = management_rights_of(peer, names.groups);
    if (rights.privilege != 0) return open_session(std::move(fd), peer, rights);
    const std::string why = names.groups_known
                                ? "no member of group " + both_groups()
                                : "the system does not tell who the members of group " + both_groups() + " are";
    log_line(log_level_warning, "management: refused user %s (%u), process %d: %s", peer.user.c_str(), peer.uid,
             peer.pid, why.c_str());
    turn_away(std::move(fd), protocol::refusal::not_permitted,
              "permission denied: user " + peer.user + (names.groups_known ? " is " : ": ") + why);
}

// Asks who a peer is, and decides then. Until then the function that takes the answer owns the connection.
void ask_who(descriptor fd, const management_peer &peer) {
    const auto held = std::make_shared<descriptor>(std::move(fd));
    const bool asked = names_ask(peer.uid, state->settings.names_seconds, [held, peer](const known_names &names) {
        if (state != nullptr) decide(std::move(*held), peer, names);
    });
    if (asked) return;
    log_line(log_level_warning, "management: refused user %u, process %d: too many others wait to be let in", peer.uid,
             peer.pid);
    turn_away(std::move(*held), protocol::refusal::too_many, "too many others wait to be let in; try again");
}

void take_connection(descriptor fd) {
    const std::optional<management_peer> peer = management_peer_of(fd.get());
    if (!peer) {
        log_line(log_level_warning, "management: refused a connection: the kernel does not tell whose it is: %s",
                 strerrordesc_np(errno));
        turn_away(std::move(fd), protocol::refusal::not_permitted, "the kernel does not tell whose connection this is");
        return;
    }
    if (peer->uid == 0)
        decide(std::move(fd), *peer, {"root", {}, true});
    else
        ask_who(std::move(fd), *peer);
}

// ---- Connections ----

// The connection stays in the kernel's queue, and the event would come again at once: look again a little later.
void pause_connections(int error) {
    log_line(log_level_warning, "management: cannot take a connection now: %s", strerrordesc_np(error));
    event_del(state->readable.get());
    evtimer_add(state->resume.get(), &resume_after);
}

void on_connection(evutil_socket_t listener, short /*what*/, void * /*arg*/) {
    for (int i = 0; i < connections_a_turn; ++i) {
        descriptor fd(accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
        if (fd) {
            try {
                take_connection(std::move(fd));
            } catch (const std::bad_alloc &) {
                log_line(log_level_warning, "management: closed a connection: no memory is left for it");
            }
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

fault watch(management_state &made) {
    made.readable.reset(event_new(loop_base(), made.socket.fd, EV_READ | EV_PERSIST, on_connection, nullptr));
    made.resume.reset(evtimer_new(loop_base(), on_resume, nullptr));
    if (made.readable == nullptr || made.resume == nullptr || event_add(made.readable.get(), nullptr) != 0 ||
        !management_turns_open())
        return {"cannot watch the management socket: no memory"};
    return {};
}

}  // namespace

fault management_open_with(const std::string &path, const management_settings &settings, name_service names) {
    management_close();
    auto made = std::make_unique<management_state>();
    made->settings = settings;
    fault wrong = names_open(settings.viewers, settings.admins, std::move(names));
    if (wrong) return {path + ": " + wrong.text};
    wrong = management_socket_listen(path, names_wait(settings.names_seconds), &made->socket);
    if (wrong) return wrong;
    // A client that goes away while it is written to is an error of that write and nothing else.
    std::signal(SIGPIPE, SIG_IGN);
    wrong = watch(*made);
    if (wrong) return {path + ": " + wrong.text};
    state = std::move(made);
    return {};
}

fault management_open(const std::string &path) {
    management_settings settings;
    apply_limits(&settings);
    return management_open_with(path, settings, system_names());
}

void management_limit(const management_limits &wanted) {
    limits = wanted;
    if (state != nullptr) apply_limits(&state->settings);
}

fault management_check(const std::string &path) {
    return management_socket_check(path);
}

void management_close() {
    names_close();
    if (state == nullptr) return;
    for (const management_session_ptr &session : state->sessions) management_session_flush(*session);
    // Sessions go before the settings they look at.
    state->sessions.clear();
    management_turns_close();
    state.reset();
}

std::size_t management_sessions() {
    return state == nullptr ? 0 : state->sessions.size();
}

std::vector<session_about> management_session_list() {
    std::vector<session_about> out;
    if (state == nullptr) return out;
    for (const management_session_ptr &each : state->sessions) out.push_back(management_session_about(*each));
    return out;
}

bool management_session_clear(unsigned number, const std::string &by) {
    if (state == nullptr) return false;
    for (const management_session_ptr &each : state->sessions) {
        if (management_session_about(*each).number != number) continue;
        management_session_end(*each, "user " + by + " cleared it");
        return true;
    }
    return false;
}

}  // namespace ravo::platform

// SPDX-License-Identifier: Apache-2.0
// The thread takes questions from a list and puts answers on another; an event counter wakes the event loop for them.
// Each question has a timer: when it is over first, the question is answered from what was known, and the late answer
// is only remembered. When the system hangs, all questions end so; the thread hangs alone, and is left behind at the
// end.
#include "management/management_names.h"

#include <event2/event.h>
#include <grp.h>
#include <pwd.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <utility>
#include <vector>

#include "base/loop.h"
#include "base/owners.h"
#include "base/threads.h"
#include "management/management_state.h"

namespace ravo::platform {

namespace {

constexpr std::size_t first_room = 1024;
constexpr std::size_t most_room = std::size_t{1} << 20;
constexpr std::size_t most_questions = 64;
constexpr std::size_t most_users = 256;

// Calls a lookup of the user or group database with as much room as it asks for.
template <typename lookup>
bool with_room(lookup call) {
    for (std::vector<char> room(first_room); room.size() <= most_room; room.resize(2 * room.size())) {
        const int error = call(room);
        if (error != ERANGE) return error == 0;
    }
    return false;
}

std::string user_name(uid_t uid) {
    passwd entry{};
    passwd *found = nullptr;
    std::string name;
    (void)with_room([&](std::vector<char> &room) {  // without an answer there is no name
        const int error = getpwuid_r(uid, &entry, room.data(), room.size(), &found);
        if (error == 0 && found != nullptr) name = found->pw_name;
        return error;
    });
    return name;
}

std::optional<gid_t> group_number(const std::string &name) {
    group entry{};
    group *found = nullptr;
    const bool good = with_room(
        [&](std::vector<char> &room) { return getgrnam_r(name.c_str(), &entry, room.data(), room.size(), &found); });
    if (!good || found == nullptr) return std::nullopt;
    return entry.gr_gid;
}

// ---- What both threads use ----

struct question {
    unsigned id;
    std::optional<uid_t> uid;  // none: the groups only
};

struct answer {
    unsigned id;
    std::optional<uid_t> uid;
    std::string user;
    management_groups groups;
};

struct desk {
    std::string viewers, admins;
    name_service service;
    descriptor wake;  // event counter
    std::mutex lock;
    std::condition_variable changed;
    std::deque<question> questions;
    std::deque<answer> answers;
    bool closed = false;
};

void give(desk &at, answer found) {
    {
        const std::lock_guard hold(at.lock);
        at.answers.push_back(std::move(found));
    }
    at.changed.notify_all();
    constexpr std::uint64_t once = 1;
    (void)!write(at.wake.get(), &once, sizeof once);
}

void work(const std::shared_ptr<desk> &at) {
    std::unique_lock hold(at->lock);
    for (;;) {
        at->changed.wait(hold, [&] { return at->closed || !at->questions.empty(); });
        if (at->closed) return;
        const question asked = at->questions.front();
        at->questions.pop_front();
        hold.unlock();
        try {
            answer found{
                asked.id, asked.uid, {}, {at->service.group_id(at->viewers), at->service.group_id(at->admins)}};
            if (asked.uid) found.user = at->service.user(*asked.uid);
            give(*at, std::move(found));
        } catch (const std::bad_alloc &) {
            // Whoever asked is answered when the time is over.
        }
        hold.lock();
    }
}

// ---- The event loop's side ----

struct waiting_question {
    unsigned id;
    uid_t uid;
    names_answer done;
    event_ptr over;  // its time
};

struct names_state {
    std::shared_ptr<desk> at;  // the thread has it too
    event_ptr readable;
    std::list<waiting_question> waiting;
    std::map<uid_t, std::string> users;  // as far as they are known
    management_groups groups;            // likewise
    bool groups_known = false;
    unsigned next_id = 1;
};

std::unique_ptr<names_state> state;

known_names known(uid_t uid) {
    const auto found = state->users.find(uid);
    const bool named = found != state->users.end() && !found->second.empty();
    return {named ? found->second : std::to_string(uid), state->groups, state->groups_known};
}

void remember(const answer &found) {
    state->groups = found.groups;
    state->groups_known = true;
    if (!found.uid) return;
    if (state->users.size() >= most_users && !state->users.contains(*found.uid)) state->users.clear();
    state->users[*found.uid] = found.user;
}

// Answers a question, which is forgotten first: what is called may ask another.
void answer_now(std::list<waiting_question>::iterator which) {
    const waiting_question asked = std::move(*which);
    state->waiting.erase(which);
    asked.done(known(asked.uid));
}

void on_over(evutil_socket_t /*fd*/, short /*what*/, void *arg) {
    const auto id = static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(arg));
    const auto which = std::find_if(state->waiting.begin(), state->waiting.end(),
                                    [id](const waiting_question &each) { return each.id == id; });
    if (which != state->waiting.end()) answer_now(which);
}

void take_answers() {
    std::deque<answer> answers;
    {
        const std::lock_guard hold(state->at->lock);
        answers.swap(state->at->answers);
    }
    for (const answer &each : answers) {
        remember(each);
        on_over(-1, 0, reinterpret_cast<void *>(static_cast<std::uintptr_t>(each.id)));
        if (state == nullptr) return;
    }
}

void on_wake(evutil_socket_t fd, short /*what*/, void * /*arg*/) {
    std::uint64_t times = 0;
    (void)!read(fd, &times, sizeof times);
    try {
        take_answers();
    } catch (const std::bad_alloc &) {
        // Those who wait are answered when their time is over.
    }
}

void ask(std::optional<uid_t> uid, unsigned id) {
    {
        const std::lock_guard hold(state->at->lock);
        if (state->at->questions.size() < most_questions) state->at->questions.push_back({id, uid});
    }
    state->at->changed.notify_all();
}

}  // namespace

name_service system_names() {
    return {user_name, group_number};
}

fault names_open(const std::string &viewers, const std::string &admins, name_service service) {
    names_close();
    auto made = std::make_unique<names_state>();
    made->at = std::make_shared<desk>();
    made->at->viewers = viewers;
    made->at->admins = admins;
    made->at->service = std::move(service);
    made->at->wake.reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!made->at->wake) return {std::string("cannot make an event counter: ") + strerrordesc_np(errno)};
    made->readable.reset(event_new(loop_base(), made->at->wake.get(), EV_READ | EV_PERSIST, on_wake, nullptr));
    if (made->readable == nullptr || event_add(made->readable.get(), nullptr) != 0) return {"no memory"};
    if (const int reason = start_thread([at = made->at] { work(at); }); reason != 0)
        return {std::string("cannot start a thread: ") + strerrordesc_np(reason)};
    state = std::move(made);
    return {};
}

void names_close() {
    if (state == nullptr) return;
    {
        const std::lock_guard hold(state->at->lock);
        state->at->closed = true;
    }
    state->at->changed.notify_all();
    state.reset();
}

bool names_ask(uid_t uid, double seconds, names_answer done) {
    if (state == nullptr || state->waiting.size() >= most_questions) return false;
    const unsigned id = state->next_id++;
    waiting_question made{id, uid, std::move(done), {}};
    made.over.reset(evtimer_new(loop_base(), on_over, reinterpret_cast<void *>(static_cast<std::uintptr_t>(id))));
    const timeval time = to_timeval(seconds);
    if (made.over == nullptr || evtimer_add(made.over.get(), &time) != 0) return false;
    state->waiting.push_back(std::move(made));
    ask(uid, id);
    return true;
}

management_groups names_wait(double seconds) {
    if (state == nullptr) return {};
    ask(std::nullopt, 0);
    std::unique_lock hold(state->at->lock);
    state->at->changed.wait_for(hold, std::chrono::duration<double>(seconds),
                                [] { return !state->at->answers.empty(); });
    for (const answer &each : state->at->answers) remember(each);
    return state->groups;
}

}  // namespace ravo::platform

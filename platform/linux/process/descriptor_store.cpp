// SPDX-License-Identifier: Apache-2.0
// The environment says what was given (sd_listen_fds(3)): descriptors from 3 on, and their names with colons between
// them. Of several with one name nobody could say which is which, so none of them is taken.
#include "process/descriptor_store.h"

#include <event2/event.h>
#include <fcntl.h>

#include <algorithm>
#include <cstdlib>
#include <deque>
#include <set>
#include <string_view>
#include <vector>

#include "base/loop.h"
#include "log/log.h"
#include "process/init_system.h"

namespace ravo::platform {

namespace {

constexpr int first_given = 3;
constexpr std::size_t most_given = 64;

struct given_descriptor {
    std::string name;
    descriptor fd;
};

std::vector<given_descriptor> given;
std::set<std::string> kept;

// What the init system had no room for; it is sent again later, in the same order.
struct late_word {
    std::string text;
    descriptor fd;
};
std::deque<late_word> late;
event_ptr retry;
constexpr timeval retry_interval{.tv_sec = 0, .tv_usec = 20'000};
constexpr std::size_t most_late = 64;

void tell_late();

void on_retry(evutil_socket_t /*fd*/, short /*what*/, void * /*arg*/) {
    tell_late();
}

void tell_late() {
    while (!late.empty() && init_system_tell_store(late.front().text, late.front().fd.get())) late.pop_front();
    if (late.empty()) return;
    if (retry == nullptr) retry.reset(evtimer_new(loop_base(), on_retry, nullptr));
    if (retry != nullptr) event_add(retry.get(), &retry_interval);
}

// fd: stays the caller's; -1: none.
void tell(const std::string &text, int fd = -1) {
    if (late.empty() && init_system_tell_store(text, fd)) return;
    if (late.size() == most_late)
        return log_line(log_level_warning, "the init system does not listen: \"%s\" is not told to it",
                        text.substr(text.rfind('\n') + 1).c_str());
    late.push_back({text, descriptor(fd < 0 ? -1 : fcntl(fd, F_DUPFD_CLOEXEC, 0))});
    tell_late();
}

// The next part of a text up to a colon, which is taken off it.
std::string next_name(std::string_view &names) {
    const std::size_t end = std::min(names.find(':'), names.size());
    std::string name(names.substr(0, end));
    names.remove_prefix(std::min(end + 1, names.size()));
    return name;
}

}  // namespace

void store_begin() {
    const std::size_t count = init_system_descriptors();
    const char *all = std::getenv("LISTEN_FDNAMES");
    std::string_view names = all == nullptr ? "" : all;
    for (std::size_t i = 0; i < std::min(count, most_given); ++i) {
        const int fd = first_given + static_cast<int>(i);
        std::string name = next_name(names);
        if (fcntl(fd, F_SETFD, FD_CLOEXEC) != 0) continue;  // there is none of this number
        given.push_back({std::move(name), descriptor(fd)});
    }
    for (const char *variable : {"LISTEN_PID", "LISTEN_FDS", "LISTEN_FDNAMES"}) (void)unsetenv(variable);
}

bool store_has(const std::string &name) {
    return std::any_of(given.begin(), given.end(), [&](const given_descriptor &each) { return each.name == name; });
}

descriptor store_take(const std::string &name) {
    const auto is_it = [&](const given_descriptor &each) { return each.name == name; };
    const auto found = std::find_if(given.begin(), given.end(), is_it);
    if (found == given.end() || std::any_of(found + 1, given.end(), is_it)) return {};
    descriptor taken = std::move(found->fd);
    given.erase(found);
    kept.insert(name);
    return taken;
}

void store_keep(const std::string &name, int fd) {
    kept.insert(name);
    tell("FDSTORE=1\nFDPOLL=0\nFDNAME=" + name, fd);
}

void store_forget(const std::string &name) {
    if (kept.erase(name) != 0) tell("FDSTOREREMOVE=1\nFDNAME=" + name);
}

void store_end_of_start() {
    for (const given_descriptor &each : given) {
        log_line(log_level_warning, "ravod: it was given a descriptor \"%s\" that it does not use; it is closed",
                 each.name.c_str());
        tell("FDSTOREREMOVE=1\nFDNAME=" + each.name);
    }
    given.clear();
}

void store_close() {
    retry.reset();
    late.clear();
}

}  // namespace ravo::platform

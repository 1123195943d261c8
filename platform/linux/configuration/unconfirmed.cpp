// SPDX-License-Identifier: Apache-2.0
// The file has the end of the time as seconds since 1970 in its first line, and the configuration behind it.
#include "configuration/unconfirmed.h"

#include <event2/event.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "base/clock.h"
#include "base/files.h"
#include "base/loop.h"
#include "base/owners.h"
#include "configuration/configuration.h"
#include "configuration/replace.h"
#include "log/log.h"
#include "process/state_folder.h"

namespace ravo::cli {

namespace {

constexpr std::int64_t second = 1000000;
constexpr mode_t file_mode = 0600;

platform::event_ptr timer;
std::string before_text;
std::int64_t end_s = 0;  // seconds since 1970; 0: nothing waits

std::string file_path() {
    return platform::state_path("unconfirmed");
}

std::int64_t now_s() {
    return platform::wall_clock_us() / second;
}

void forget() {
    timer.reset();
    end_s = 0;
    before_text.clear();
    if (!file_path().empty()) (void)unlink(file_path().c_str());
}

void go_back() {
    configuration wanted;
    (void)read_model(before_text, &wanted, [](std::size_t, const std::string &) {});
    const std::size_t changes = count_changes(difference(running_model(), wanted));
    const fault wrong = make_running(wanted);
    if (!wrong)
        platform::log_line(platform::log_level_warning,
                           "configuration: not confirmed in time, the one before is in force again: %zu lines changed",
                           changes);
    else
        platform::log_line(platform::log_level_error, "configuration: not confirmed in time; %s", wrong.text.c_str());
    forget();
}

void on_end(evutil_socket_t /*fd*/, short /*what*/, void * /*arg*/) {
    go_back();
}

void arm() {
    const timeval left = {.tv_sec = static_cast<time_t>(std::max<std::int64_t>(end_s - now_s(), 0)), .tv_usec = 0};
    timer.reset(evtimer_new(platform::loop_base(), on_end, nullptr));
    if (timer == nullptr || evtimer_add(timer.get(), &left) != 0)
        platform::log_line(platform::log_level_error, "configuration: no memory for the time to confirm");
}

}  // namespace

fault unconfirmed_begin(const std::string &before, int minutes) {
    if (end_s == 0) before_text = before;
    end_s = now_s() + std::int64_t{60} * minutes;
    arm();
    if (file_path().empty()) return {"There is no state folder: a restart confirms the configuration"};
    const int failed = platform::replace_file(file_path(), std::to_string(end_s) + "\n" + before_text, file_mode);
    if (failed == 0) return {};
    return {file_path() + " cannot be written: " + std::strerror(failed) + "; a restart confirms"};
}

bool unconfirmed_confirm() {
    if (end_s == 0) return false;
    forget();
    return true;
}

std::optional<std::int64_t> unconfirmed_left() {
    if (end_s == 0) return std::nullopt;
    return std::max<std::int64_t>(end_s - now_s(), 0);
}

void unconfirmed_resume() {
    std::string text;
    if (file_path().empty() || platform::read_file(file_path(), configuration_limit, &text) != 0) return;
    const std::size_t line = text.find('\n');
    end_s = std::atoll(text.c_str());
    if (line == std::string::npos || end_s <= 0) {
        platform::log_line(platform::log_level_error, "%s is damaged and not used", file_path().c_str());
        forget();
        return;
    }
    before_text = text.substr(line + 1);
    if (end_s <= now_s()) return go_back();
    platform::log_line(platform::log_level_warning,
                       "configuration: it goes back in %lld s unless \"configure confirm\" comes before",
                       static_cast<long long>(end_s - now_s()));
    arm();
}

void unconfirmed_end() {
    timer.reset();
}

}  // namespace ravo::cli

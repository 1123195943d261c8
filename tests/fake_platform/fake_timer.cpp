// SPDX-License-Identifier: Apache-2.0
// A list of timers under a clock that moves only when told. Creating a timer on an object that has one replaces it, as
// the daemon may rely on.
#include "fake_timer.h"

#include <algorithm>

#include "fake_script.h"

namespace fake {

std::vector<std::string> timer_calls;

namespace {

std::vector<timer> scheduled;
std::uint64_t clock_seconds = 0;

auto find_timer(const osal_timer *object) {
    return std::find_if(scheduled.begin(), scheduled.end(),
                        [object](const timer &entry) { return entry.object == object; });
}

}  // namespace

std::vector<timer> timers() {
    std::vector<timer> result = scheduled;
    std::stable_sort(result.begin(), result.end(), [](const timer &a, const timer &b) { return a.due < b.due; });
    return result;
}

std::uint64_t now() {
    return clock_seconds;
}

void advance(std::uint64_t seconds) {
    const std::uint64_t end = clock_seconds + seconds;
    while (true) {
        const std::vector<timer> ordered = timers();
        if (ordered.empty() || ordered.front().due > end) break;
        const timer next = ordered.front();
        scheduled.erase(find_timer(next.object));
        clock_seconds = next.due;
        const_cast<osal_timer *>(next.object)->armed = 0;
        next.callback(next.arg);
    }
    clock_seconds = end;
}

bool timer_within(const void *memory, std::size_t size) {
    const auto begin = reinterpret_cast<std::uintptr_t>(memory);
    return std::any_of(scheduled.begin(), scheduled.end(), [=](const timer &entry) {
        const auto at = reinterpret_cast<std::uintptr_t>(entry.object);
        return at >= begin && at < begin + size;
    });
}

void reset_timers() {
    scheduled.clear();
    timer_calls.clear();
    clock_seconds = 0;
}

}  // namespace fake

int OSAL_ZEBOS_Create_Sec_Once_Timer(osal_timer *timer, const char *name, osal_timer_callback callback,
                                     std::uint32_t seconds, int repeat, void *arg) {
    if (fake::scripted(fake::op::create_timer)) return -1;
    const auto old = fake::find_timer(timer);
    const bool replaces = old != fake::scheduled.end();
    if (replaces) fake::scheduled.erase(old);
    fake::timer_calls.push_back(std::string(replaces ? "replace " : "create ") + name + " " + std::to_string(seconds) +
                                " s, repeat " + std::to_string(repeat));
    fake::scheduled.push_back({timer, name, fake::clock_seconds + seconds, repeat, callback, arg});
    timer->armed = 1;
    return 0;
}

void OSAL_ZEBOS_Delete_Timer(osal_timer *timer) {
    fake::timer_calls.push_back("delete");
    const auto old = fake::find_timer(timer);
    if (old != fake::scheduled.end()) fake::scheduled.erase(old);
    timer->armed = 0;
}

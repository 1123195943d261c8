// A tap is a device's place at the gate. Nothing else is held for it: a device that goes down and comes up, or that is
// removed and made again under the same number, is heard as before.

#include "channel/taps.h"

#include <cerrno>
#include <cstring>
#include <map>
#include <utility>
#include <vector>

#include "inventory/inventory.h"
#include "log/log.h"
#include "trap/trap.h"

namespace ravo::platform {
namespace {

// Only what is heard is trapped: what nobody hears would be lost.
void trap_heard(const std::unordered_map<int, tap> &taps) {
    std::vector<tap_device> heard;
    for (const auto &[kernel_ifindex, t] : taps)
        if (t.state == tap_state::heard && !t.uplink) heard.push_back({kernel_ifindex, t.name});
    trap_follow(std::move(heard));
}

}  // namespace

// Returns 0, or the reason as errno.
int tap_table::open(gate &at, int kernel_ifindex, tap &t) {
    if (t.place == gate::no_place) t.place = at.give_place();
    if (t.place == gate::no_place) return errno;
    return at.let_in(kernel_ifindex, t.place);
}

void tap_table::hear(gate &at, int kernel_ifindex, tap &t) {
    const int reason = open(at, kernel_ifindex, t);
    t.state = reason == 0 ? tap_state::heard : tap_state::failed;
    if (reason == 0) return;
    log_line(log_level_error, "cannot listen on device %s: %s", t.name.c_str(),
             reason == ENOSPC ? "there are more devices than the relay can listen on" : std::strerror(reason));
}

void tap_table::follow(gate &at) {
    std::map<int, tap_device> wanted;
    for (tap_device &device : inventory_taps()) wanted.emplace(device.kernel_ifindex, std::move(device));
    for (auto &[kernel_ifindex, t] : taps_) {
        if (wanted.contains(kernel_ifindex) || t.state == tap_state::gone) continue;
        at.shut_out(kernel_ifindex);
        t.state = tap_state::gone;
        some_gone_ = true;
    }
    for (auto &[kernel_ifindex, device] : wanted) {
        tap &t = taps_[kernel_ifindex];
        t.name = std::move(device.name);
        t.uplink = device.uplink;
        if (t.state == tap_state::gone) hear(at, kernel_ifindex, t);
    }
    trap_heard(taps_);
}

std::uint64_t tap_table::take_crowded(const gate &at) {
    std::uint64_t sum = 0;
    for (auto &[kernel_ifindex, t] : taps_) {
        if (t.place == gate::no_place) continue;
        const std::uint64_t now = at.counts(t.place).crowded;
        sum += now - std::exchange(t.crowded, now);
    }
    return sum;
}

void tap_table::forget_gone(gate &at) {
    if (!std::exchange(some_gone_, false)) return;
    for (auto it = taps_.begin(); it != taps_.end();) {
        if (it->second.state != tap_state::gone) {
            ++it;
            continue;
        }
        if (it->second.place != gate::no_place) at.free_place(it->second.place);
        it = taps_.erase(it);
    }
}

}  // namespace ravo::platform

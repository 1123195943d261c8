// SPDX-License-Identifier: Apache-2.0
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
int tap_table::open(gate &at, tap &t) {
    if (t.place == gate::no_place) {
        t.place = at.give_place();
        t.told = {};
    }
    if (t.place == gate::no_place) return errno;
    return at.let_in(t.kernel_ifindex, t.place);
}

void tap_table::hear(gate &at, const port_limits &limits, tap &t) {
    const int reason = open(at, t);
    t.state = reason == 0 ? tap_state::heard : tap_state::failed;
    if (t.place != gate::no_place) at.set_rate(t.place, limits.of(t.name, t.uplink));
    if (reason == 0) return;
    log_line(log_level_error, "cannot listen on device %s: %s", t.name.c_str(),
             reason == ENOSPC ? "there are more devices than the relay can listen on" : std::strerror(reason));
}

void tap_table::follow(gate &at, const port_limits &limits) {
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
        const bool same = t.name == device.name && t.uplink == device.uplink;
        t.kernel_ifindex = kernel_ifindex;
        t.name = std::move(device.name);
        t.uplink = device.uplink;
        if (t.state == tap_state::gone)
            hear(at, limits, t);
        else if (!same && t.place != gate::no_place)
            at.set_rate(t.place, limits.of(t.name, t.uplink));
    }
    trap_heard(taps_);
}

void tap_table::set_limits(gate &at, const port_limits &limits) {
    for (const auto &[kernel_ifindex, t] : taps_)
        if (t.place != gate::no_place) at.set_rate(t.place, limits.of(t.name, t.uplink));
}

tap *tap_table::at_place(std::size_t place) {
    for (auto &[kernel_ifindex, t] : taps_)
        if (t.place == place) return &t;
    return nullptr;
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

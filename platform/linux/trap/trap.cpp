// SPDX-License-Identifier: Apache-2.0
// Which devices are trapped: those that the channel hears and the description wants trapped, as long as the channel is
// open. Filters are put in place anew at every change, as a device that was removed and made again has its old number
// and none of its filters.
#include "trap/trap.h"

#include <net/if.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "log/log.h"
#include "trap/trap_filter.h"

namespace ravo::platform {

namespace {

struct trapped_device {
    std::string name;
    bool own_qdisc = false;  // the filter's place is ours to remove
};

bool trap_all = false;
std::map<std::string, bool> trap_of_device;  // where a port says something of its own

bool in_force = false;
std::vector<tap_device> heard_devices;
std::map<int, trapped_device> trapped;  // by the kernel's device number
std::set<std::string> failed;           // devices whose failure was logged

bool is_wanted(const std::string &device) {
    const auto own = trap_of_device.find(device);
    return own == trap_of_device.end() ? trap_all : own->second;
}

const char *reason_text(int reason) {
    if (reason == ENOENT || reason == EOPNOTSUPP)
        return "this kernel has no clsact qdisc (CONFIG_NET_SCH_INGRESS) or no BPF classifier (CONFIG_NET_CLS_BPF)";
    // What no description asked for at the start has been given up then.
    if (reason == EPERM)
        return "CAP_NET_ADMIN is missing; start ravod anew, in systemd with this capability (ravod(8))";
    return std::strerror(reason);
}

void log_failure(const std::string &device, int reason) {
    if (!failed.insert(device).second) return;
    log_line(log_level_error, "cannot trap clients' broadcasts on device %s: %s; they are forwarded by the bridge too",
             device.c_str(), reason_text(reason));
}

void trap_device(const tap_device &device) {
    const auto known = trapped.find(device.kernel_ifindex);
    bool own_qdisc = known != trapped.end() && known->second.own_qdisc;
    const int reason = trap_filter_add(device.kernel_ifindex, &own_qdisc);
    if (reason == ENODEV) return;  // the inventory is about to say so
    if (reason != 0) return log_failure(device.name, reason);
    failed.erase(device.name);
    trapped[device.kernel_ifindex] = {.name = device.name, .own_qdisc = own_qdisc};
}

void free_device(int kernel_ifindex, const trapped_device &device) {
    const int reason = trap_filter_remove(kernel_ifindex, device.own_qdisc);
    if (reason != 0)
        log_line(log_level_error,
                 "cannot remove the trap from device %s: %s; \"tc filter del dev %s ingress pref 67\" does",
                 device.name.c_str(), std::strerror(reason), device.name.c_str());
}

struct name_list_free {
    void operator()(struct if_nameindex *list) const { if_freenameindex(list); }
};

}  // namespace

void trap_describe(const switch_description &description) {
    trap_all = description.channel.trap;
    trap_of_device.clear();
    for (const described_port &port : description.ports)
        if (port.trap) trap_of_device[port.device] = *port.trap;
    failed.clear();
    if (in_force) trap_follow(std::exchange(heard_devices, {}));
}

void trap_remove_stale() {
    const std::unique_ptr<struct if_nameindex, name_list_free> devices(if_nameindex());
    if (devices == nullptr) return;
    for (const struct if_nameindex *each = devices.get(); each->if_index != 0; ++each) {
        const int kernel_ifindex = static_cast<int>(each->if_index);
        if (!trap_filter_exists(kernel_ifindex)) continue;
        log_line(log_level_warning, "device %s still had the trap of a relay that ended without removing it",
                 each->if_name);
        const bool own_qdisc = trap_filter_has_own_qdisc(kernel_ifindex);
        free_device(kernel_ifindex, {.name = each->if_name, .own_qdisc = own_qdisc});
    }
}

void trap_follow(std::vector<tap_device> heard) {
    in_force = true;
    heard_devices = std::move(heard);
    std::map<int, tap_device> wanted;
    for (const tap_device &device : heard_devices)
        if (is_wanted(device.name)) wanted.emplace(device.kernel_ifindex, device);
    for (auto it = trapped.begin(); it != trapped.end();) {
        if (wanted.contains(it->first)) {
            ++it;
        } else {
            free_device(it->first, it->second);
            it = trapped.erase(it);
        }
    }
    for (const auto &[kernel_ifindex, device] : wanted) trap_device(device);
}

void trap_release() {
    in_force = false;
    heard_devices.clear();
    for (const auto &[kernel_ifindex, device] : trapped) free_device(kernel_ifindex, device);
    trapped.clear();
    failed.clear();
}

std::size_t trap_count() {
    return trapped.size();
}

}  // namespace ravo::platform

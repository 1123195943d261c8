// SPDX-License-Identifier: Apache-2.0
// Reading a configuration without setting anything.
//
// The lines go through a session like any others, which hands their settings over here. Settings of an interface are
// judged by the relay itself: they are made in the record of an interface that does not exist, whose number no VLAN
// has, and read back from it; so the rules of the relay's tables are written once. The global settings are few and have
// no rules.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "cli/session.h"
#include "cli/vlan_list.h"
#include "configuration/configuration_model.h"
#include "configuration/replay.h"
#include "interfaces/nsm_feed.h"
#include "inventory/inventory_names.h"
#include "nsm.h"
#include "process/relay_data.h"
#include "settings/settings_text.h"

namespace ravo::cli {

namespace {

// ---- Settings of an interface ----

// The record in which the settings of one interface are put together.
class workbench {
  public:
    workbench() {
        std::snprintf(ifp_.name, sizeof ifp_.name, "vlan%d", platform::last_vlan + 1);
        ifp_.hw_type = NSM_IF_TYPE_VLAN;
    }
    workbench(const workbench &) = delete;
    workbench &operator=(const workbench &) = delete;
    ~workbench() { clear(); }

    struct interface *ifp() {
        return &ifp_;
    }

    // Puts the settings of this interface into the record, in place of another one's.
    void take(std::uint16_t vlan, const configuration &from) {
        if (vlan == vlan_) return;
        clear();
        vlan_ = vlan;
        std::string printed;
        const session_ptr s = session_capture(&printed, program_privilege, "configuration");
        s->mode = CLI_MODE_INTERFACE;
        s->ifp = &ifp_;
        line_fault fault;
        for (const std::string &command : interface_commands(from, vlan))
            (void)run_line(*s, command, file_line_limit, &fault);  // it was in force in such a record before
    }

    [[nodiscard]] relay_interface settings() const {
        relay_interface out{};
        const relay_access *relay = platform::relay_data();
        if (relay == nullptr || relay->interface_get(ifp_.name, &out) == 0) out = {};
        return out;
    }

    void clear() {
        relay_interface record{};
        const relay_access *relay = platform::relay_data();
        if (relay != nullptr && relay->interface_get(ifp_.name, &record) == 1) platform::nsm_delete_record(&ifp_);
        vlan_ = 0;
    }

  private:
    struct interface ifp_ {};
    std::uint16_t vlan_ = 0;
};

// ---- Global settings ----

std::uint32_t policy_number(std::string_view name) {
    return name == "drop" ? 2 : name == "keep" ? 3 : 1;
}

using words = std::vector<std::string>;

// Adds VLANs to the list of local relay or takes them out. Returns what is wrong with the list.
fault change_vlans(configuration &of, const std::string &list, bool add) {
    std::vector<std::uint16_t> vlans;
    const fault wrong = read_vlan_list(list, &vlans);
    if (wrong) return {"Invalid VLAN list: " + wrong.text};
    for (const std::uint16_t vlan : vlans) {
        if (add)
            of.local_relay_vlans.insert(vlan);
        else
            of.local_relay_vlans.erase(vlan);
    }
    return {};
}

void distrust_all(configuration &of) {
    of.trust_all = false;
    for (auto &[vlan, iface] : of.interfaces) iface.trusted = 0;
}

void trust_all(configuration &of) {
    of.trust_all = true;
    trust_interfaces_there(&of);
}

fault forget_interface(configuration &of, const std::string &name) {
    const std::uint16_t vlan = platform::vlan_of_name(name.starts_with("vlan") ? name : "vlan" + name);
    if (of.interfaces.erase(vlan) != 0) return {};
    return {"No settings wait for interface vlan" + std::to_string(vlan)};
}

struct global_row {
    std::string_view command;
    // Makes the setting. The fault, if any: what is wrong.
    fault (*set)(configuration &of, const words &arguments);
};

template <auto change>
fault with(configuration &of, const words & /*arguments*/) {
    change(of);
    return {};
}

constexpr global_row global_rows[] = {
    {"ip dhcp relay", with<[](configuration &of) { of.relay = true; }>},
    {"no ip dhcp relay", with<[](configuration &of) { of.relay = false; }>},
    {"ip dhcp relay information option", with<[](configuration &of) { of.option82 = true; }>},
    {"no ip dhcp relay information option", with<[](configuration &of) { of.option82 = false; }>},
    {"ip dhcp relay information check", with<[](configuration &of) { of.check = true; }>},
    {"no ip dhcp relay information check", with<[](configuration &of) { of.check = false; }>},
    {"ip dhcp relay information trust-all", with<trust_all>},
    {"no ip dhcp relay information trust-all", with<distrust_all>},
    {"no ip dhcp relay hops", with<[](configuration &of) { of.hops = 4; }>},
    {"no ip dhcp relay information policy", with<[](configuration &of) { of.policy = 1; }>},
    {"ip dhcp local-relay", with<[](configuration &of) { of.local_relay = true; }>},
    {"no ip dhcp local-relay", with<[](configuration &of) { of.local_relay = false; }>},
    {"ip dhcp relay information policy {keep|drop|replace}",
     [](configuration &of, const words &arguments) {
         of.policy = policy_number(arguments.at(0));
         return fault{};
     }},
    {"ip dhcp relay hops <1-16>",
     [](configuration &of, const words &arguments) {
         of.hops = static_cast<std::uint32_t>(std::atoi(arguments.at(0).c_str()));
         return fault{};
     }},
    {"ip dhcp local-relay vlan LIST",
     [](configuration &of, const words &arguments) { return change_vlans(of, arguments.at(0), /*add=*/true); }},
    {"no ip dhcp local-relay vlan LIST",
     [](configuration &of, const words &arguments) { return change_vlans(of, arguments.at(0), /*add=*/false); }},
    {"no interface IFNAME",
     [](configuration &of, const words &arguments) { return forget_interface(of, arguments.at(0)); }},
    {"no interface vlan <1-4094>",
     [](configuration &of, const words &arguments) { return forget_interface(of, arguments.at(0)); }},
};

// ---- The reading ----

struct reader {
    configuration *out;
    workbench bench;
};

int refuse(const relay_call &call, const std::string &reason) {
    (void)emit(call.s, "% " + reason + "\n");
    return 1;
}

int take_global(reader &r, const relay_call &call) {
    const auto *const row = std::find_if(std::begin(global_rows), std::end(global_rows),
                                         [&](const global_row &each) { return each.command == call.command; });
    if (row == std::end(global_rows)) return refuse(call, "This cannot be part of a configuration");
    const fault wrong = row->set(*r.out, call.arguments);
    r.bench.clear();  // it may have changed what the bench has a copy of
    return wrong ? refuse(call, wrong.text) : 0;
}

int take_setting(reader &r, const relay_call &call, const std::function<int()> &run) {
    if (call.ifp == nullptr) return take_global(r, call);
    const std::uint16_t vlan = platform::vlan_of_number(call.ifp->ifindex);
    r.bench.take(vlan, *r.out);
    struct interface *const entered = call.s.ifp;
    call.s.ifp = r.bench.ifp();
    int result = run();
    call.s.ifp = entered;
    const relay_access *relay = platform::relay_data();
    // A setting that is made already is no fault.
    if (result != 0 && call.traits.held != nullptr && relay != nullptr &&
        call.traits.held({*relay, call.arguments, r.bench.ifp()->name}))
        result = 0;
    const relay_interface settings = r.bench.settings();
    if (has_settings(settings))
        r.out->interfaces[vlan] = settings;
    else
        r.out->interfaces.erase(vlan);
    return result;
}

}  // namespace

int read_model(std::string_view text, configuration *out, const line_report &report) {
    constexpr std::size_t lines_between_pauses = 64;
    reader r{out, {}};
    *out = {};
    const auto prepare = [&](session &s) {
        s.taker = [&r](const relay_call &call, const std::function<int()> &run) { return take_setting(r, call, run); };
    };
    std::size_t lines = 0;
    return replay_lines(text, report, prepare, [&](session &) {
        if (++lines % lines_between_pauses != 0) return;
        r.bench.clear();  // nobody else is to see its record, nor to use it
        turns_pause_if_due();
    });
}

}  // namespace ravo::cli

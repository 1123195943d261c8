// SPDX-License-Identifier: Apache-2.0
// The platform's section of the running configuration: settings of the relay that its own section leaves out, written
// as the commands that make them. It is behind the relay's section, whose last lines may be those of an interface,
// and is replayed from there.
#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "cli/session.h"
#include "configuration/configuration.h"
#include "nsm.h"
#include "process/relay_data.h"
#include "settings/kept_settings.h"
#include "settings/settings_text.h"

namespace ravo::cli {

namespace {

// ---- Global settings ----

std::string vlan_list(const relay_settings &settings) {
    std::string out;
    for (const std::uint16_t vlan : settings.local_relay_vlan)
        if (vlan != 0) out += (out.empty() ? "" : ",") + std::to_string(vlan);
    return out;
}

std::string global_lines(const relay_settings &settings) {
    std::string out;
    if (settings.trust_all == 1) out += "ip dhcp relay information trust-all\n!\n";
    // While local relay is on, the relay's own section has the list.
    const std::string vlans = settings.local_relay_enable == 1 ? std::string() : vlan_list(settings);
    if (!vlans.empty()) out += "ip dhcp local-relay vlan " + vlans + "\n!\n";
    if (settings.local_relay_enable == 1) out += "ip dhcp local-relay\n!\n";
    return out;
}

// ---- Interfaces ----

constexpr std::uint16_t interfaces_between_pauses = 64;

// To be called with each interface.
void pause_now_and_then(std::uint16_t &count) {
    if (++count % interfaces_between_pauses == 0) turns_pause_if_due();
}

std::string interface_sections(const relay_access &relay, bool trust_all) {
    std::string out;
    relay_interface iface{};
    std::uint16_t count = 0;
    for (int found = relay.interface_first(&iface); found == 1; found = relay.interface_next(&iface)) {
        // "trust-all" is replayed first and marks every interface.
        const std::string lines = extra_lines(iface, trust_all);
        if (!lines.empty()) out += "interface " + std::string(iface.name) + "\n" + lines + "!\n";
        pause_now_and_then(count);
    }
    return out;
}

// Interfaces that came after "trust-all" and were never up have no record, but the replay marks them with the others.
std::string untrusted_sections(const relay_access &relay) {
    std::string out;
    const std::vector<waiting_interface> waiting = kept_waiting();  // these have sections of their own
    for (const struct interface *ifp = ifg_first(); ifp != nullptr; ifp = ifg_next(ifp)) {
        const auto is_this = [ifp](const waiting_interface &each) {
            return ifp->ifindex == IF_UTL_VLAN_BASE + std::uint32_t{each.vlan};
        };
        relay_interface found{};
        if (ifg_lookup_by_index(ifp->ifindex) == nullptr || relay.interface_get(ifp->name, &found) != 0 ||
            std::any_of(waiting.begin(), waiting.end(), is_this))
            continue;
        found.trusted = 0;
        out += "interface " + std::string(ifp->name) + "\n" + extra_lines(found, true) + "!\n";
    }
    return out;
}

bool has_interface_line(std::string_view text) {
    return text.starts_with("interface ") || text.find("\ninterface ") != std::string_view::npos;
}

}  // namespace

std::string extra_section(std::string_view daemon_text) {
    const relay_access *relay = platform::relay_data();
    if (relay == nullptr) return {};
    const auto settings = std::make_unique<relay_settings>();
    relay->settings(settings.get());
    std::string globals = global_lines(*settings);
    // Some global commands mean something else on an interface, so an interface section before them is left first.
    if (!globals.empty() && has_interface_line(daemon_text)) globals = "exit\n!\n" + globals;
    const bool trust_all = settings->trust_all == 1;
    const std::string text = globals + interface_sections(*relay, trust_all) + kept_sections(trust_all) +
                             (trust_all ? untrusted_sections(*relay) : std::string());
    return text.empty() || daemon_text.empty() ? text : "!\n" + text;
}

}  // namespace ravo::cli

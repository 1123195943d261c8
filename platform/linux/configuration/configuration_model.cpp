// SPDX-License-Identifier: Apache-2.0
// Configurations by their meaning, written: as commands, as a difference, and as the way from one to the other.
#include "configuration/configuration_model.h"

#include <algorithm>
#include <iterator>
#include <memory>

#include "cli/session.h"
#include "cli/words.h"
#include "interfaces/nsm_feed.h"
#include "inventory/inventory_names.h"
#include "process/relay_data.h"
#include "settings/kept_settings.h"
#include "settings/settings_text.h"

namespace ravo::cli {

namespace {

constexpr const char *policy_words[] = {"", "replace", "drop", "keep"};

std::vector<std::string> lines_of(std::string_view text) {
    std::vector<std::string> out;
    while (!text.empty()) {
        const std::string_view line = text.substr(0, text.find('\n'));
        text.remove_prefix(std::min(text.size(), line.size() + 1));
        out.emplace_back(trim(line));
    }
    return out;
}

std::string vlan_text(const std::set<std::uint16_t> &vlans) {
    std::string out;
    for (const std::uint16_t vlan : vlans) out += (out.empty() ? "" : ",") + std::to_string(vlan);
    return out;
}

std::set<std::uint16_t> vlans_of(const configuration &a, const configuration &b) {
    std::set<std::uint16_t> out;
    for (const auto *each : {&a, &b})
        for (const auto &[vlan, iface] : each->interfaces) out.insert(vlan);
    return out;
}

// ---- Differences ----

// Puts the lines that both have in common between those of one alone: the longest row of common lines there is.
void add_difference(const std::vector<std::string> &a, const std::vector<std::string> &b,
                    std::vector<difference_line> *out, const std::string &indent) {
    std::vector<std::vector<std::size_t>> common(a.size() + 1, std::vector<std::size_t>(b.size() + 1, 0));
    for (std::size_t i = a.size(); i-- > 0;)
        for (std::size_t j = b.size(); j-- > 0;)
            common[i][j] = a[i] == b[j] ? common[i + 1][j + 1] + 1 : std::max(common[i + 1][j], common[i][j + 1]);
    std::size_t i = 0, j = 0;
    while (i < a.size() || j < b.size()) {
        if (i < a.size() && j < b.size() && a[i] == b[j]) {
            ++i;
            ++j;
        } else if (j == b.size() || (i < a.size() && common[i + 1][j] >= common[i][j + 1])) {
            out->push_back({'-', indent + a[i++]});
        } else {
            out->push_back({'+', indent + b[j++]});
        }
    }
}

// ---- The way from one to another ----

std::size_t common_beginning(const std::vector<std::string> &now, const std::vector<std::string> &wanted) {
    const auto [at, other] = std::mismatch(now.begin(), now.end(), wanted.begin(), wanted.end());
    return static_cast<std::size_t>(at - now.begin());
}

// New entries of a table take its first free place, also one between others.
template <typename hosts>
bool has_gap(const hosts &table) {
    const auto used = [](const auto &host) { return host.used == 1; };
    const auto end = std::find_if_not(std::begin(table), std::end(table), used);
    return std::any_of(end, std::end(table), used);
}

// A table is a row in which the order counts: what behind the common beginning is not wanted goes, then the rest comes.
void add_table(const std::vector<std::string> &now, const std::vector<std::string> &wanted, bool gap,
               std::vector<std::string> *out) {
    if (now == wanted) return;
    const std::size_t keep = gap ? 0 : common_beginning(now, wanted);
    for (std::size_t i = keep; i < now.size(); ++i) out->push_back("no " + now[i]);
    for (std::size_t i = keep; i < wanted.size(); ++i) out->push_back(wanted[i]);
}

std::vector<std::string> those_that_begin(const std::vector<std::string> &lines, std::string_view beginning) {
    std::vector<std::string> out;
    std::copy_if(lines.begin(), lines.end(), std::back_inserter(out),
                 [&](const std::string &line) { return line.starts_with(beginning); });
    return out;
}

void add_interface(const configuration &now, const configuration &wanted, std::uint16_t vlan,
                   std::vector<std::string> *out) {
    const std::vector<std::string> has = interface_commands(now, vlan);
    const std::vector<std::string> wants = interface_commands(wanted, vlan);
    std::vector<std::string> changes;
    const auto found = now.interfaces.find(vlan);
    const relay_interface record = found == now.interfaces.end() ? relay_interface{} : found->second;
    for (const char *flag : {"ip dhcp relay information trusted", "ip dhcp local-relay"}) {
        const bool on = std::find(has.begin(), has.end(), flag) != has.end();
        const bool wanted_on = std::find(wants.begin(), wants.end(), flag) != wants.end();
        if (on != wanted_on) changes.push_back(wanted_on ? flag : "no " + std::string(flag));
    }
    const auto table = [&](std::string_view beginning, bool gap) {
        add_table(those_that_begin(has, beginning), those_that_begin(wants, beginning), gap, &changes);
    };
    table("ip dhcp relay address ", false);
    table("ip dhcp relay option60 ", has_gap(record.option60));
    table("ip dhcp relay option61 ", has_gap(record.option61));
    if (changes.empty()) return;
    out->push_back("interface vlan" + std::to_string(vlan));
    out->insert(out->end(), changes.begin(), changes.end());
    out->push_back("exit");
}

void add_globals(const configuration &now, const configuration &wanted, std::vector<std::string> *out) {
    const auto flag = [&](bool has, bool wants, const std::string &command) {
        if (has != wants) out->push_back((wants ? "" : "no ") + command);
    };
    flag(now.option82, wanted.option82, "ip dhcp relay information option");
    flag(now.check, wanted.check, "ip dhcp relay information check");
    if (now.policy != wanted.policy)
        out->push_back(std::string("ip dhcp relay information policy ") + policy_words[wanted.policy]);
    if (now.hops != wanted.hops) out->push_back("ip dhcp relay hops " + std::to_string(wanted.hops));
    std::set<std::uint16_t> added, removed;
    std::set_difference(wanted.local_relay_vlans.begin(), wanted.local_relay_vlans.end(), now.local_relay_vlans.begin(),
                        now.local_relay_vlans.end(), std::inserter(added, added.end()));
    std::set_difference(now.local_relay_vlans.begin(), now.local_relay_vlans.end(), wanted.local_relay_vlans.begin(),
                        wanted.local_relay_vlans.end(), std::inserter(removed, removed.end()));
    if (!removed.empty()) out->push_back("no ip dhcp local-relay vlan " + vlan_text(removed));
    if (!added.empty()) out->push_back("ip dhcp local-relay vlan " + vlan_text(added));
    flag(now.local_relay, wanted.local_relay, "ip dhcp local-relay");
}

// Turning the trust of all on or off changes that of each interface, which is then put right one by one.
configuration with_trust_of_all(const configuration &now, bool on, std::vector<std::string> *out) {
    if (now.trust_all == on) return now;
    out->emplace_back(on ? "ip dhcp relay information trust-all" : "no ip dhcp relay information trust-all");
    configuration then = now;
    then.trust_all = on;
    if (on)
        trust_interfaces_there(&then);
    else
        for (auto &[vlan, iface] : then.interfaces) iface.trusted = 0;
    return then;
}

}  // namespace

void trust_interfaces_there(configuration *of) {
    for (std::uint16_t vlan = 1; vlan <= platform::last_vlan; ++vlan)
        if (platform::nsm_is_there(vlan)) of->interfaces[vlan].trusted = 1;
}

configuration running_model() {
    configuration out;
    const relay_access *relay = platform::relay_data();
    if (relay == nullptr) return out;
    const auto settings = std::make_unique<relay_settings>();
    relay->settings(settings.get());
    out.relay = settings->relay_enable == 1;
    out.option82 = settings->option_state == 1;
    out.check = settings->check == 1;
    out.policy = settings->policy;
    out.hops = settings->hops;
    out.trust_all = settings->trust_all == 1;
    out.local_relay = settings->local_relay_enable == 1;
    for (const std::uint16_t vlan : settings->local_relay_vlan)
        if (vlan != 0) out.local_relay_vlans.insert(vlan);
    for (const waiting_interface &each : kept_waiting()) {
        out.interfaces[each.vlan] = each.settings;
        turns_pause_if_due();
    }
    relay_interface iface{};
    for (int found = relay->interface_first(&iface); found == 1; found = relay->interface_next(&iface)) {
        if (has_settings(iface)) out.interfaces[platform::vlan_of_name(iface.name)] = iface;
        turns_pause_if_due();
    }
    return out;
}

std::vector<std::string> global_commands(const configuration &of) {
    std::vector<std::string> out;
    if (of.relay) out.emplace_back("ip dhcp relay");
    if (of.option82) out.emplace_back("ip dhcp relay information option");
    if (!of.check) out.emplace_back("no ip dhcp relay information check");
    if (of.policy != 1 && of.policy < std::size(policy_words))
        out.push_back(std::string("ip dhcp relay information policy ") + policy_words[of.policy]);
    if (of.hops != 4) out.push_back("ip dhcp relay hops " + std::to_string(of.hops));
    if (of.trust_all) out.emplace_back("ip dhcp relay information trust-all");
    if (!of.local_relay_vlans.empty()) out.push_back("ip dhcp local-relay vlan " + vlan_text(of.local_relay_vlans));
    if (of.local_relay) out.emplace_back("ip dhcp local-relay");
    return out;
}

std::vector<std::string> interface_commands(const configuration &of, std::uint16_t vlan) {
    const auto found = of.interfaces.find(vlan);
    if (found == of.interfaces.end()) return {};
    return lines_of(plain_lines(found->second) + extra_lines(found->second, /*trust_all=*/false));
}

std::vector<difference_line> difference(const configuration &first, const configuration &second) {
    std::vector<difference_line> out;
    add_difference(global_commands(first), global_commands(second), &out, "");
    for (const std::uint16_t vlan : vlans_of(first, second)) {
        turns_pause_if_due();
        std::vector<difference_line> lines;
        add_difference(interface_commands(first, vlan), interface_commands(second, vlan), &lines, " ");
        if (lines.empty()) continue;
        out.push_back({' ', "interface vlan" + std::to_string(vlan)});
        out.insert(out.end(), lines.begin(), lines.end());
    }
    return out;
}

std::size_t count_changes(const std::vector<difference_line> &lines) {
    return static_cast<std::size_t>(
        std::count_if(lines.begin(), lines.end(), [](const difference_line &line) { return line.sign != ' '; }));
}

std::vector<std::string> commands_between(const configuration &now, const configuration &wanted) {
    std::vector<std::string> out;
    add_globals(now, wanted, &out);
    const configuration then = with_trust_of_all(now, wanted.trust_all, &out);
    for (const std::uint16_t vlan : vlans_of(then, wanted)) add_interface(then, wanted, vlan, &out);
    if (now.relay != wanted.relay) out.emplace_back(wanted.relay ? "ip dhcp relay" : "no ip dhcp relay");
    return out;
}

}  // namespace ravo::cli

// SPDX-License-Identifier: Apache-2.0
// Settings that outlast their interface.
//
// Right before each of the relay's interface hooks the record is read, and read again right after it: what was
// configured there and is gone was lost by the hook, and waits from then on. Nothing is known here of when the relay
// loses a record. A command for an interface whose settings wait, or that is not there, is run by the relay all the
// same: what waits is put into a record, the command changes that, and what is then in it waits again. So the relay
// alone judges commands.
#include "settings/kept_settings.h"

#include <array>
#include <cstring>
#include <memory>
#include <utility>

#include "base/text.h"
#include "cli/command_row.h"
#include "cli/session.h"
#include "interfaces/nsm_feed.h"
#include "inventory/inventory_names.h"
#include "log/log.h"
#include "nsm.h"
#include "process/relay_data.h"
#include "settings/settings_text.h"

namespace ravo::cli {

namespace {

using platform::last_vlan;
using platform::relay_data;

bool begun = false;
bool keeping = true;
bool moving = false;  // settings are being put into a record or taken out of one: nobody else's change
bool opened = false;  // all that waited is in records for a while
std::array<std::unique_ptr<relay_interface>, last_vlan + 1> waiting;
relay_interface before_hook;  // the record right before the hook that runs; no name: there was none

std::string name_of(std::uint16_t vlan) {
    return "vlan" + std::to_string(vlan);
}

bool read_record(std::uint16_t vlan, relay_interface *out) {
    const relay_access *relay = relay_data();
    *out = {};
    return relay != nullptr && relay->interface_get(name_of(vlan).c_str(), out) == 1;
}

std::string settings_text(int count) {
    return "configuration of " + std::to_string(count) + (count == 1 ? " line" : " lines");
}

// ---- Into a record, and out of it ----

// What a command said against a line, in one line.
std::string said(std::string printed) {
    while (!printed.empty() && (printed.back() == '\n' || printed.back() == ' ')) printed.pop_back();
    for (char &c : printed)
        if (c == '\n') c = ';';
    return printed;
}

// Runs the commands of an interface. Returns what was said against them, a text each.
std::vector<std::string> run_settings(std::uint16_t vlan, const relay_interface &settings) {
    std::string printed;
    const session_ptr s = session_capture(&printed, program_privilege, "kept settings");
    s->mode = CLI_MODE_CONFIGURATION;
    s->replayed = true;
    const std::string lines =
        "interface " + name_of(vlan) + "\n" + plain_lines(settings) + extra_lines(settings, /*trust_all=*/false);
    std::vector<std::string> faults;
    for (std::string_view rest = lines; !rest.empty();) {
        const std::string_view line = rest.substr(0, rest.find('\n'));
        rest.remove_prefix(line.size() + 1);
        printed.clear();
        line_fault fault;
        if (run_line(*s, line, file_line_limit, &fault) != 0)
            faults.push_back("\"" + std::string(trim(line)) + "\": " + said(printed));
    }
    return faults;
}

// Puts settings into the relay's record of an interface. Returns false when there is no record afterwards: memory is
// short.
bool put_into_record(std::uint16_t vlan, const relay_interface &settings) {
    const bool moved_already = std::exchange(moving, true);
    const std::vector<std::string> faults = run_settings(vlan, settings);
    moving = moved_already;
    relay_interface now;
    if (!read_record(vlan, &now)) {
        platform::log_line(platform::log_level_error,
                           "settings: no memory for those of interface %s; they go on waiting", name_of(vlan).c_str());
        return false;
    }
    for (const std::string &fault : faults)
        platform::log_line(platform::log_level_error, "settings: interface %s: cannot be put back: %s",
                           name_of(vlan).c_str(), fault.c_str());
    return true;
}

void take_out_of_record(std::uint16_t vlan) {
    relay_interface now;
    const bool found = read_record(vlan, &now);
    if (found && has_settings(now))
        waiting[vlan] = std::make_unique<relay_interface>(now);
    else
        waiting[vlan].reset();
    if (found) platform::nsm_drop_record(vlan);
}

// ---- Interfaces that come and go ----

// Servers are of no use before there is an address to relay with; local relay needs none.
bool needs_address(const relay_interface &settings) {
    return settings.local_relay != 1 || has_servers(settings);
}

void look_before(std::uint16_t vlan) {
    if (!read_record(vlan, &before_hook)) before_hook = {};
}

// Settings that need no address stay with an interface that merely lost it: the record is made again.
void keep_local_relay(std::uint16_t vlan) {
    (void)put_into_record(vlan, before_hook);
    platform::nsm_refresh_record(vlan);
}

void note_lost(std::uint16_t vlan) {
    relay_interface now;
    if (before_hook.name[0] == '\0' || !has_settings(before_hook) || read_record(vlan, &now)) return;
    const bool there = platform::nsm_is_there(vlan);
    if (there && !needs_address(before_hook)) return keep_local_relay(vlan);
    waiting[vlan] = std::make_unique<relay_interface>(before_hook);
    platform::log_line(platform::log_level_warning, "settings: interface %s %s; its %s waits for %s",
                       name_of(vlan).c_str(), there ? "lost its address" : "is gone",
                       settings_text(count_settings(before_hook)).c_str(), there ? "another one" : "it to come back");
}

void put_back(std::uint16_t vlan) {
    relay_interface now;
    if (!waiting[vlan] || !read_record(vlan, &now)) return;
    if (now.address == 0 && needs_address(*waiting[vlan])) return;
    std::unique_ptr<relay_interface> settings = std::move(waiting[vlan]);
    if (!put_into_record(vlan, *settings)) {
        waiting[vlan] = std::move(settings);  // another event tries again
        return;
    }
    const std::string where = now.address == 0 ? "" : " at " + platform::ipv4_text(now.address);
    platform::log_line(platform::log_level_start, "settings: interface %s is there again%s; its %s is in force",
                       name_of(vlan).c_str(), where.c_str(), settings_text(count_settings(*settings)).c_str());
}

void look_after(std::uint16_t vlan) {
    if (keeping) note_lost(vlan);
    put_back(vlan);
}

// ---- Commands ----

int edit_waiting(std::uint16_t vlan, const relay_call &call, const std::function<int()> &run) {
    std::unique_ptr<relay_interface> settings = std::move(waiting[vlan]);
    if (settings && !put_into_record(vlan, *settings)) {
        waiting[vlan] = std::move(settings);
        (void)emit(call.s, "% Memory not enough\n");
        return 1;
    }
    const bool moved_already = std::exchange(moving, true);
    const int result = run();
    take_out_of_record(vlan);
    moving = moved_already;
    return result;
}

// The VLANs of the relay's records for interfaces that are not there.
std::vector<std::uint16_t> absent_records() {
    std::vector<std::uint16_t> out;
    const relay_access *relay = relay_data();
    if (relay == nullptr) return out;
    relay_interface iface{};
    for (int found = relay->interface_first(&iface); found == 1; found = relay->interface_next(&iface)) {
        const std::uint16_t vlan = platform::vlan_of_name(iface.name);
        if (vlan != 0 && !platform::nsm_is_there(vlan)) out.push_back(vlan);
    }
    return out;
}

void distrust_waiting() {
    for (std::unique_ptr<relay_interface> &settings : waiting) {
        if (!settings) continue;
        settings->trusted = 0;
        if (!has_settings(*settings)) settings.reset();
    }
}

// What a command that names no interface leaves to be done.
void follow_up(std::string_view command) {
    if (command == "no ip dhcp relay information trust-all") distrust_waiting();
    // It marks interfaces that somebody named once, too; nobody configured anything there.
    if (command == "ip dhcp relay information trust-all")
        for (const std::uint16_t vlan : absent_records()) platform::nsm_drop_record(vlan);
    if (command.starts_with("web set "))
        for (const std::uint16_t vlan : absent_records()) take_out_of_record(vlan);
}

int run_guarded(const relay_call &call, const std::function<int()> &run) {
    if (moving || opened || !keeping) return run();
    if (call.ifp != nullptr) {
        const std::uint16_t vlan = platform::vlan_of_number(call.ifp->ifindex);
        if (vlan == 0) return run();  // an interface of nobody's, to try settings on
        return waiting[vlan] || !platform::nsm_is_there(vlan) ? edit_waiting(vlan, call, run) : run();
    }
    const int result = run();
    follow_up(call.command);
    return result;
}

std::string why_waiting(std::uint16_t vlan) {
    return "! " + name_of(vlan) +
           (platform::nsm_is_there(vlan) ? " has no address: these settings wait for one\n"
                                         : " is not there: these settings wait for it\n");
}

}  // namespace

void kept_begin() {
    begun = true;
    platform::nsm_set_witness({.before = look_before, .after = look_after});
    set_relay_guard(run_guarded);
    on_reset(kept_forget_all);
}

void kept_switch(bool keep) {
    keeping = keep;
    if (keep) return;
    int count = 0;
    for (std::uint16_t vlan = 1; vlan <= last_vlan; ++vlan) {
        const std::unique_ptr<relay_interface> settings = std::move(waiting[vlan]);
        if (settings && put_into_record(vlan, *settings)) ++count;
    }
    if (count != 0)
        platform::log_line(platform::log_level_warning,
                           "settings: keep = false: what waited for %d interfaces is in the relay now", count);
}

kept_opening::kept_opening() {
    if (!begun || !keeping || opened) return;
    opened_here_ = opened = true;
    for (std::uint16_t vlan = 1; vlan <= last_vlan; ++vlan) {
        if (!waiting[vlan] || !put_into_record(vlan, *waiting[vlan])) continue;
        waiting[vlan].reset();
        if (platform::nsm_is_there(vlan)) there_.push_back(vlan);
    }
}

kept_opening::~kept_opening() {
    if (!opened_here_) return;
    opened = false;
    for (const std::uint16_t vlan : there_) take_out_of_record(vlan);
    for (const std::uint16_t vlan : absent_records()) take_out_of_record(vlan);
}

void kept_forget_all() {
    for (std::unique_ptr<relay_interface> &settings : waiting) settings.reset();
}

forget_result kept_forget(std::uint16_t vlan) {
    if (platform::nsm_is_there(vlan)) return forget_result::is_there;
    const bool waited = std::exchange(waiting[vlan], nullptr) != nullptr;
    relay_interface record;
    const bool found = read_record(vlan, &record);  // without keeping
    if (found) platform::nsm_drop_record(vlan);
    return waited || found ? forget_result::forgotten : forget_result::nothing;
}

std::string kept_sections(bool trust_all) {
    constexpr std::uint16_t vlans_between_pauses = 64;
    std::string out;
    for (std::uint16_t vlan = 1; vlan <= last_vlan; ++vlan) {
        if (vlan % vlans_between_pauses == 0) turns_pause_if_due();
        if (!waiting[vlan]) continue;
        out += why_waiting(vlan) + "interface " + name_of(vlan) + "\n" + plain_lines(*waiting[vlan]) +
               extra_lines(*waiting[vlan], trust_all) + "!\n";
    }
    return out;
}

std::vector<waiting_interface> kept_waiting() {
    std::vector<waiting_interface> out;
    for (std::uint16_t vlan = 1; vlan <= last_vlan; ++vlan)
        if (waiting[vlan]) out.push_back({vlan, platform::nsm_is_there(vlan), *waiting[vlan]});
    return out;
}

}  // namespace ravo::cli

// SPDX-License-Identifier: Apache-2.0
// The command that gives advice, and the check every 10 s that writes new advice to the log.
#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include "base/loop.h"
#include "base/owners.h"
#include "base/text.h"
#include "cli/command_row.h"
#include "cli/help_texts.h"
#include "commands/advice.h"
#include "commands/commands.h"
#include "log/log.h"

namespace ravo::cli {

namespace {

constexpr timeval every = {.tv_sec = 10, .tv_usec = 0};

std::set<std::string> reported;  // kind and subject of what is in the log already
platform::event_ptr look;

int show_advice(struct cli *cli, int /*argc*/, char ** /*argv*/) {
    const std::vector<advice> all = advice_on(advice_gather());
    if (all.empty()) cli->print(cli->print_handle, "Nothing to advise: all is as it should be\n");
    constexpr std::size_t indent = 4;
    for (const advice &each : all)
        cli->print(cli->print_handle, "%s%s", platform::wrapped_text("", each.what, 2).c_str(),
                   platform::wrapped_text("    ", each.remedy, indent).c_str());
    return 0;
}

int advice_json(struct cli * /*cli*/, int /*argc*/, char ** /*argv*/, json_writer &out) {
    const std::vector<advice> all = advice_on(advice_gather());
    json_open(out, "", '{');
    json_open(out, "advice", '[');
    for (const advice &each : all) {
        json_open(out, "", '{');
        json_string(out, "kind", each.kind);
        json_string(out, "what", each.what);
        json_string(out, "remedy", each.remedy);
        json_close(out, '}');
    }
    json_close(out, ']');
    json_close(out, '}');
    return 0;
}

// What advice is about. Where its text has a count, the kind alone: with each new count it would be new advice.
std::string subject_of(const advice &each) {
    const bool counted = each.kind == "unknown-vlan" || each.kind == "messages-lost";
    return counted ? each.kind : each.kind + ": " + each.what;
}

void on_look(evutil_socket_t /*fd*/, short /*what*/, void * /*arg*/) {
    advice_report(advice_on(advice_gather()));
}

constexpr command_row rows[] = {
    {.privilege = viewer_privilege,
     .text = "show ip dhcp relay advice",
     .help = {help::show, help::ip, help::dhcp, help::relay, "What is wrong, and what to do"},
     .handler = show_advice,
     .traits = {.effect = command_effect::looks, .who = audience::viewers, .json = advice_json, .schema = "advice"}},
};

}  // namespace

void advice_report(const std::vector<advice> &all) {
    std::set<std::string> now;
    for (const advice &each : all) {
        const std::string subject = subject_of(each);
        now.insert(subject);
        // The log has the first since the start, and the second would follow each change.
        if (each.kind == "not-remembered" || each.kind == "not-saved" || reported.contains(subject)) continue;
        platform::log_line(platform::log_level_warning, "advice: %s; %s", each.what.c_str(), each.remedy.c_str());
    }
    reported = std::move(now);
}

void advice_begin() {
    look.reset(event_new(platform::loop_base(), -1, EV_PERSIST, on_look, nullptr));
    if (look != nullptr) event_add(look.get(), &every);
}

void advice_end() {
    look.reset();
}

void install_advice_commands(cli_tree *tree) {
    install_rows(tree, rows);
}

}  // namespace ravo::cli

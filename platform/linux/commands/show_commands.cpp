// SPDX-License-Identifier: Apache-2.0
// Commands that show the platform's side of things: version, session, log, service status.
#include <cstdint>
#include <string>

#include "cli/command_row.h"
#include "cli/help_texts.h"
#include "cli/session.h"
#include "commands/commands.h"
#include "log/log.h"
#include "process/frame.h"
#include "process/service_status.h"

namespace ravo::cli {

namespace {

int show_version(struct cli *cli, int /*argc*/, char ** /*argv*/) {
    constexpr unsigned long minute = 60, hour = 60 * minute, day = 24 * hour;
    const unsigned long up = platform::frame_uptime();
    cli->print(cli->print_handle, "ravo %s, DHCPv4 relay agent\n", RAVO_VERSION);
    cli->print(cli->print_handle, "Uptime: %lu days, %02lu:%02lu:%02lu\n", up / day, up % day / hour,
               up % hour / minute, up % minute);
    return 0;
}

int show_history(struct cli *cli, int /*argc*/, char ** /*argv*/) {
    for (const std::string &line : session_of(cli).history) cli->print(cli->print_handle, "  %s\n", line.c_str());
    return 0;
}

int show_privilege(struct cli *cli, int /*argc*/, char ** /*argv*/) {
    cli->print(cli->print_handle, "Current privilege level is %d\n", cli->privilege);
    return 0;
}

int show_logging(struct cli *cli, int /*argc*/, char ** /*argv*/) {
    cli->print(cli->print_handle, "Log level %s, to %s\n",
               std::string(platform::log_word_of(platform::log_threshold())).c_str(),
               platform::frame_get_options().log_target.c_str());
    for (const std::string &line : platform::log_recent()) cli->print(cli->print_handle, "%s\n", line.c_str());
    return 0;
}

int version_json(struct cli * /*cli*/, int /*argc*/, char ** /*argv*/, json_writer &out) {
    json_open(out, "", '{');
    json_string(out, "version", RAVO_VERSION);
    json_number(out, "uptime_seconds", static_cast<std::int64_t>(platform::frame_uptime()));
    json_close(out, '}');
    return 0;
}

int logging_json(struct cli * /*cli*/, int /*argc*/, char ** /*argv*/, json_writer &out) {
    json_open(out, "", '{');
    json_string(out, "level", platform::log_word_of(platform::log_threshold()));
    json_string(out, "target", platform::frame_get_options().log_target);
    json_open(out, "lines", '[');
    for (const std::string &line : platform::log_recent()) json_string(out, "", line);
    json_close(out, ']');
    json_close(out, '}');
    return 0;
}

// All that somebody who looks for a fault from afar asks for.
constexpr const char *support_commands[] = {
    "show version",
    "show service status",
    "show users",
    "show interfaces brief",
    "show running-config",
    "show startup-config",
    "show ip dhcp relay",
    "show ip dhcp relay detail",
    "show ip dhcp relay information trusted-sources",
    "show ip dhcp relay option",
    "show ip dhcp relay statistics",
    "show ip dhcp relay server",
    "show ip dhcp relay client",
    "show ip dhcp relay xid-port-mapping",
    "show ip dhcp relay crashes",
    "show ip dhcp relay advice",
    "show configuration differences",
    "show configuration history",
    "show logging",
};

int show_tech_support(struct cli *cli, int /*argc*/, char ** /*argv*/) {
    for (const char *line : support_commands) {
        cli->print(cli->print_handle, "\n------ %s ------\n\n", line);
        (void)run_instead(cli, line);  // what one cannot show it says itself
    }
    return 0;
}

int show_service_status(struct cli *cli, int /*argc*/, char ** /*argv*/) {
    const std::string line = platform::service_status_line();
    cli->print(cli->print_handle, "%s\n", line.empty() ? "No service has reported yet" : line.c_str());
    return 0;
}

int services_json(struct cli * /*cli*/, int /*argc*/, char ** /*argv*/, json_writer &out) {
    constexpr std::uint32_t on = 1;
    json_open(out, "", '{');
    json_open(out, "services", '[');
    for (const platform::service_state &each : platform::service_states()) {
        json_open(out, "", '{');
        json_string(out, "name", each.name);
        json_bool(out, "on", each.state == on);
        if (!each.text.empty()) json_string(out, "text", each.text);
        json_close(out, '}');
    }
    json_close(out, ']');
    json_close(out, '}');
    return 0;
}

// Shows something to everybody who may look.
constexpr command_traits shows(json_handler json = nullptr, const char *schema = nullptr) {
    return {.effect = command_effect::looks, .who = audience::viewers, .json = json, .schema = schema};
}

constexpr command_row rows[] = {
    {.privilege = viewer_privilege,
     .text = "show version",
     .help = {help::show, "Version and time since start"},
     .handler = show_version,
     .traits = shows(version_json, "version")},
    {.privilege = viewer_privilege,
     .text = "show history",
     .help = {help::show, "The lines typed in this session"},
     .handler = show_history,
     .traits = shows()},
    {.privilege = lowest_privilege,
     .text = "show privilege",
     .help = {help::show, "What this session may do"},
     .handler = show_privilege,
     .traits = shows()},
    {.privilege = viewer_privilege,
     .text = "show logging",
     .help = {help::show, "The last lines of the log"},
     .handler = show_logging,
     .traits = shows(logging_json, "logging")},
    {.privilege = viewer_privilege,
     .text = "show service status",
     .help = {help::show, "The daemon's services", "Whether they are on"},
     .handler = show_service_status,
     .traits = shows(services_json, "service")},
    {.privilege = 20,
     .text = "show tech-support",
     .help = {help::show, "All that is to be known of the relay, for those who look for a fault"},
     .handler = show_tech_support,
     .traits = {.effect = command_effect::looks}},
};

}  // namespace

void install_show_commands(cli_tree *tree) {
    install_rows(tree, rows);
}

}  // namespace ravo::cli

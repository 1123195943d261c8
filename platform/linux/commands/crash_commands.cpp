// SPDX-License-Identifier: Apache-2.0
// Commands that show and forget the messages that daemons had in hand when they died.
#include <string>

#include "books/black_box.h"
#include "books/crash_book.h"
#include "cli/command_row.h"
#include "cli/help_texts.h"
#include "commands/books_text.h"
#include "commands/commands.h"

namespace ravo::cli {

namespace {

using platform::kept_crash;

bool is_last_of_port(const kept_crash &crash) {
    for (const kept_crash &each : platform::crash_book_all())
        if (each.port_ifindex == crash.port_ifindex && each.held_seconds != 0) return &each == &crash;
    return false;
}

// A hold is that of the port's last crash.
unsigned seconds_left(const kept_crash &crash) {
    return is_last_of_port(crash) ? platform::black_box_seconds_left(crash.port_ifindex) : 0;
}

std::string held_text(const kept_crash &crash) {
    if (crash.held_seconds == 0) return "-";
    const unsigned left = seconds_left(crash);
    return std::to_string(crash.held_seconds) + " s" + (left != 0 ? ", " + std::to_string(left) + " left" : "");
}

int show_crashes(struct cli *cli, int /*argc*/, char ** /*argv*/) {
    if (platform::crash_book_all().empty()) {
        cli->print(cli->print_handle, "No message is known that was in hand when the daemon died\n");
        return 0;
    }
    cli->print(cli->print_handle, "%-23s %-7s %4s  %-17s  %-7s  %s\n", "Time", "Port", "VLAN", "Client", "Ended",
               "Held");
    for (const kept_crash &crash : platform::crash_book_all()) {
        cli->print(cli->print_handle, "%-23s %-7s %4s  %-17s  %-7s  %s\n", time_text(crash.time_us).c_str(),
                   port_name(crash.port_ifindex).c_str(), crash.vlan != 0 ? std::to_string(crash.vlan).c_str() : "-",
                   mac_text(crash.client).c_str(), platform::black_box_cause(crash.cause).c_str(),
                   held_text(crash).c_str());
        if (!crash.capture.empty()) cli->print(cli->print_handle, "    %s\n", crash.capture.c_str());
    }
    if (!platform::crash_book_folder().empty())
        cli->print(cli->print_handle, "Captures are in %s\n", platform::crash_book_folder().c_str());
    return 0;
}

void add_crash(json_writer &out, const kept_crash &crash) {
    json_open(out, "", '{');
    json_string(out, "time", time_text_utc(crash.time_us));
    json_string(out, "client", mac_text(crash.client));
    if (crash.vlan != 0) json_number(out, "vlan", crash.vlan);
    if (crash.port_ifindex != 0) {
        json_string(out, "port", port_name(crash.port_ifindex));
        json_number(out, "ifindex", crash.port_ifindex);
    }
    json_string(out, "cause", platform::black_box_cause(crash.cause));
    json_number(out, "held_seconds", crash.held_seconds);
    json_number(out, "held_seconds_left", seconds_left(crash));
    if (!crash.capture.empty()) json_string(out, "capture", platform::crash_book_folder() + "/" + crash.capture);
    json_close(out, '}');
}

int crashes_json(struct cli * /*cli*/, int /*argc*/, char ** /*argv*/, json_writer &out) {
    json_open(out, "", '{');
    json_open(out, "crashes", '[');
    for (const kept_crash &crash : platform::crash_book_all()) add_crash(out, crash);
    json_close(out, ']');
    json_close(out, '}');
    return 0;
}

int clear_crashes(struct cli *cli, int /*argc*/, char ** /*argv*/) {
    platform::black_box_release();
    const fault wrong = platform::crash_book_clear();
    return wrong ? books_refuse(cli, "% " + wrong.text + "\n") : 0;
}

constexpr command_row rows[] = {
    {.privilege = viewer_privilege,
     .text = "show ip dhcp relay crashes",
     .help = {help::show, help::ip, help::dhcp, help::relay,
              "Messages that were in hand when the daemon died, and their ports"},
     .handler = show_crashes,
     .traits = {.effect = command_effect::looks, .who = audience::viewers, .json = crashes_json, .schema = "crashes"}},
    {.text = "clear ip dhcp relay crashes",
     .help = {help::clear, help::ip, help::dhcp, help::relay,
              "Forget messages that ended the daemon, remove their captures, release their ports"},
     .handler = clear_crashes,
     .traits = {.effect = command_effect::daemon}},
};

}  // namespace

void install_crash_commands(cli_tree *tree) {
    install_rows(tree, rows);
}

}  // namespace ravo::cli

// SPDX-License-Identifier: Apache-2.0
// Commands that show and clear what became of all messages: in total, for each VLAN interface, for each port.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "base/text.h"
#include "books/books.h"
#include "channel/channel.h"
#include "cli/command_row.h"
#include "cli/help_texts.h"
#include "commands/books_json.h"
#include "commands/books_snapshot.h"
#include "commands/books_text.h"
#include "commands/commands.h"
#include "osal/send_figures.h"
#include "osal/transaction_room.h"

namespace ravo::cli {

namespace {

void print_wrapped(struct cli *cli, const std::string &text) {
    constexpr std::size_t indent = 2;
    cli->print(cli->print_handle, "%s", platform::wrapped_text("", text, indent).c_str());
}

void print_types(struct cli *cli, const platform::book_counters &counters) {
    if (std::all_of(counters.by_type.begin() + 1, counters.by_type.end(),
                    [](std::uint64_t count) { return count == 0; }))
        return;
    cli->print(cli->print_handle, "  What they were:\n");
    for (std::uint8_t type = 1; type < platform::BOOK_TYPES; ++type)
        if (counters.by_type[type] != 0)
            cli->print(cli->print_handle, "  %-22s %12llu\n", std::string(platform::message_type_word(type)).c_str(),
                       static_cast<unsigned long long>(counters.by_type[type]));
}

// One block: what was counted in one place. Outcomes that no message had are left out.
void print_block(struct cli *cli, const std::string &title, const platform::book_counters &counters) {
    constexpr const char *row = "  %-22s %12llu  %s\n";
    const auto number = [](std::uint64_t value) { return static_cast<unsigned long long>(value); };
    cli->print(cli->print_handle, "%s\n", title.c_str());
    cli->print(cli->print_handle, row, "received", number(counters.received), "messages that came in");
    cli->print(cli->print_handle, row, "sent", number(counters.sent), "copies sent to servers and clients");
    if (counters.rebroadcast != 0)
        cli->print(cli->print_handle, row, "local broadcasts", number(counters.rebroadcast),
                   "copies broadcast again in their VLAN");
    print_types(cli, counters);
    cli->print(cli->print_handle, "  What became of them:\n");
    for (int i = 0; i < OUTCOMES; ++i) {
        const auto outcome = static_cast<relay_outcome>(i);
        if (counters.by_outcome[outcome] == 0) continue;
        char head[64];
        const int column =
            std::snprintf(head, sizeof head, "  %-22s %12llu  ", std::string(platform::outcome_word(outcome)).c_str(),
                          number(counters.by_outcome[outcome]));
        cli->print(
            cli->print_handle, "%s",
            platform::wrapped_text(head, platform::outcome_text(outcome), static_cast<std::size_t>(column)).c_str());
    }
}

std::string vlan_title(std::uint32_t vlan) {
    return "VLAN interface vlan" + std::to_string(vlan) + ":";
}

std::string port_title(std::uint32_t port) {
    return "Port " + port_name(port) + ":";
}

// Copies that were dropped instead of sent. Their messages have an outcome of their own: a request may have reached
// another server.
void print_unsent(struct cli *cli) {
    const auto print_row = [cli](const std::string &where, const platform::send_figures &figures) {
        print_wrapped(cli, where + ": " + std::to_string(figures.no_room) + " copies not sent for lack of room, " +
                               std::to_string(figures.failed) + " for other reasons");
    };
    for (const platform::send_row &row : platform::send_figures_servers())
        print_row("Server " + platform::ipv4_text(row.destination), row.figures);
    for (const platform::send_row &row : platform::send_figures_interfaces())
        print_row("Interface " + interface_name(row.destination), row.figures);
}

// Transactions that had to go, or to stay away, for lack of memory.
void print_crowded(struct cli *cli) {
    const auto number = [](std::uint64_t value) { return static_cast<unsigned long long>(value); };
    const platform::transaction_figures figures = platform::transaction_room_figures();
    if (figures.ended_early == 0 && figures.refused == 0) return;
    const auto text = [](std::uint64_t value) { return std::to_string(value); };
    print_wrapped(cli, text(figures.open) + " transactions open, " + text(figures.used) + " of " +
                           text(figures.budget) + " bytes used; " + text(figures.ended_early) +
                           " were ended early to make room, " + text(figures.refused) + " records found none");
    for (const platform::port_transactions &port : platform::transaction_room_ports())
        if (port.ended_early != 0)
            cli->print(cli->print_handle, "Port %s: %llu transactions open, %llu ended early\n",
                       port_name(port.port).c_str(), number(port.open), number(port.ended_early));
}

int show_all(struct cli *cli, int /*argc*/, char ** /*argv*/) {
    const book_snapshot now = take_snapshot();
    print_block(cli, "Total:", now.total);
    if (now.lost != 0)
        print_wrapped(cli,
                      std::to_string(now.lost) + " messages more came faster than they could be read and were lost");
    if (now.restarts != 0) cli->print(cli->print_handle, "Counted over %u restarts of the daemon\n", now.restarts);
    print_unsent(cli);
    print_crowded(cli);
    for (const counted_place &vlan : now.vlans) {
        cli->print(cli->print_handle, "\n");
        print_block(cli, vlan_title(vlan.number), vlan.counters);
    }
    for (const counted_place &port : now.ports) {
        cli->print(cli->print_handle, "\n");
        print_block(cli, port_title(port.number), port.counters);
    }
    return 0;
}

int show_vlan(struct cli *cli, int /*argc*/, char **argv) {
    const auto vlan = static_cast<std::uint16_t>(std::atoi(argv[0]));  // the parser has seen to its range
    platform::books_look();
    const platform::book_counters counters = platform::books_of_vlan(vlan);  // of one moment
    print_block(cli, vlan_title(vlan), counters);
    return 0;
}

int show_port(struct cli *cli, int /*argc*/, char **argv) {
    const auto port = read_port_name(argv[0]);
    if (!port) return books_refuse(cli, bad_port_line(argv[0]));
    platform::books_look();
    const platform::book_counters counters = platform::books_of_port(*port);  // of one moment
    print_block(cli, port_title(*port), counters);
    return 0;
}

int clear(struct cli * /*cli*/, int /*argc*/, char ** /*argv*/) {
    platform::books_look();
    platform::books_clear_counters();
    platform::channel_forget_lost();
    platform::send_figures_clear();
    platform::transaction_room_forget();
    return 0;
}

constexpr char statistics_word[] = "What became of all messages";

constexpr command_traits shows(json_handler json, const char *schema) {
    return {.effect = command_effect::looks, .who = audience::viewers, .json = json, .schema = schema};
}

constexpr command_row rows[] = {
    {.privilege = viewer_privilege,
     .text = "show ip dhcp relay statistics",
     .help = {help::show, help::ip, help::dhcp, help::relay, statistics_word},
     .handler = show_all,
     .traits = shows(statistics_json, "statistics")},
    {.privilege = viewer_privilege,
     .text = "show ip dhcp relay statistics vlan <1-4094>",
     .help = {help::show, help::ip, help::dhcp, help::relay, statistics_word, "Of one VLAN", help::vlan_id},
     .handler = show_vlan,
     .traits = shows(statistics_of_vlan_json, "statistics-vlan")},
    {.privilege = viewer_privilege,
     .text = "show ip dhcp relay statistics port PORT",
     .help = {help::show, help::ip, help::dhcp, help::relay, statistics_word, "Of one port", help::port},
     .handler = show_port,
     .traits = shows(statistics_of_port_json, "statistics-port")},
    {.text = "clear ip dhcp relay statistics",
     .help = {help::clear, help::ip, help::dhcp, help::relay, statistics_word},
     .handler = clear,
     .traits = {.effect = command_effect::daemon}},
};

}  // namespace

void install_statistics_commands(cli_tree *tree) {
    install_rows(tree, rows);
}

}  // namespace ravo::cli

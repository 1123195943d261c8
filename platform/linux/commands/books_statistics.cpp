// Commands that show and clear what became of all messages: in total, for each VLAN interface, for each port.
#include <cstdlib>
#include <string>

#include "base/text.h"
#include "books/books.h"
#include "channel/channel.h"
#include "cli/session.h"
#include "commands/books_commands.h"
#include "commands/books_text.h"
#include "osal/send_figures.h"

namespace ravo::cli {

namespace {

// One block: what was counted in one place. Outcomes that no message had are left out.
void print_block(struct cli *cli, const std::string &title, const platform::book_counters &counters) {
    constexpr const char *row = "  %-22s %12llu  %s\n";
    const auto number = [](std::uint64_t value) { return static_cast<unsigned long long>(value); };
    cli->print(cli->print_handle, "%s\n", title.c_str());
    cli->print(cli->print_handle, row, "received", number(counters.received), "messages that came in");
    cli->print(cli->print_handle, row, "sent", number(counters.sent), "copies sent on to servers and clients");
    if (counters.rebroadcast != 0)
        cli->print(cli->print_handle, row, "local broadcasts", number(counters.rebroadcast),
                   "copies broadcast again in their VLAN");
    cli->print(cli->print_handle, "  What became of them:\n");
    for (int i = 0; i < OUTCOMES; ++i) {
        const auto outcome = static_cast<relay_outcome>(i);
        if (counters.by_outcome[outcome] == 0) continue;
        cli->print(cli->print_handle, row, std::string(platform::outcome_word(outcome)).c_str(),
                   number(counters.by_outcome[outcome]), std::string(platform::outcome_text(outcome)).c_str());
    }
}

std::string vlan_title(std::uint16_t vlan) {
    return "VLAN interface vlan" + std::to_string(vlan) + ":";
}

std::string port_title(std::uint32_t port) {
    return "Port " + port_name(port) + ":";
}

// Copies that were dropped instead of sent. Their messages have an outcome of their own: a request may have reached
// another server.
void print_unsent(struct cli *cli) {
    const auto print_row = [cli](const std::string &where, const platform::send_figures &figures) {
        cli->print(cli->print_handle, "%s: %llu copies not sent for lack of room, %llu for other reasons\n",
                   where.c_str(), static_cast<unsigned long long>(figures.no_room),
                   static_cast<unsigned long long>(figures.failed));
    };
    for (const platform::send_row &row : platform::send_figures_servers())
        print_row("Server " + platform::ipv4_text(row.destination), row.figures);
    for (const platform::send_row &row : platform::send_figures_interfaces())
        print_row("Interface " + interface_name(row.destination), row.figures);
}

int show_all(struct cli *cli, int /*argc*/, char ** /*argv*/) {
    print_block(cli, "Total:", platform::books_total());
    if (const std::uint64_t lost = platform::channel_lost(); lost != 0)
        cli->print(cli->print_handle, "%llu messages more came faster than they could be read and were lost\n",
                   static_cast<unsigned long long>(lost));
    print_unsent(cli);
    for (const std::uint16_t vlan : platform::books_vlans()) {
        cli->print(cli->print_handle, "\n");
        print_block(cli, vlan_title(vlan), platform::books_of_vlan(vlan));
    }
    for (const std::uint32_t port : platform::books_ports()) {
        cli->print(cli->print_handle, "\n");
        print_block(cli, port_title(port), platform::books_of_port(port));
    }
    return 0;
}

int show_vlan(struct cli *cli, int /*argc*/, char **argv) {
    const auto vlan = static_cast<std::uint16_t>(std::atoi(argv[0]));  // the parser has seen to its range
    print_block(cli, vlan_title(vlan), platform::books_of_vlan(vlan));
    return 0;
}

int show_port(struct cli *cli, int /*argc*/, char **argv) {
    const auto port = read_port_name(argv[0]);
    if (!port) return books_refuse(cli, bad_port_line(argv[0]));
    print_block(cli, port_title(*port), platform::books_of_port(*port));
    return 0;
}

int clear(struct cli * /*cli*/, int /*argc*/, char ** /*argv*/) {
    platform::books_clear_counters();
    platform::channel_forget_lost();
    platform::send_figures_clear();
    return 0;
}

constexpr char show_word[] = "Show running system information";
constexpr char clear_word[] = "Reset counters";
constexpr char ip_word[] = "Internet Protocol version 4 (IPv4)";
constexpr char relay_word[] = "The DHCP relay";
constexpr char statistics_word[] = "What became of all messages";
constexpr const char *help_all[] = {show_word, ip_word, "DHCP", relay_word, statistics_word, nullptr};
constexpr const char *help_vlan[] = {show_word,       ip_word,       "DHCP",    relay_word,
                                     statistics_word, "Of one VLAN", "VLAN id", nullptr};
constexpr const char *help_port[] = {
    show_word, ip_word, "DHCP", relay_word, statistics_word, "Of one port", "Module and port, such as 1/2", nullptr};
constexpr const char *help_clear[] = {clear_word, ip_word, "DHCP", relay_word, statistics_word, nullptr};

constexpr builtin books_row(int privilege, const char *text, cli_handler handler, const char *const *help) {
    return {CLI_MODE_EXEC, privilege, command_role::platform, {text, handler, help, {}}};
}

constexpr builtin rows[] = {
    books_row(2, "show ip dhcp relay statistics", show_all, help_all),
    books_row(2, "show ip dhcp relay statistics vlan <1-4094>", show_vlan, help_vlan),
    books_row(2, "show ip dhcp relay statistics port PORT", show_port, help_port),
    books_row(operator_privilege, "clear ip dhcp relay statistics", clear, help_clear),
};

}  // namespace

int books_refuse(struct cli *cli, const std::string &line) {
    cli->print(cli->print_handle, "%s", line.c_str());
    return 1;
}

void install_statistics_commands(cli_tree *tree) {
    install_builtins(tree, rows);
}

void install_books_commands(cli_tree *tree) {
    install_statistics_commands(tree);
    install_client_commands(tree);
    install_monitor_commands(tree);
}

}  // namespace ravo::cli

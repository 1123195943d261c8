// Commands that show the platform's side of things: version, session, interfaces and ports, log, service status.
#include <algorithm>
#include <string>
#include <vector>

#include "cli/session.h"
#include "inventory/inventory.h"
#include "log/log.h"
#include "process/frame.h"
#include "process/service_status.h"

namespace ravo::cli {

namespace {

// Privilege of commands that only look.
constexpr int viewer_privilege = 2;

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

int show_interfaces(struct cli *cli, int /*argc*/, char ** /*argv*/) {
    const std::vector<platform::inventory_row> rows = platform::inventory_rows();
    cli->print(cli->print_handle, "%-14s %6s  %-5s  %-18s  %4s  %-15s  %s\n", "Interface", "Number", "State", "Address",
               "PVID", "Device", "Index");
    for (const platform::inventory_row &row : rows) {
        const bool present = !row.device.empty();
        cli->print(cli->print_handle, "%-14s %6u  %-5s  %-18s  %4s  %-15s  %s\n", row.name.c_str(), row.ifindex,
                   row.up ? "up" : "down", row.address.empty() ? "-" : row.address.c_str(),
                   row.pvid == 0 ? "-" : std::to_string(row.pvid).c_str(), present ? row.device.c_str() : "-",
                   row.kernel_ifindex == 0 ? "-" : std::to_string(row.kernel_ifindex).c_str());
    }
    return 0;
}

int show_logging(struct cli *cli, int /*argc*/, char ** /*argv*/) {
    cli->print(cli->print_handle, "Log level %s, to %s\n",
               std::string(platform::log_word_of(platform::log_threshold())).c_str(),
               platform::frame_get_options().log_target.c_str());
    for (const std::string &line : platform::log_recent()) cli->print(cli->print_handle, "%s\n", line.c_str());
    return 0;
}

int show_service_status(struct cli *cli, int /*argc*/, char ** /*argv*/) {
    const std::string line = platform::service_status_line();
    cli->print(cli->print_handle, "%s\n", line.empty() ? "No service has reported yet" : line.c_str());
    return 0;
}

constexpr char show_word[] = "Show running system information";
constexpr const char *help_version[] = {show_word, "Version and time since start", nullptr};
constexpr const char *help_history[] = {show_word, "The lines typed in this session", nullptr};
constexpr const char *help_privilege[] = {show_word, "What this session may do", nullptr};
constexpr const char *help_interfaces[] = {show_word, "VLAN interfaces and ports", "A line for each", nullptr};
constexpr const char *help_logging[] = {show_word, "The last lines of the log", nullptr};
constexpr const char *help_service[] = {show_word, "The daemon's services", "Whether they are on", nullptr};

constexpr builtin show_row(int privilege, const char *text, cli_handler handler, const char *const *help) {
    return {CLI_MODE_EXEC, privilege, command_role::platform, {text, handler, help, {}}};
}

constexpr builtin rows[] = {
    show_row(viewer_privilege, "show version", show_version, help_version),
    show_row(viewer_privilege, "show history", show_history, help_history),
    show_row(1, "show privilege", show_privilege, help_privilege),
    show_row(viewer_privilege, "show interfaces brief", show_interfaces, help_interfaces),
    show_row(viewer_privilege, "show logging", show_logging, help_logging),
    show_row(viewer_privilege, "show service status", show_service_status, help_service),
};

}  // namespace

void install_show_commands(cli_tree *tree) {
    install_builtins(tree, rows);
}

}  // namespace ravo::cli

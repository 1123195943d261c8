// SPDX-License-Identifier: Apache-2.0
// The log at a terminal, line by line as it is written: with its time of day and its level, as much of it as was asked
// for. A terminal that is slower than the log misses lines and is told how many; nothing waits for it.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "base/clock.h"
#include "base/time_text.h"
#include "cli/command_row.h"
#include "cli/session.h"
#include "commands/books_text.h"
#include "commands/commands.h"
#include "inventory/inventory.h"
#include "inventory/inventory_names.h"
#include "log/log.h"

namespace ravo::cli {

namespace {

// What is to be shown: lines of a level and above, of all or of one interface or port.
struct monitor_wish {
    int level = platform::log_level_trace;
    std::uint16_t vlan = 0;          // 0: not of a VLAN interface
    std::uint32_t port_ifindex = 0;  // 0: not of a port
    std::vector<std::string> names;  // of the interface or port, as lines have them; empty: of all
};

struct log_monitor {
    session *owner;
    monitor_wish wish;
    std::uint64_t missed = 0;  // lines since the last one shown
};

bool is_of_word(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '_' ||
           c == '/';
}

// Tells whether the line has this name as a word of its own: not as a part of "vlan201" or "swp1.20".
bool mentions(std::string_view line, std::string_view name) {
    for (std::size_t at = line.find(name); at != std::string_view::npos; at = line.find(name, at + 1)) {
        const std::string_view behind = line.substr(at + name.size());
        const bool begins = at == 0 || !(is_of_word(line[at - 1]) || line[at - 1] == '.');
        const bool ends = behind.empty() ||
                          !(is_of_word(behind[0]) || (behind[0] == '.' && behind.size() > 1 && is_of_word(behind[1])));
        if (begins && ends) return true;
    }
    return false;
}

bool is_wished(const monitor_wish &wish, const platform::log_event &event) {
    if (wish.names.empty()) return true;
    if (wish.vlan != 0 && event.subject.vlan == wish.vlan) return true;
    if (wish.port_ifindex != 0 && event.subject.port_ifindex == wish.port_ifindex) return true;
    return std::any_of(wish.names.begin(), wish.names.end(),
                       [&](const std::string &name) { return mentions(event.line, name); });
}

// Lines that are written at every level have none.
std::string_view level_word(int level) {
    return level < platform::log_level_trace ? "notice" : platform::log_word_of(level);
}

void show(log_monitor &monitor, const platform::log_event &event) {
    if (!is_wished(monitor.wish, event)) return;
    const session_output &to = monitor.owner->output;
    if (to.full && to.full()) {
        ++monitor.missed;
        return;
    }
    if (monitor.missed != 0) to.monitor(std::to_string(monitor.missed) + " lines came faster than they could be shown");
    monitor.missed = 0;
    constexpr std::size_t behind_date = 11;
    constexpr std::int64_t second = 1000000;
    const std::string when = platform::time_text(event.when.tv_sec * second + event.when.tv_nsec / 1000);
    to.monitor(when.substr(std::min(behind_date, when.size())) + " " + std::string(level_word(event.level)) + ": " +
               std::string(event.line));
}

// Finds the interface or the port of a name. Returns false when there is none.
bool read_name(std::string_view name, monitor_wish *out) {
    out->vlan = platform::vlan_of_name(name);
    if (out->vlan == 0) out->vlan = platform::inventory_vlan_of_device(std::string(name));
    const auto port = out->vlan == 0 ? read_port_name(name) : std::nullopt;
    if (port) out->port_ifindex = *port;
    if (out->vlan == 0 && !port) return false;
    out->names.push_back(port ? port_name(*port) : "vlan" + std::to_string(out->vlan));
    for (const platform::inventory_row &row : platform::inventory_rows()) {
        const bool same = port ? row.kind == platform::inventory_row::what::port && row.ifindex == *port
                               : row.name == out->names.front();
        if (same && row.device != out->names.front()) out->names.push_back(row.device);
    }
    return true;
}

int stop(session &s) {
    if (s.monitor != 0) platform::log_remove_listener(s.monitor);
    s.monitor = 0;
    return 0;
}

int terminal_monitor(struct cli *cli, int argc, char **argv) {
    session &s = session_of(cli);
    if (!s.output.monitor) {
        cli->print(cli->print_handle, "%% This session cannot show log lines\n");
        return 1;
    }
    const auto monitor = std::make_shared<log_monitor>(log_monitor{&s, {}, 0});
    for (int i = 0; i < argc; ++i) {
        const std::string_view word = argv[i];
        if (word != "interface") {
            monitor->wish.level = platform::log_level_of(word);
        } else if (++i == argc || !read_name(argv[i], &monitor->wish)) {
            cli->print(cli->print_handle, "%% \"%s\" is no interface and no port\n", i < argc ? argv[i] : "");
            return 1;
        }
    }
    stop(s);
    s.monitor = platform::log_add_listener(monitor->wish.level,
                                           [monitor](const platform::log_event &event) { show(*monitor, event); });
    return 0;
}

int terminal_no_monitor(struct cli *cli, int /*argc*/, char ** /*argv*/) {
    return stop(session_of(cli));
}

constexpr char terminal_word[] = "This session's terminal";
constexpr command_traits own = {.effect = command_effect::session};

constexpr command_row rows[] = {
    {.text = "terminal monitor [error|warning|trace] [interface NAME]",
     .help = {terminal_word, "Show log lines as they are written, with time and level", "Failures only",
              "Failures and warnings", "Everything", "Lines about one interface or port alone",
              "Its name, as vlan10 or 1/2, or its device"},
     .handler = terminal_monitor,
     .traits = own},
    {.text = "terminal no monitor",
     .help = {terminal_word, "Turn off", "Showing log lines"},
     .handler = terminal_no_monitor,
     .traits = own},
};

}  // namespace

void install_log_monitor_commands(cli_tree *tree) {
    install_rows(tree, rows);
}

}  // namespace ravo::cli

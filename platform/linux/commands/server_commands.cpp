// SPDX-License-Identifier: Apache-2.0
// Commands that show and clear how the servers answer: each by the interface that it is asked for.
#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>
#include <map>
#include <string>
#include <vector>

#include "base/clock.h"
#include "base/text.h"
#include "books/server_book.h"
#include "cli/command_row.h"
#include "cli/help_texts.h"
#include "commands/books_text.h"
#include "commands/commands.h"
#include "inventory/inventory_names.h"
#include "process/relay_data.h"

namespace ravo::cli {

namespace {

using platform::server_figures;

constexpr std::int64_t second = 1000000;

struct server_row {
    server_figures figures;
    bool configured = false;
};

std::vector<std::uint32_t> servers_of(const relay_interface &iface) {
    std::vector<std::uint32_t> out;
    const auto add = [&](std::uint32_t server) {
        if (server != 0 && std::find(out.begin(), out.end(), server) == out.end()) out.push_back(server);
    };
    for (const std::uint32_t server : iface.servers) add(server);
    for (const relay_option60_host &host : iface.option60)
        if (host.used == 1) add(host.server);
    for (const relay_option61_host &host : iface.option61)
        if (host.used == 1) add(host.server);
    return out;
}

// The servers that are configured, asked or not, and those that were asked before they were taken out.
std::vector<server_row> all_servers() {
    std::map<std::uint16_t, std::vector<server_row>> of_vlan;
    for (const server_figures &figures : platform::servers_all()) of_vlan[figures.vlan].push_back({figures});
    const relay_access *relay = platform::relay_data();
    relay_interface iface{};
    for (int found = relay == nullptr ? 0 : relay->interface_first(&iface); found == 1;
         found = relay->interface_next(&iface)) {
        std::vector<server_row> &rows = of_vlan[platform::vlan_of_name(iface.name)];
        for (const std::uint32_t server : servers_of(iface)) {
            auto row = std::find_if(rows.begin(), rows.end(),
                                    [&](const server_row &each) { return each.figures.server == server; });
            if (row == rows.end()) row = rows.insert(rows.end(), server_row{});
            row->figures.vlan = platform::vlan_of_name(iface.name);
            row->figures.server = server;
            row->configured = true;
        }
    }
    std::vector<server_row> out;
    for (const auto &[vlan, rows] : of_vlan) out.insert(out.end(), rows.begin(), rows.end());
    return out;
}

std::string time_column(std::optional<std::int64_t> microseconds) {
    if (!microseconds) return "-";
    char text[24];
    const double value = static_cast<double>(*microseconds);
    if (*microseconds < second)
        std::snprintf(text, sizeof text, "%.1f ms", value / 1e3);
    else
        std::snprintf(text, sizeof text, "%.1f s", value / 1e6);
    return text;
}

std::string since_text(std::int64_t time_us) {
    const auto seconds = static_cast<time_t>(time_us / second);
    struct tm parts {};
    localtime_r(&seconds, &parts);
    char text[24];
    return {text, strftime(text, sizeof text, "%m-%d %H:%M:%S", &parts)};
}

int show_servers(struct cli *cli, int /*argc*/, char ** /*argv*/) {
    const std::int64_t now = platform::wall_clock_us();
    cli->print(cli->print_handle, "%-9s %-15s %9s %9s %8s %8s  %s\n", "Interface", "Server", "Asked", "Answered",
               "Median", "p99", "Silent since");
    for (const server_row &row : all_servers()) {
        const server_figures &figures = row.figures;
        const bool silent = platform::silent_seconds(figures, now).has_value();
        cli->print(cli->print_handle, "%-9s %-15s %9llu %9llu %8s %8s  %s\n",
                   ("vlan" + std::to_string(figures.vlan)).c_str(), platform::ipv4_text(figures.server).c_str(),
                   static_cast<unsigned long long>(figures.asked), static_cast<unsigned long long>(figures.answered),
                   time_column(platform::answer_time(figures, 0.5)).c_str(),
                   time_column(platform::answer_time(figures, 0.99)).c_str(),
                   silent ? since_text(figures.unanswered_us).c_str() : "-");
    }
    return 0;
}

// ---- The document ----

// Limits of the histogram in the document; those that no time counted for are left out, so that what programs read
// stays small with as many servers as there can be. A time of the books counts for the first limit that its bucket's
// middle does not pass.
constexpr std::array<std::int64_t, 13> limits_us = {500,    1000,   2500,   5000,    10000,   25000,  50000,
                                                    100000, 250000, 500000, 1000000, 2500000, 5000000};

void add_times(json_writer &out, const server_figures &figures) {
    std::array<std::uint64_t, limits_us.size() + 1> counts{};
    for (std::size_t bucket = 0; bucket < figures.times.size(); ++bucket) {
        const std::int64_t middle =
            (platform::bucket_end(bucket) + (bucket == 0 ? 0 : platform::bucket_end(bucket - 1))) / 2;
        const auto limit = std::lower_bound(limits_us.begin(), limits_us.end(), middle);
        counts[static_cast<std::size_t>(limit - limits_us.begin())] += figures.times[bucket];
    }
    json_open(out, "response_times", '{');
    json_open(out, "buckets", '[');
    for (std::size_t i = 0; i < counts.size(); ++i) {
        if (counts[i] == 0) continue;
        json_open(out, "", '{');
        if (i < limits_us.size()) json_number(out, "le_us", limits_us[i]);
        json_number(out, "count", static_cast<std::int64_t>(counts[i]));
        json_close(out, '}');
    }
    json_close(out, ']');
    json_number(out, "sum_us", static_cast<std::int64_t>(figures.time_sum_us));
    json_close(out, '}');
}

void add_server(json_writer &out, const server_row &row, std::int64_t now) {
    const server_figures &figures = row.figures;
    json_open_row(out, "", '{');
    json_string(out, "interface", "vlan" + std::to_string(figures.vlan));
    json_string(out, "server", platform::ipv4_text(figures.server));
    json_bool(out, "configured", row.configured);
    json_number(out, "asked", static_cast<std::int64_t>(figures.asked));
    json_number(out, "answered", static_cast<std::int64_t>(figures.answered));
    if (const auto median = platform::answer_time(figures, 0.5)) json_number(out, "median_us", *median);
    if (const auto slow = platform::answer_time(figures, 0.99)) json_number(out, "p99_us", *slow);
    if (const auto silent = platform::silent_seconds(figures, now)) {
        json_number(out, "silent_seconds", *silent);
        json_string(out, "silent_since", time_text_utc(figures.unanswered_us));
    }
    if (figures.answered > 0) add_times(out, figures);
    json_close(out, '}');
}

int servers_json(struct cli * /*cli*/, int /*argc*/, char ** /*argv*/, json_writer &out) {
    const std::int64_t now = platform::wall_clock_us();
    json_open(out, "", '{');
    json_open(out, "servers", '[');
    for (const server_row &row : all_servers()) add_server(out, row, now);
    json_close(out, ']');
    json_close(out, '}');
    return 0;
}

int clear_servers(struct cli * /*cli*/, int /*argc*/, char ** /*argv*/) {
    platform::servers_clear();
    return 0;
}

constexpr char server_word[] = "How often each server was asked and answered, and how fast";

constexpr command_row rows[] = {
    {.privilege = viewer_privilege,
     .text = "show ip dhcp relay server",
     .help = {help::show, help::ip, help::dhcp, help::relay, server_word},
     .handler = show_servers,
     .traits = {.effect = command_effect::looks, .who = audience::viewers, .json = servers_json, .schema = "servers"}},
    {.text = "clear ip dhcp relay server",
     .help = {help::clear, help::ip, help::dhcp, help::relay, server_word},
     .handler = clear_servers,
     .traits = {.effect = command_effect::daemon}},
};

}  // namespace

void install_server_commands(cli_tree *tree) {
    install_rows(tree, rows);
}

}  // namespace ravo::cli

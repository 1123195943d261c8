// SPDX-License-Identifier: Apache-2.0
// Commands about VLAN interfaces, uplinks and ports: which there are, and which numbers the ports have and why.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "base/files.h"
#include "books/books.h"
#include "cli/command_row.h"
#include "cli/help_texts.h"
#include "cli/session.h"
#include "cli/vlan_list.h"
#include "commands/commands.h"
#include "configuration/configuration.h"
#include "inventory/inventory.h"
#include "inventory/switch_description.h"
#include "log/log.h"
#include "port_number.h"
#include "process/frame.h"

namespace ravo::cli {

namespace {

using platform::inventory_row;

// VLANs in a column of a table: as many as it takes, and "..." for the rest.
std::string vlan_column(const std::vector<std::uint16_t> &vlans, std::size_t width) {
    const std::string all = vlan_list_text(vlans);
    if (all.size() <= width) return all.empty() ? "-" : all;
    constexpr std::string_view more = "...";
    const std::size_t comma = all.rfind(',', width - more.size());
    return all.substr(0, comma == std::string::npos ? width - more.size() : comma + 1) + std::string(more);
}

std::string number_or_dash(std::uint32_t number) {
    return number == 0 ? "-" : std::to_string(number);
}

void print_interfaces(struct cli *cli, const std::vector<inventory_row> &rows) {
    cli->print(cli->print_handle, "%-10s %6s  %-5s  %-18s  %-15s  %s\n", "Interface", "Number", "State", "Address",
               "Device", "Index");
    for (const inventory_row &row : rows) {
        if (row.kind == inventory_row::what::port) continue;
        cli->print(cli->print_handle, "%-10s %6s  %-5s  %-18s  %-15s  %d\n", row.name.c_str(),
                   number_or_dash(row.ifindex).c_str(), row.up ? "up" : "down",
                   row.address.empty() ? "-" : row.address.c_str(), row.device.c_str(), row.kernel_ifindex);
    }
}

std::uint64_t over_limit(const inventory_row &port) {
    return platform::books_of_port(port.ifindex).by_outcome[OUTCOME_PORT_LIMIT];
}

// What a person is to know of a port beside its columns.
std::string remark_on(const inventory_row &port) {
    const std::uint64_t dropped = over_limit(port);
    return dropped == 0 ? std::string() : "\n  limit reached: " + std::to_string(dropped) + " dropped";
}

void print_ports(struct cli *cli, const std::vector<inventory_row> &rows) {
    constexpr std::size_t vlan_width = 14;
    cli->print(cli->print_handle, "\n%-11s %6s  %-5s  %4s  %-14s  %-15s  %s\n", "Port", "Number", "State", "PVID",
               "VLANs", "Device", "Numbered by");
    for (const inventory_row &row : rows) {
        if (row.kind != inventory_row::what::port) continue;
        cli->print(cli->print_handle, "%-11s %6s  %-5s  %4s  %-14s  %-15s  %s%s\n", row.name.c_str(),
                   number_or_dash(row.ifindex).c_str(), row.up ? "up" : "down", number_or_dash(row.pvid).c_str(),
                   vlan_column(row.vlans, vlan_width).c_str(), row.device.c_str(), std::string(row.why).c_str(),
                   remark_on(row).c_str());
    }
}

int show_interfaces(struct cli *cli, int /*argc*/, char ** /*argv*/) {
    platform::books_look();
    const std::vector<inventory_row> rows = platform::inventory_rows(turns_pause_if_due);
    print_interfaces(cli, rows);
    print_ports(cli, rows);
    return 0;
}

int show_ip_interfaces(struct cli *cli, int /*argc*/, char ** /*argv*/) {
    print_interfaces(cli, platform::inventory_rows(turns_pause_if_due));
    return 0;
}

std::string_view kind_word(inventory_row::what kind) {
    if (kind == inventory_row::what::port) return "port";
    return kind == inventory_row::what::uplink ? "uplink" : "vlan";
}

void add_row(json_writer &out, const inventory_row &row) {
    json_open(out, "", '{');
    json_string(out, "name", row.name);
    json_string(out, "kind", kind_word(row.kind));
    if (row.ifindex != 0) json_number(out, "ifindex", row.ifindex);
    json_bool(out, "up", row.up);
    if (!row.address.empty()) json_string(out, "address", row.address);
    if (row.pvid != 0) json_number(out, "pvid", row.pvid);
    json_string(out, "device", row.device);
    json_number(out, "kernel_ifindex", row.kernel_ifindex);
    if (row.kind == inventory_row::what::port) {
        json_open(out, "vlans", '[');
        for (const std::uint16_t vlan : row.vlans) json_number(out, "", vlan);
        json_close(out, ']');
        json_string(out, "numbered_by", row.why);
        json_number(out, "over_limit", static_cast<std::int64_t>(over_limit(row)));
    }
    json_close(out, '}');
}

int rows_json(json_writer &out, bool with_ports) {
    json_open(out, "", '{');
    json_open(out, "interfaces", '[');
    for (const inventory_row &row : platform::inventory_rows(turns_pause_if_due))
        if (with_ports || row.kind != inventory_row::what::port) add_row(out, row);
    json_close(out, ']');
    json_close(out, '}');
    return 0;
}

int interfaces_json(struct cli * /*cli*/, int /*argc*/, char ** /*argv*/, json_writer &out) {
    platform::books_look();
    return rows_json(out, /*with_ports=*/true);
}

int ip_interfaces_json(struct cli * /*cli*/, int /*argc*/, char ** /*argv*/, json_writer &out) {
    return rows_json(out, /*with_ports=*/false);
}

// ---- The switch description ----

int fail(struct cli *cli, const std::string &reason) {
    cli->print(cli->print_handle, "%% %s\n", reason.c_str());
    return 1;
}

// The ports that are there and have no table in the description yet.
std::vector<platform::described_port> undescribed(const platform::switch_description &description) {
    std::vector<platform::described_port> out;
    for (const inventory_row &row : platform::inventory_rows()) {
        if (row.kind != inventory_row::what::port || row.ifindex == 0) continue;
        const auto names = [&](const platform::described_port &port) { return port.device == row.device; };
        if (std::any_of(description.ports.begin(), description.ports.end(), names)) continue;
        const port_place place = port_number_place(row.ifindex);
        out.push_back({row.device, place.module, place.port, {}});
    }
    return out;
}

// Appends tables to the file and judges the result. The fault: what keeps it from being the new description.
fault describe_ports(const std::string &path, const std::vector<platform::described_port> &ports) {
    constexpr std::size_t most = 4u << 20;
    constexpr mode_t mode = 0644;
    std::string text;
    const int failed = platform::read_file(path, most, &text);
    if (failed != 0 && failed != ENOENT) return {path + " cannot be read: " + std::strerror(failed)};
    if (!text.empty() && text.back() != '\n') text += '\n';
    text += "\n# Ports as \"copy ports switch-description\" found them.\n" + platform::switch_description_ports(ports);
    platform::switch_description description;
    const std::vector<std::string> faults = platform::switch_description_parse(text, path, &description);
    if (!faults.empty()) return {"The ports do not fit into " + path + ", which stays as it is: " + faults.front()};
    return save_file(path, text, mode);
}

int copy_ports(struct cli *cli, int /*argc*/, char ** /*argv*/) {
    const platform::frame_options &options = platform::frame_get_options();
    platform::switch_description description;
    if (const fault wrong = platform::switch_description_read(options.switch_file, /*optional=*/true, &description))
        return fail(cli, wrong.text);
    const std::vector<platform::described_port> ports = undescribed(description);
    if (ports.empty()) {
        cli->print(cli->print_handle, "Each port that is there has its number in %s already\n",
                   options.switch_file.c_str());
        return 0;
    }
    if (const fault wrong = describe_ports(options.switch_file, ports)) return fail(cli, wrong.text);
    platform::frame_reload();
    cli->print(cli->print_handle, "%zu ports added to %s\n", ports.size(), options.switch_file.c_str());
    return 0;
}

int clear_ports(struct cli *cli, int /*argc*/, char ** /*argv*/) {
    const std::size_t count = platform::inventory_forget_ports();
    platform::log_line(platform::log_level_start, "interfaces: numbers of %zu absent ports forgotten by %s", count,
                       session_of(cli).user.c_str());
    cli->print(cli->print_handle, "%zu absent ports forgotten\n", count);
    return 0;
}

constexpr command_row rows[] = {
    {.privilege = viewer_privilege,
     .text = "show interfaces brief",
     .help = {help::show, "VLAN interfaces, uplinks and ports", "A line for each that is there"},
     .handler = show_interfaces,
     .traits =
         {.effect = command_effect::looks, .who = audience::viewers, .json = interfaces_json, .schema = "interfaces"}},
    {.privilege = viewer_privilege,
     .text = "show ip interface brief",
     .help = {help::show, help::ip, "VLAN interfaces and uplinks with their addresses",
              "A line for each that is there"},
     .handler = show_ip_interfaces,
     .traits = {.effect = command_effect::looks,
                .who = audience::viewers,
                .json = ip_interfaces_json,
                .schema = "ip-interfaces"}},
    {.text = "copy ports switch-description",
     .help = {"Copy one configuration to another", "The numbers that ports have now",
              "To the switch description, beside what it says already"},
     .handler = copy_ports,
     .traits = {.effect = command_effect::files}},
    {.text = "clear ip dhcp relay ports",
     .help = {help::clear, help::ip, help::dhcp, help::relay, "Forget the numbers of ports whose devices are away"},
     .handler = clear_ports,
     .traits = {.effect = command_effect::daemon}},
};

}  // namespace

void install_interface_commands(cli_tree *tree) {
    install_rows(tree, rows);
}

}  // namespace ravo::cli

// SPDX-License-Identifier: Apache-2.0
// Reads the switch description. The file is read whole, parsed, and then every table is gone through against the list
// of the keys it may have; each fault is noted with its place, so that one run names all of them. A description with a
// fault is never used in part.
#include "inventory/switch_description.h"
#include "base/files.h"
#include "inventory/description_text.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <string_view>

#include "inventory/description_values.h"

namespace ravo::platform {

namespace {

// A description of every port and VLAN there can be takes a tenth of this.
constexpr std::size_t max_file_size = 4 * 1024 * 1024;

constexpr std::int64_t max_vlan = 4094;

constexpr std::string_view port_keys[] = {"device", "module",  "port",    "trap",   "limit",
                                          "burst",  "servers", "trusted", "clients"};
constexpr std::string_view interface_keys[] = {"vlan", "device"};
constexpr std::string_view channel_keys[] = {"trap", "recorder"};
constexpr std::string_view limit_keys[] = {"port", "burst", "uplink"};
constexpr std::string_view guard_keys[] = {"all",        "server_ports", "servers", "circuit_id",   "relay_fields",
                                           "source_mac", "destination",  "clients", "transactions", "core_assertions"};
constexpr std::string_view settings_keys[] = {"keep"};
constexpr std::string_view capture_keys[] = {"folders"};
constexpr table_shape port_shape = {"[[port]]", port_keys, "device, module and port"};
constexpr table_shape interface_shape = {"[[interface]]", interface_keys, "vlan and device"};
constexpr table_shape channel_shape = {"[channel]", channel_keys, ""};
constexpr table_shape limit_shape = {"[limit]", limit_keys, ""};
constexpr table_shape capture_shape = {"[capture]", capture_keys, ""};
constexpr table_shape guard_shape = {"[guard]", guard_keys, ""};
constexpr table_shape settings_shape = {"[settings]", settings_keys, ""};
constexpr std::string_view management_keys[] = {"sessions", "per_user", "idle_minutes"};
constexpr table_shape management_shape = {"[management]", management_keys, ""};

void read_port(reading &r, const toml::table &table) {
    check_keys(r, table, port_shape);
    const auto device = read_device(r, table, port_shape);
    const auto module = read_number(r, table, "module", port_shape, 1, described_module_max);
    const std::int64_t lowest = module == std::optional<std::uint32_t>(1) ? 1 : 0;
    const auto port = read_number(r, table, "port", port_shape, lowest, described_port_max);
    if (device) mark_once(r, "port device " + quoted(*device), table.get("device")->source().begin, "name it once");
    if (module && port)
        mark_once(r, "port " + std::to_string(*module) + "/" + std::to_string(*port), table.get("port")->source().begin,
                  "give each port a number of its own");
    const auto trap = read_flag(r, table, "trap");
    const auto limit = read_optional_number(r, table, "limit", 0, described_limit_max);
    const auto burst = read_optional_number(r, table, "burst", 1, described_limit_max);
    const bool servers = read_flag(r, table, "servers").value_or(false);
    const bool trusted = read_flag(r, table, "trusted").value_or(false);
    const auto clients = read_optional_number(r, table, "clients", 0, described_clients_max);
    if (device && module && port)
        r.found.ports.push_back({*device, *module, *port, trap, limit, burst, servers, trusted, clients});
}

void read_interface(reading &r, const toml::table &table) {
    check_keys(r, table, interface_shape);
    const auto vlan = read_number(r, table, "vlan", interface_shape, 1, max_vlan);
    const auto device = read_device(r, table, interface_shape);
    if (vlan)
        mark_once(r, "vlan " + std::to_string(*vlan), table.get("vlan")->source().begin, "name one device for it");
    if (device)
        mark_once(r, "interface device " + quoted(*device), table.get("device")->source().begin,
                  "a device carries one VLAN");
    if (vlan && device) r.found.interfaces.push_back({*vlan, *device});
}

void read_channel(reading &r, const toml::table &table) {
    check_keys(r, table, channel_shape);
    r.found.channel.trap = read_flag(r, table, "trap").value_or(false);
    r.found.channel.recorder =
        read_optional_number(r, table, "recorder", 1, described_recorder_max).value_or(described_recorder_default);
}

void read_limit(reading &r, const toml::table &table) {
    check_keys(r, table, limit_shape);
    described_limit &found = r.found.limit;
    found.port = read_optional_number(r, table, "port", 0, described_limit_max).value_or(found.port);
    found.burst = read_optional_number(r, table, "burst", 1, described_limit_max).value_or(found.burst);
    found.uplink = read_optional_number(r, table, "uplink", 0, described_limit_max).value_or(found.uplink);
}

// Every guard follows "all" unless it says otherwise; that the relay ends is nothing to ask for along with others.
void read_guard(reading &r, const toml::table &table) {
    check_keys(r, table, guard_shape);
    const bool all = read_flag(r, table, "all").value_or(false);
    described_guard &found = r.found.guard;
    found.server_ports = read_flag(r, table, "server_ports").value_or(all);
    found.servers = read_flag(r, table, "servers").value_or(all);
    found.circuit_id = read_flag(r, table, "circuit_id").value_or(all);
    found.relay_fields = read_flag(r, table, "relay_fields").value_or(all);
    found.source_mac = read_flag(r, table, "source_mac").value_or(all);
    found.destination = read_flag(r, table, "destination").value_or(all);
    found.transactions = read_flag(r, table, "transactions").value_or(all);
    found.clients =
        read_optional_number(r, table, "clients", 0, described_clients_max).value_or(all ? described_clients_all : 0);
    found.core_assertions = read_flag(r, table, "core_assertions").value_or(false);
}

void read_settings(reading &r, const toml::table &table) {
    check_keys(r, table, settings_shape);
    r.found.settings.keep = read_flag(r, table, "keep").value_or(true);
}

void read_management(reading &r, const toml::table &table) {
    described_management &found = r.found.management;
    check_keys(r, table, management_shape);
    read_optional(r, table, "sessions", described_sessions_least, described_sessions_max, &found.sessions);
    found.per_user = std::min(found.per_user, found.sessions);
    read_optional(r, table, "per_user", 1, found.sessions, &found.per_user);
    read_optional(r, table, "idle_minutes", 0, described_idle_max, &found.idle_minutes);
}

// Returns nothing for what is no whole path, with its place noted. What turns back on its way may lead anywhere.
std::optional<std::string> folder_of_captures(reading &r, const toml::node &node) {
    const auto *text = node.as_string();
    std::string folder = text == nullptr ? "" : text->get();
    while (folder.size() > 1 && folder.back() == '/') folder.pop_back();
    const bool turns =
        (folder + "/").find("/../") != std::string::npos || (folder + "/").find("/./") != std::string::npos;
    if (folder.size() > 1 && folder.front() == '/' && !turns) return folder;
    note(r, node.source().begin,
         "a folder for captures must be a whole path in quotes, below \"/\" and without \"..\", not " +
             (text == nullptr ? type_name(node) : quoted(text->get())));
    return std::nullopt;
}

void read_capture(reading &r, const toml::table &table) {
    check_keys(r, table, capture_shape);
    const toml::node *node = table.get("folders");
    if (node == nullptr) return;
    const toml::array *list = node->as_array();
    if (list == nullptr) {
        note(r, node->source().begin, "\"folders\" must be a list of folders, not " + type_name(*node));
        return;
    }
    for (const toml::node &item : *list)
        if (const auto folder = folder_of_captures(r, item)) r.found.capture.folders.push_back(*folder);
}

// The tables a description may have. A new one is a row here and a reader above.
struct top_table {
    std::string_view name;
    bool list;  // there may be many: [[NAME]]
    void (*read)(reading &r, const toml::table &table);
};
constexpr top_table top_tables[] = {{"port", true, read_port},
                                    {"interface", true, read_interface},
                                    {"channel", false, read_channel},
                                    {"limit", false, read_limit},
                                    {"guard", false, read_guard},
                                    {"settings", false, read_settings},
                                    {"management", false, read_management},
                                    {"capture", false, read_capture}};

void read_single(reading &r, const top_table &which, const toml::node &node) {
    const toml::table *table = node.as_table();
    if (table != nullptr) return which.read(r, *table);
    const std::string name(which.name);
    const std::string got = node.is_array_of_tables() ? "[[" + name + "]]" : type_name(node);
    note(r, node.source().begin, "expected [" + name + "], not " + got + "; there is one such table");
}

void read_list(reading &r, const top_table &which, const toml::node &node) {
    const std::string wanted = "[[" + std::string(which.name) + "]]";
    const toml::array *list = node.as_array();
    if (list == nullptr) {
        const std::string got = node.is_table() ? "[" + std::string(which.name) + "]" : type_name(node);
        note(r, node.source().begin, "expected " + wanted + ", not " + got + "; each one is a table of a list");
        return;
    }
    for (const toml::node &item : *list) {
        if (const toml::table *table = item.as_table())
            which.read(r, *table);
        else
            note(r, item.source().begin, "expected " + wanted + ", not " + type_name(item));
    }
}

std::string tables_text() {
    std::vector<std::string> names;
    for (const top_table &row : top_tables) {
        const std::string name(row.name);
        names.push_back(row.list ? "[[" + name + "]]" : "[" + name + "]");
    }
    return listed(names);
}

const top_table *find_top_table(std::string_view name) {
    for (const top_table &row : top_tables)
        if (row.name == name) return &row;
    return nullptr;
}

void read_tables(reading &r, const toml::table &root) {
    for (const auto &[key, value] : root) {
        if (const top_table *known = find_top_table(key.str()))
            known->list ? read_list(r, *known, value) : read_single(r, *known, value);
        else
            note(r, key.source().begin,
                 "unknown " + std::string(value.is_table() || value.is_array_of_tables() ? "table " : "key ") +
                     quoted(key.str()) + "; there are " + tables_text());
    }
}

// A text in quotes, as TOML has it.
std::string toml_text(std::string_view text) {
    std::string out = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\') out += '\\';
        out += c;
    }
    return out + "\"";
}

toml::source_position position_behind(std::string_view text) {
    const std::size_t line_begin = text.rfind('\n') + 1;  // npos + 1 is 0
    return {.line = static_cast<toml::source_index>(std::count(text.begin(), text.end(), '\n') + 1),
            .column = static_cast<toml::source_index>(text.size() - line_begin + 1)};
}

}  // namespace

bool describes_trap(const switch_description &description) {
    return description.channel.trap ||
           std::any_of(description.ports.begin(), description.ports.end(),
                       [](const described_port &port) { return port.trap.value_or(false); });
}

bool describes_limits(const switch_description &description) {
    return description.limit.port != 0 || description.limit.uplink != 0 ||
           std::any_of(description.ports.begin(), description.ports.end(),
                       [](const described_port &port) { return port.limit.value_or(0) != 0; });
}

std::string switch_description_ports(const std::vector<described_port> &ports) {
    std::string out;
    for (const described_port &port : ports)
        out += "\n[[port]]\ndevice = " + toml_text(port.device) + "\nmodule = " + std::to_string(port.module) +
               "\nport   = " + std::to_string(port.port) + "\n";
    return out;
}

std::vector<std::string> switch_description_parse(std::string_view text, const std::string &path,
                                                  switch_description *out) {
    std::string ascii;
    if (const std::optional<text_fault> bad = ascii_of_description(text, &ascii))
        return fault_lines(path, {{position_behind(text.substr(0, bad->at)), bad->what}});
    toml::parse_result parsed = toml::parse(ascii, std::string_view(path));
    if (!parsed) return fault_lines(path, {{parsed.error().source().begin, std::string(parsed.error().description())}});
    reading r;
    read_tables(r, parsed.table());
    if (!r.faults.empty()) return fault_lines(path, std::move(r.faults));
    *out = std::move(r.found);
    return {};
}

std::vector<std::string> switch_description_check(const std::string &path, bool optional, switch_description *out) {
    std::string text;
    const int error = read_file(path, max_file_size, &text);
    if (error == ENOENT && optional) {
        *out = {};
        return {};
    }
    if (error != 0)
        return {path + ": cannot read the switch description: " + strerrordesc_np(error) +
                "; name a readable file with --switch"};
    return switch_description_parse(text, path, out);
}

fault switch_description_read(const std::string &path, bool optional, switch_description *out) {
    std::vector<std::string> faults = switch_description_check(path, optional, out);
    if (faults.empty()) return {};
    return {std::move(faults.front())};
}

}  // namespace ravo::platform

// SPDX-License-Identifier: Apache-2.0
// The daemon frame's state: the options of the process, what the process may do, how long it has run, and the run of
// the event loop itself. vex_init.cpp puts these together into the daemon's life.
#include "process/frame.h"

#include <event2/event.h>
#include <linux/capability.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <iterator>
#include <optional>
#include <string_view>

#include "base/loop.h"
#include "log/log.h"

namespace ravo::platform {

namespace {

frame_options options_in_force;
std::optional<int> stop_status;
std::function<void()> reload_description;
const auto started = std::chrono::steady_clock::now();

constexpr std::string_view see_help = "; see ravod --help";

std::string quoted(std::string_view text) {
    return "\"" + std::string(text) + "\"";
}

// ---- Options: one row each; the setters return what is wrong with the value ----

using option_setter = fault (*)(frame_options &out, std::string_view value);

fault set_file(std::string_view value, std::string &where) {
    if (value.empty()) return {"must not be empty"};
    where = value;
    return {};
}

fault set_switch(frame_options &out, std::string_view value) {
    out.switch_file_given = true;
    return set_file(value, out.switch_file);
}

fault set_startup_config(frame_options &out, std::string_view value) {
    out.startup_config_given = true;
    return set_file(value, out.startup_config);
}

fault set_management(frame_options &out, std::string_view value) {
    return set_file(value, out.management_socket);
}

fault set_gate(frame_options &out, std::string_view value) {
    return set_file(value, out.gate_socket);
}

fault set_state(frame_options &out, std::string_view value) {
    return set_file(value, out.state_folder);
}

fault set_user(frame_options &out, std::string_view value) {
    if (value.empty()) return {"must not be empty"};
    out.user = value;
    out.user_given = true;
    return {};
}

fault set_log_level(frame_options &out, std::string_view value) {
    const int threshold = log_level_of(value);
    if (threshold == 0) return {quoted(value) + " is none of error, warning, trace"};
    out.log_threshold = threshold;
    return {};
}

fault set_log_to(frame_options &out, std::string_view value) {
    return set_file(value, out.log_target);
}

fault set_memory_budget(frame_options &out, std::string_view value) {
    const char *end = value.data() + value.size();
    const auto [stop, error] = std::from_chars(value.data(), end, out.memory_budget);
    if (error != std::errc() || stop != end || value.empty()) return {quoted(value) + " is no number of bytes"};
    return {};
}

fault set_supervise(frame_options &out, std::string_view /*value*/) {
    out.supervise = true;
    return {};
}

fault set_check(frame_options &out, std::string_view /*value*/) {
    out.check = true;
    return {};
}

fault set_lend_gate(frame_options &out, std::string_view /*value*/) {
    out.lend_gate = true;
    return {};
}

fault set_version(frame_options &out, std::string_view /*value*/) {
    out.version = true;
    return {};
}

fault set_help(frame_options &out, std::string_view /*value*/) {
    out.help = true;
    return {};
}

struct option_row {
    std::string_view name;
    std::string_view value;  // what its value is called in the help, empty: it takes none
    option_setter set;
    std::string_view help;
};

constexpr option_row option_rows[] = {
    {"--switch", "FILE", set_switch, "switch description (/etc/ravo/switch.toml, which may be missing)"},
    {"--startup-config", "FILE", set_startup_config, "commands to start with (/etc/ravo/startup-config)"},
    {"--management", "SOCKET", set_management, "where ravosh finds the daemon (/run/ravo/ravod.sock)"},
    {"--gate", "SOCKET", set_gate, "who lends the kernel's part of the limits to it (/run/ravo-gate.sock)"},
    {"--state", "DIR", set_state, "where ports' numbers and saved versions are remembered ($STATE_DIRECTORY)"},
    {"--user", "USER", set_user, "user to run as when root starts it (ravo; root: stay root)"},
    {"--log-level", "LEVEL", set_log_level, "error, warning (the default) or trace"},
    {"--log-to", "TARGET", set_log_to, "stderr (the default), syslog or a file"},
    {"--memory-budget", "BYTES", set_memory_budget, "most memory for the relay's records (134217728; 0: no limit)"},
    {"--supervise", "", set_supervise, "start the relay again when it crashes, where no init system does"},
    {"--check", "", set_check, "check switch description and startup configuration, then exit 0 or 1"},
    {"--lend-gate", "", set_lend_gate, "lend that part to who is at the socket of standard input, and exit"},
    {"--version", "", set_version, "print the version and exit"},
    {"--help", "", set_help, "print this help and exit; -h too"},
};

const option_row *find_option(std::string_view name) {
    const auto found =
        std::find_if(std::begin(option_rows), std::end(option_rows), [&](const auto &row) { return row.name == name; });
    return found == std::end(option_rows) ? nullptr : found;
}

// ---- Capabilities ----

struct capability_row {
    unsigned number;
    std::string_view name;
    std::string_view purpose;
};

constexpr capability_row capability_rows[] = {
    {CAP_NET_RAW, "CAP_NET_RAW", "to open packet sockets"},
    {CAP_NET_BIND_SERVICE, "CAP_NET_BIND_SERVICE", "to use the DHCP ports 67 and 68"},
};

constexpr unsigned lowest_dhcp_port = 67;

}  // namespace

const frame_options &frame_get_options() {
    return options_in_force;
}

void frame_set_options(const frame_options &options) {
    options_in_force = options;
}

fault frame_parse_options(const std::vector<std::string> &words, frame_options *out) {
    frame_options read;
    for (std::size_t i = 0; i < words.size(); ++i) {
        const std::string_view word = words[i];
        const std::size_t equals = word.find('=');
        const std::string_view name = word == "-h" ? "--help" : word.substr(0, equals);
        const option_row *row = find_option(name);
        if (row == nullptr)
            return {(word.starts_with("-") ? "unknown option " : "unexpected argument ") + quoted(word) +
                    std::string(see_help)};
        const bool inline_value = equals != std::string_view::npos;
        if (row->value.empty() && inline_value)
            return {"option " + std::string(name) + " takes no value" + std::string(see_help)};
        std::string_view value = inline_value ? word.substr(equals + 1) : std::string_view();
        if (!row->value.empty() && !inline_value) {
            if (i + 1 == words.size())
                return {"option " + std::string(name) + " needs a value: " + std::string(row->value) +
                        std::string(see_help)};
            value = words[++i];
        }
        if (const fault wrong = row->set(read, value))
            return {"option " + std::string(name) + ": " + wrong.text + std::string(see_help)};
    }
    *out = std::move(read);
    return {};
}

std::string frame_help() {
    std::string text = "Usage: ravod [OPTION]...\nThe DHCPv4 relay agent. It runs in the foreground.\n\n";
    constexpr std::size_t help_column = 26;
    for (const option_row &row : option_rows) {
        std::string line = "  " + std::string(row.name);
        if (!row.value.empty()) line += " " + std::string(row.value);
        line.resize(std::max(help_column, line.size() + 1), ' ');
        text += line + std::string(row.help) + "\n";
    }
    return text;
}

fault frame_missing_capability(std::uint64_t effective, unsigned first_free_port) {
    for (const capability_row &row : capability_rows) {
        if ((effective >> row.number & 1U) != 0) continue;
        if (row.number == CAP_NET_BIND_SERVICE && first_free_port <= lowest_dhcp_port) continue;
        return {std::string(row.name) + " is missing, needed " + std::string(row.purpose) +
                "; start ravod as root, or with AmbientCapabilities=" + std::string(row.name) + " in its systemd unit"};
    }
    return {};
}

void frame_set_reload(std::function<void()> reload) {
    reload_description = std::move(reload);
}

void frame_reload() {
    if (reload_description) reload_description();
}

unsigned long frame_uptime() {
    const auto run = std::chrono::steady_clock::now() - started;
    return static_cast<unsigned long>(std::chrono::duration_cast<std::chrono::seconds>(run).count());
}

int frame_run() {
    if (!stop_status) (void)event_base_dispatch(loop_base());
    // The loop also ends when no event is left to wait for, which is no fault.
    const int status = stop_status.value_or(0);
    stop_status.reset();
    return status;
}

void frame_stop(int status) {
    stop_status = status;
    event_base_loopbreak(loop_base());
}

}  // namespace ravo::platform

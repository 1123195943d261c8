// SPDX-License-Identifier: Apache-2.0
// The running configuration, and the commands that show, save, erase and replay it.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <string_view>

#include "base/files.h"
#include "cli/command_row.h"
#include "cli/help_texts.h"
#include "cli/session.h"
#include "cli/tree.h"
#include "configuration/configuration.h"
#include "configuration/configuration_model.h"
#include "configuration/replace.h"
#include "inventory/inventory.h"
#include "log/log.h"
#include "process/frame.h"

namespace ravo::cli {

namespace {

const std::string &startup_path() {
    return platform::frame_get_options().startup_config;
}

int fail(struct cli *cli, const std::string &reason) {
    cli->print(cli->print_handle, "%% %s\n", reason.c_str());
    return 1;
}

// Writes the running configuration. Returns false when a section could not be written whole for want of memory.
bool write_configuration(std::string *text) {
    bool whole = true;
    const session_ptr s = session_capture(text, program_privilege, "running configuration");
    for (const config_section &section : library_tree().sections) {
        struct cli context = context_of(*s);
        // A writer counts its sections and one more; none at all means that it gave up.
        if (section.writer(&context) == 0) whole = false;
    }
    *text += extra_section(*text);
    return whole;
}

int show_running(struct cli *cli, int /*argc*/, char ** /*argv*/) {
    std::string text;
    const bool whole = write_configuration(&text);
    (void)emit(session_of(cli), text);
    return whole ? 0 : fail(cli, "memory is short: the configuration above is not whole");
}

int running_json(struct cli *cli, int /*argc*/, char ** /*argv*/, json_writer &out) {
    std::string text;
    if (!write_configuration(&text)) return fail(cli, "memory is short, the configuration cannot be written whole");
    json_open(out, "", '{');
    json_open(out, "lines", '[');
    for (std::string_view left = text; !left.empty();) {
        const std::string_view line = left.substr(0, left.find('\n'));
        left.remove_prefix(std::min(left.size(), line.size() + 1));
        if (!line.starts_with('!')) json_string(out, "", line);
    }
    json_close(out, ']');
    json_close(out, '}');
    return 0;
}

// The section of one interface, with the remark over it; empty when there is none.
std::string section_of(std::string_view text, std::string_view name) {
    const std::string head = "interface " + std::string(name);
    std::string remark, out;
    while (!text.empty()) {
        const std::string_view line = text.substr(0, text.find('\n'));
        text.remove_prefix(std::min(text.size(), line.size() + 1));
        if (!out.empty() && !line.starts_with(' ')) return out;
        if (line == head)
            out = remark + head + "\n";
        else if (!out.empty())
            out.append(line).append("\n");
        remark = line.starts_with("! ") ? std::string(line) + "\n" : std::string();
    }
    return out;
}

int show_section(struct cli *cli, const std::string &name) {
    std::string text;
    const bool whole = write_configuration(&text);
    const std::string section = section_of(text, name);
    if (section.empty() && whole) return fail(cli, "nothing is configured for " + name);
    (void)emit(session_of(cli), section);
    return whole ? 0 : fail(cli, "memory is short: the configuration is not whole");
}

int show_interface(struct cli *cli, int /*argc*/, char **argv) {
    return show_section(cli, argv[0]);
}

int show_vlan(struct cli *cli, int /*argc*/, char **argv) {
    return show_section(cli, std::string("vlan") + argv[0]);
}

// A port has no settings of its own: what counts for its messages is shown, which is that of its VLANs.
int show_port(struct cli *cli, int /*argc*/, char **argv) {
    const std::string_view typed = argv[0];
    const std::string number = "port " + std::string(typed);
    for (const platform::inventory_row &row : platform::inventory_rows()) {
        if (row.device != typed && row.name != number) continue;
        if (row.kind != platform::inventory_row::what::port)
            return fail(cli, "nothing is configured for " + row.device + ", which is no VLAN interface");
        std::string text;
        const bool whole = write_configuration(&text);
        cli->print(cli->print_handle, "! %s, device %s: the settings of its VLANs\n", row.name.c_str(),
                   row.device.c_str());
        for (const std::uint16_t vlan : row.vlans)
            (void)emit(session_of(cli), section_of(text, "vlan" + std::to_string(vlan)));
        return whole ? 0 : fail(cli, "memory is short: the configuration is not whole");
    }
    return fail(cli, "\"" + std::string(typed) + "\" is no interface and no port");
}

int show_startup(struct cli *cli, int /*argc*/, char ** /*argv*/) {
    std::string text;
    const int failed = platform::read_file(startup_path(), configuration_limit, &text);
    if (failed == ENOENT) return fail(cli, startup_path() + " does not exist; \"write memory\" creates it");
    if (failed != 0) return fail(cli, startup_path() + " cannot be read: " + std::strerror(failed));
    (void)emit(session_of(cli), text);
    return 0;
}

// As write_configuration; when something is set meanwhile, it is written once more, in one piece: never half of the one
// and half of the other.
bool write_unchanged(std::string *text) {
    const std::uint64_t settings = count_settings_made();
    const bool whole = write_configuration(text);
    if (count_settings_made() == settings) return whole;
    const turns_undivided one_piece;
    text->clear();
    return write_configuration(text);
}

// Writes the text to the disk while others have their turns. One such file at a time. Returns as save_file.
fault save_aside(std::string text) {
    struct saving {
        std::string path, text;
        fault wrong;
    };
    const auto one = std::make_shared<saving>(saving{startup_path(), std::move(text), {}});
    turns_aside([one] {
        static std::mutex one_at_a_time;
        const std::lock_guard hold(one_at_a_time);
        one->wrong = save_file(one->path, one->text, 0600, saved_versions);
    });
    return one->wrong;
}

int save(struct cli *cli, int /*argc*/, char ** /*argv*/) {
    std::string text;
    const bool whole = write_unchanged(&text);
    const fault wrong =
        whole
            ? save_aside(std::move(text))
            : fault{"memory is short, the configuration cannot be written whole; " + startup_path() + " is as it was"};
    if (wrong) {
        platform::log_line(platform::log_level_error, "configuration not saved: %s", wrong.text.c_str());
        return fail(cli, wrong.text);
    }
    cli->print(cli->print_handle, "Saved as %s\n", startup_path().c_str());
    return 0;
}

int erase(struct cli *cli, int /*argc*/, char ** /*argv*/) {
    if (const fault no_file = not_a_file(startup_path()))
        return fail(cli, startup_path() + " cannot be erased: " + no_file.text);
    const session &s = session_of(cli);
    if (s.output.confirm && !s.output.confirm("Erase the startup configuration?")) return 1;
    const fault wrong = erase_file(startup_path());
    return wrong ? fail(cli, wrong.text) : 0;
}

int load(struct cli *cli, int /*argc*/, char ** /*argv*/) {
    const auto report = [&](const std::string &line) { cli->print(cli->print_handle, "%% %s\n", line.c_str()); };
    return replay_file(startup_path(), /*optional=*/false, /*check_only=*/false, report) == 0 ? 0 : 1;
}

constexpr char copy_word[] = "Copy one configuration to another";
constexpr char interface_word[] = "Those of one interface";
constexpr char startup_word[] = "The settings the daemon starts with";
constexpr char write_word[] = "Save the running configuration";
constexpr command_traits shows = {.effect = command_effect::looks};
constexpr command_traits of_files = {.effect = command_effect::files};
constexpr command_traits saves = {.effect = command_effect::files, .in_turns = true};

constexpr command_row rows[] = {
    {.text = "show running-config",
     .help = {help::show, help::running},
     .handler = show_running,
     .traits = {.effect = command_effect::looks, .json = running_json, .schema = "running-config"}},
    {.text = "show running-config interface IFNAME",
     .help = {help::show, help::running, interface_word, "Its name"},
     .handler = show_interface,
     .traits = shows},
    {.text = "show running-config interface vlan <1-4094>",
     .help = {help::show, help::running, interface_word, "A VLAN interface", "Its VLAN id"},
     .handler = show_vlan,
     .traits = shows},
    {.text = "show running-config interface PORT",
     .help = {help::show, help::running, interface_word, help::port},
     .handler = show_port,
     .traits = shows},
    {.text = "show startup-config", .help = {help::show, startup_word}, .handler = show_startup, .traits = shows},
    {.text = "copy running-config startup-config",
     .help = {copy_word, help::running, startup_word},
     .handler = save,
     .traits = saves},
    {.text = "copy startup-config running-config",
     .help = {copy_word, startup_word, help::running},
     .handler = load,
     .traits = of_files},
    {.text = "write", .help = {write_word}, .handler = save, .traits = saves},
    {.text = "write memory", .help = {write_word, "As the startup configuration"}, .handler = save, .traits = saves},
    {.text = "write terminal",
     .help = {write_word, "To this terminal: show it"},
     .handler = show_running,
     .traits = shows},
    {.text = "write erase",
     .help = {write_word, "Erase the startup configuration"},
     .handler = erase,
     .traits = of_files},
};

}  // namespace

void install_configuration_commands(cli_tree *tree) {
    install_rows(tree, rows);
    install_replace_commands(tree);
}

bool configuration_is_saved() {
    std::string saved;
    if (platform::read_file(startup_path(), configuration_limit, &saved) == 0 && saved == running_configuration())
        return true;
    configuration wanted;
    (void)read_model(saved, &wanted, [](std::size_t, const std::string &) {});
    return difference(wanted, running_model()).empty();
}

std::string running_configuration() {
    std::string text;
    (void)write_configuration(&text);  // who wants it whole asks for it in a command
    return text;
}

}  // namespace ravo::cli

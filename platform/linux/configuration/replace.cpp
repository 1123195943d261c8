// SPDX-License-Identifier: Apache-2.0
// The way from the running configuration to another one is a row of ordinary commands. Their results do not show
// whether that worked, as some refuse what is so already and some return how many servers are left. So the running
// configuration is compared with the wanted one at the end, and where they differ the one before is put back in the
// same way.
#include "configuration/replace.h"

#include "cli/session.h"
#include "log/log.h"
#include "settings/kept_settings.h"

namespace ravo::cli {

namespace {

// Runs the commands. Returns the first line that one of them printed as a refusal.
std::string run_all(const std::vector<std::string> &commands) {
    std::string printed;
    std::string refusal;
    const session_ptr s = session_capture(&printed, program_privilege, "configuration");
    s->mode = CLI_MODE_CONFIGURATION;
    s->replayed = true;
    for (const std::string &command : commands) {
        printed.clear();
        line_fault fault;
        if (run_line(*s, command, file_line_limit, &fault) != 0 && refusal.empty())
            refusal = command + ": " + std::string(trim(printed.substr(0, printed.find('\n'))));
    }
    return refusal;
}

// Goes from the running configuration to another one. Returns the first refusal of the last round. A second round puts
// right what "trust-all" did to interfaces besides.
std::string go_to(const configuration &wanted) {
    constexpr int rounds = 2;
    std::string refusal;
    for (int round = 0; round < rounds; ++round) {
        const std::vector<std::string> commands = commands_between(running_model(), wanted);
        if (commands.empty()) break;
        refusal = run_all(commands);
    }
    return refusal;
}

}  // namespace

fault make_running(const configuration &wanted) {
    const turns_undivided whole;
    const kept_opening opening;
    const configuration before = running_model();
    const std::string refusal = go_to(wanted);
    const std::vector<difference_line> left = difference(running_model(), wanted);
    if (left.empty()) return {};
    (void)go_to(before);
    if (!difference(running_model(), before).empty())
        platform::log_line(platform::log_level_error,
                           "configuration: what could not be replaced could not be put back whole either");
    std::string text = "The configuration could not be made the running one, the one before is in force again;";
    for (const difference_line &line : left) text += std::string(" ") + line.sign + line.text;
    return {text + (refusal.empty() ? "" : "; " + refusal)};
}

std::string text_of(const configuration &of) {
    std::string out;
    for (const std::string &line : global_commands(of)) out += line + "\n";
    for (const auto &[vlan, iface] : of.interfaces) {
        out += "interface vlan" + std::to_string(vlan) + "\n";
        for (const std::string &line : interface_commands(of, vlan)) out += " " + line + "\n";
        out += "exit\n";
    }
    return out;
}

}  // namespace ravo::cli

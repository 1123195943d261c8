// The command tree and what may be installed in it. Definitions are taken apart once, when they are installed; their
// records stay the daemon's.
#include <algorithm>
#include <climits>
#include <span>
#include <string_view>
#include <utility>

#include "cli/command_line.h"
#include "cli/tree.h"
#include "interfaces/nsm_feed.h"
#include "inventory/inventory.h"
#include "log/log.h"

namespace ravo::cli {

namespace {

int install(cli_tree *tree, int mode, int privilege, command_role role, const cli_element *element) {
    command made{mode, privilege, role, element, {}};
    const std::string fault = compile(element->text, element->help, &made.form);
    if (!fault.empty() || element->handler == nullptr) {
        platform::log_line(platform::log_level_error, "commands: \"%s\" cannot be installed: %s",
                           element->text == nullptr ? "" : element->text,
                           fault.empty() ? "it has no handler" : fault.c_str());
        return -1;
    }
    tree->commands.push_back(std::move(made));
    return 0;
}

cli_tree make_tree() {
    cli_tree tree;
    install_exec_commands(&tree);
    install_show_commands(&tree);
    install_file_commands(&tree);
    install_movement(&tree, CLI_MODE_CONFIGURATION);
    install_local_relay_commands(&tree);
    install_books_commands(&tree);
    return tree;
}

// "interface NAME" is the daemon's command, but what it does besides is to move the session.
command_role role_of(const cli_element &element) {
    const std::string_view text = element.text == nullptr ? "" : element.text;
    return text.starts_with("interface ") ? command_role::movement : command_role::relay;
}

}  // namespace

cli_tree &library_tree() {
    static cli_tree tree = make_tree();
    return tree;
}

cli_globals *library_globals() {
    static cli_globals globals{&library_tree()};
    return &globals;
}

void install_builtins(cli_tree *tree, std::span<const builtin> rows, int mode) {
    // Not judged: a row that cannot be installed is logged, and a test walks them all.
    for (const builtin &row : rows)
        (void)install(tree, mode == 0 ? row.mode : mode, row.privilege, row.role, &row.element);
}

std::vector<installed_command> installed_commands() {
    std::vector<installed_command> out;
    for (const command &each : library_tree().commands) {
        std::vector<std::string> help;
        for (const char *const *text = each.element->help; text != nullptr && *text != nullptr; ++text)
            help.emplace_back(*text);
        out.push_back({each.mode, each.privilege, each.element->text, std::move(help)});
    }
    return out;
}

int run_reset() {
    const cli_reset reset = library_tree().reset;
    if (reset == nullptr) return 1;
    const int result = reset();
    platform::nsm_deliver_existing();  // the daemon forgot them, and the system will not tell of them again
    return result;
}

}  // namespace ravo::cli

extern "C" {

int cli_install_gen(struct cli_tree *tree, int mode, int privilege, uint32_t /*flags*/, struct cli_element *element) {
    return ravo::cli::install(tree, mode, privilege, ravo::cli::role_of(*element), element);
}

int cli_install_config(struct cli_tree *tree, int mode, cli_config_writer writer) {
    tree->sections.push_back({mode, writer});
    std::stable_sort(tree->sections.begin(), tree->sections.end(),
                     [](const auto &a, const auto &b) { return a.mode < b.mode; });
    return 0;
}

int cli_install_default(struct cli_tree *tree, int mode) {
    ravo::cli::install_movement(tree, mode);
    return 0;
}

int cli_install_reset(struct cli_tree *tree, cli_reset reset) {
    tree->reset = reset;
    return 0;
}

int if_range_cli_init(struct cli_tree *tree) {
    ravo::cli::install_range_commands(tree);
    return 0;
}

int cli_get_ifmode(const char * /*name*/) {
    return CLI_MODE_INTERFACE;
}

int cmd_str2int(const char *text, int *ok) {
    *ok = 0;
    if (text == nullptr) return 0;
    const bool negative = *text == '-';
    const char *digit = *text == '-' || *text == '+' ? text + 1 : text;
    if (*digit == '\0') return 0;
    const long long limit = negative ? -static_cast<long long>(INT_MIN) : INT_MAX;
    long long value = 0;
    for (; *digit != '\0'; ++digit) {
        if (*digit < '0' || *digit > '9') return 0;
        value = value * 10 + (*digit - '0');
        if (value > limit) return 0;
    }
    *ok = 1;
    return static_cast<int>(negative ? -value : value);
}

}  // extern "C"

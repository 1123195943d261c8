// SPDX-License-Identifier: Apache-2.0
// The command tree and what may be installed in it. Definitions are taken apart and judged once, when they are
// installed. Those of the daemon come as they are at the boundary; what else the platform knows of them was handed over
// before, and finds them here by mode and text.
#include <algorithm>
#include <climits>
#include <functional>
#include <span>
#include <string_view>
#include <utility>

#include "cli/command_line.h"
#include "cli/tree.h"
#include "cli/words.h"
#include "interfaces/nsm_feed.h"
#include "inventory/inventory.h"
#include "log/log.h"

namespace ravo::cli {

namespace {

bool is_known_mode(int mode) {
    return mode == CLI_MODE_EXEC || mode == CLI_MODE_CONFIGURATION || mode == CLI_MODE_INTERFACE;
}

std::size_t words_of(const grammar &form) {
    std::size_t count = 0;
    for (const item &part : form.items) count += part.tokens.size();
    return count;
}

std::size_t explained_words_of(const grammar &form) {
    std::size_t count = 0;
    for (const item &part : form.items)
        count += static_cast<std::size_t>(std::count_if(part.tokens.begin(), part.tokens.end(),
                                                        [](const token &each) { return !each.help.empty(); }));
    return count;
}

// What is wrong with what a command says of itself beside its text.
fault fault_of_traits(const command &made) {
    const command_traits &traits = made.traits;
    const bool changes = traits.effect != command_effect::looks && traits.effect != command_effect::session;
    if (traits.who == audience::viewers && (changes || made.privilege > viewer_privilege))
        return {"it is for viewers, but changes something or asks for more privilege than they have"};
    if (traits.json != nullptr && traits.effect != command_effect::looks) return {"it has JSON, but shows nothing"};
    if ((traits.json == nullptr) != (traits.schema == nullptr)) return {"JSON and its schema come together"};
    if (traits.held != nullptr && traits.effect != command_effect::setting)
        return {"it is compared with the settings in force, but makes none"};
    return {};
}

fault fault_of(const cli_tree &tree, const command &made) {
    if (made.handler == nullptr) return {"it has no handler"};
    if (!is_known_mode(made.mode)) return {"there is no mode " + std::to_string(made.mode)};
    if (made.privilege < lowest_privilege || made.privilege > program_privilege)
        return {"there is no privilege " + std::to_string(made.privilege)};
    const auto is_same = [&](const command &each) {
        return each.mode == made.mode && trim(each.text) == trim(made.text);
    };
    if (std::any_of(tree.commands.begin(), tree.commands.end(), is_same)) return {"it is there already"};
    return fault_of_traits(made);
}

// Puts a command into the tree. help: one text a word, NULL at the end; NULL for none at all. The fault, if
// any: what is wrong with it.
fault add(cli_tree *tree, command made, const char *const *help) {
    fault wrong = compile(made.text.c_str(), help, &made.form);
    if (!wrong) wrong = fault_of(*tree, made);
    std::size_t texts = 0;
    while (help != nullptr && help[texts] != nullptr) ++texts;
    const bool explained = texts == words_of(made.form) && texts == explained_words_of(made.form);
    // A daemon may leave its commands without help; a list that does not fit the words is a fault.
    if (!wrong && !explained && (help != nullptr || !made.of_daemon))
        wrong.text = "it has " + std::to_string(words_of(made.form)) + " words and help for " + std::to_string(texts);
    if (!wrong) tree->commands.push_back(std::move(made));
    return wrong;
}

int report(const char *text, const fault &wrong) {
    if (!wrong) return 0;
    platform::log_line(platform::log_level_error, "commands: \"%s\" cannot be installed: %s",
                       text == nullptr ? "" : text, wrong.text.c_str());
    return -1;
}

bool is_known_as(const known_command &known, int mode, std::string_view text) {
    return known.mode == mode && known.text == trim(text);
}

command_traits traits_of(const cli_tree &tree, int mode, std::string_view text) {
    for (const std::span<const known_command> rows : tree.known)
        for (const known_command &row : rows)
            if (is_known_as(row, mode, text)) return row.traits;
    return {};
}

cli_tree make_tree() {
    cli_tree tree;
    install_movement(&tree, CLI_MODE_EXEC);
    install_movement(&tree, CLI_MODE_CONFIGURATION);
    return tree;
}

std::vector<std::function<void()>> &reset_listeners() {
    static std::vector<std::function<void()>> listeners;
    return listeners;
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

void install_rows(cli_tree *tree, std::span<const command_row> rows) {
    for (const command_row &row : rows) {
        command made{row.mode, row.privilege, false, row.text == nullptr ? "" : row.text, row.handler, row.traits, {}};
        (void)report(row.text, add(tree, std::move(made), row.help.data()));  // the others are installed all the same
    }
}

void expect_commands(cli_tree *tree, std::span<const known_command> rows) {
    tree->known.push_back(rows);
}

std::vector<std::string> missing_commands() {
    const cli_tree &tree = library_tree();
    std::vector<std::string> out;
    for (const std::span<const known_command> rows : tree.known)
        for (const known_command &row : rows)
            if (std::none_of(tree.commands.begin(), tree.commands.end(), [&](const command &each) {
                    return each.of_daemon && is_known_as(row, each.mode, each.text);
                }))
                out.emplace_back(row.text);
    return out;
}

std::vector<installed_command> installed_commands() {
    std::vector<installed_command> out;
    for (const command &each : library_tree().commands) {
        std::vector<std::string> help;
        for (const item &part : each.form.items)
            for (const token &one : part.tokens) help.push_back(one.help);
        out.push_back({each.mode, each.privilege, each.text, std::move(help), each.traits});
    }
    return out;
}

void on_reset(std::function<void()> listener) {
    reset_listeners().push_back(std::move(listener));
}

int run_reset() {
    const cli_reset reset = library_tree().reset;
    if (reset == nullptr) return 1;
    const int result = reset();
    for (const std::function<void()> &listener : reset_listeners()) listener();
    platform::nsm_deliver_existing();  // the daemon forgot them, and the kernel does not report them again
    return result;
}

}  // namespace ravo::cli

extern "C" {

int cli_install_gen(struct cli_tree *tree, int mode, int privilege, uint32_t /*flags*/, struct cli_element *element) {
    const char *text = element->text == nullptr ? "" : element->text;
    ravo::cli::command made{mode, privilege, true, text, element->handler, {}, {}};
    made.traits = ravo::cli::traits_of(*tree, mode, text);
    return ravo::cli::report(element->text, ravo::cli::add(tree, std::move(made), element->help));
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

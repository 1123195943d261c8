// SPDX-License-Identifier: Apache-2.0
// One row a command: everything that the command line has to know about it. A new command is a row and its handler.
//
//     constexpr command_row rows[] = {
//         {.mode = CLI_MODE_EXEC,
//          .privilege = viewer_privilege,
//          .text = "show version",
//          .help = {"Show running system information", "Version and time since start"},
//          .handler = show_version,
//          .traits = {.effect = command_effect::looks,
//                     .who = audience::viewers,
//                     .json = version_json,
//                     .schema = "version"}},
//     };
//     install_rows(tree, rows);
#ifndef PLATFORM_LINUX_CLI_COMMAND_ROW_H
#define PLATFORM_LINUX_CLI_COMMAND_ROW_H

#include <array>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "cli.h"
#include "cli/json.h"
#include "relay_access.h"

namespace ravo::cli {

// Least privilege that a command asks for: of everyone with a session, of those who may look, of those who may change
// something, and of programs, whose commands help and completion pass over.
inline constexpr int lowest_privilege = 1;
inline constexpr int viewer_privilege = 2;
inline constexpr int operator_privilege = 15;
inline constexpr int program_privilege = 31;

// What a command changes.
enum class command_effect {
    looks,    // nothing: it shows something; others have their turns between its lines, so it holds copies only
    session,  // what is the session's own: its place, its privilege, its terminal
    setting,  // a setting of the relay: applied to each interface of a range, judged when a file is only checked
    daemon,   // what the running daemon does, has counted or writes elsewhere
    files,    // the startup configuration, or all settings by it: is refused in a file that is replayed
};

// Who may give a command, beside the privilege it asks for.
enum class audience {
    viewers,    // also who may only look
    operators,  // who may change something
};

// Writes the document of "| json". out: the document, which is sent on as it grows. argc, argv: as the command's
// handler gets them. Returns 0; or 1 after it printed what is wrong with an argument and wrote nothing.
using json_handler = int (*)(struct cli *cli, int argc, char **argv, json_writer &out);

// A line of a configuration that asks for a setting.
struct asked_setting {
    const relay_access &relay;
    const std::vector<std::string> &arguments;  // as the command's handler gets them
    const char *interface;                      // name of the current one, null without one
};

// Tells whether exactly what the line asks for is in force. Many settings are refused when they are made twice; in a
// configuration that is replayed that is no fault.
using held_check = bool (*)(const asked_setting &asked);

struct command_traits {
    command_effect effect = command_effect::setting;
    audience who = audience::operators;
    json_handler json = nullptr;   // null: no document
    const char *schema = nullptr;  // name of the document's schema: docs/schema/NAME.schema.json
    held_check held = nullptr;     // null: when it is refused in a replayed file, that is a fault in any case
    bool judged = true;            // false: a check of a file passes it over, as it cannot be tried without effect
    bool has_line = false;         // its argument is a line of its own, which output filters are for
    bool stands_for = false;       // another word for a command, which it runs: that one is guarded and recorded
    bool in_turns = false;         // it changes things bit by bit: others may have their turn in between
};

// A command of the platform's own.
struct command_row {
    static constexpr std::size_t most_words = 24;

    int mode = CLI_MODE_EXEC;
    int privilege = operator_privilege;
    const char *text = nullptr;                       // as in cli_element
    std::array<const char *, most_words + 1> help{};  // a text for each word, in order
    cli_handler handler = nullptr;
    command_traits traits;
};

// Installs rows in order. Each is checked: what is wrong with one is logged, and it is left out.
void install_rows(struct cli_tree *tree, std::span<const command_row> rows);

// What the platform knows of a command that the daemon will bring: its definition has no room for it.
struct known_command {
    int mode;
    const char *text;  // as the daemon installs it, without trailing blanks
    command_traits traits;
};

// To be called before the daemon installs its commands. rows: static. Commands that are not known are settings of the
// relay for operators.
void expect_commands(struct cli_tree *tree, std::span<const known_command> rows);

// Offers values to completion, for the words of commands that stand for them: "MAC". typed: what there is of the word.
using value_offer = std::function<void(std::string_view typed, std::vector<std::string> *out)>;
void offer_values(const std::string &token, value_offer offer);

// The known commands that the daemon has not installed. A daemon that the rows were not written for leaves some out.
std::vector<std::string> missing_commands();

}  // namespace ravo::cli

#endif

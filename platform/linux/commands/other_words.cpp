// SPDX-License-Identifier: Apache-2.0
// Words that people bring along from other switches: each stands for a command of the relay's and is kept, saved and
// shown as that. And "help".
#include <string>

#include "base/text.h"
#include "cli/command_row.h"
#include "cli/help_texts.h"
#include "cli/session.h"
#include "commands/commands.h"
#include "commands/relay_messages.h"

namespace ravo::cli {

namespace {

// The relay's settings after start-up.
constexpr char usual_hops[] = "ip dhcp relay hops 4";
constexpr char usual_policy[] = "ip dhcp relay information policy replace";

int no_hops(struct cli *cli, int /*argc*/, char ** /*argv*/) {
    return run_instead(cli, usual_hops);
}

int no_policy(struct cli *cli, int /*argc*/, char ** /*argv*/) {
    return run_instead(cli, usual_policy);
}

int helper_address(struct cli *cli, int /*argc*/, char **argv) {
    return run_instead(cli, std::string("ip dhcp relay address ") + argv[0]);
}

int no_helper_address(struct cli *cli, int argc, char **argv) {
    return run_instead(cli, std::string("no ip dhcp relay address") + (argc > 0 ? std::string(" ") + argv[0] : ""));
}

int show_help(struct cli *cli, int /*argc*/, char ** /*argv*/) {
    (void)emit(session_of(cli),
               "?     what can stand here; behind a part of a word: the words that begin so\n"
               "Tab   completes the word\n"
               "Words may be shortened as far as no other word fits: \"sh run\" is\n"
               "\"show running-config\".\n"
               "show ... | include RE   lines that match; also exclude, begin, section, count,\n"
               "                        json\n"
               "Show commands can be given in every mode; \"exit\" or \"quit\" leaves a mode,\n"
               "\"end\" all of them.\n"
               "\"configure terminal\" is where settings are made, \"write\" saves them.\n"
               "\"show ip dhcp relay help\" says what the relay's own messages mean.\n"
               "Ctrl-C ends a command that prints.\n");
    return 0;
}

// What the relay's own messages mean.
int show_messages(struct cli *cli, int /*argc*/, char ** /*argv*/) {
    constexpr std::size_t indent = 4;
    for (const relay_message &each : relay_messages)
        (void)emit(session_of(cli),
                   std::string(each.text) + "\n" + platform::wrapped_text("    ", each.meaning, indent));
    return 0;
}

constexpr char no_word[] = "Take back a setting";
constexpr char relay_word[] = "Relay agent";
constexpr char helper_word[] = "A DHCP server that requests are relayed to, as \"ip dhcp relay address\"";
constexpr char server_word[] = "Its address";
constexpr command_traits stands_for = {.effect = command_effect::setting, .stands_for = true};

constexpr command_row rows[] = {
    {.privilege = lowest_privilege,
     .text = "help",
     .help = {"How the command line is used"},
     .handler = show_help,
     .traits = {.effect = command_effect::looks, .who = audience::viewers}},
    {.privilege = viewer_privilege,
     .text = "show ip dhcp relay help",
     .help = {help::show, help::ip, help::dhcp, help::relay, "What the relay's messages mean"},
     .handler = show_messages,
     .traits = {.effect = command_effect::looks, .who = audience::viewers}},
    {.mode = CLI_MODE_CONFIGURATION,
     .privilege = viewer_privilege,
     .text = "no ip dhcp relay hops",
     .help = {no_word, help::ip, help::dhcp, relay_word, "4 hops, as at the beginning"},
     .handler = no_hops,
     .traits = stands_for},
    {.mode = CLI_MODE_CONFIGURATION,
     .privilege = viewer_privilege,
     .text = "no ip dhcp relay information policy",
     .help = {no_word, help::ip, help::dhcp, relay_word, "Option 82", "Replace, as at the beginning"},
     .handler = no_policy,
     .traits = stands_for},
    {.mode = CLI_MODE_INTERFACE,
     .privilege = viewer_privilege,
     .text = "ip helper-address A.B.C.D",
     .help = {help::ip, helper_word, server_word},
     .handler = helper_address,
     .traits = stands_for},
    {.mode = CLI_MODE_INTERFACE,
     .privilege = viewer_privilege,
     .text = "no ip helper-address [A.B.C.D]",
     .help = {no_word, help::ip, helper_word, server_word},
     .handler = no_helper_address,
     .traits = stands_for},
};

}  // namespace

void install_other_words(cli_tree *tree) {
    install_rows(tree, rows);
}

}  // namespace ravo::cli

// SPDX-License-Identifier: Apache-2.0
// Prints the command reference, docs/commands.md, from the commands that the relay and its platform install, so that
// the reference says what the daemon has and nothing else. tests/lint/commands compares the two.
//
// A mode is a section, a command a heading with its privilege and a table of its words; a command and its "no" are
// together. What is meant for programs is kept apart, at the end.
#include <algorithm>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include "all_commands.h"
#include "cli/command_line.h"
#include "cli/grammar.h"
#include "cli/tree.h"
#include "commands/relay_messages.h"
#include "ravo_main.h"

namespace {

using ravo::cli::installed_command;

constexpr const char *introduction = R"(# Command reference

<!-- Made by `tests/lint/commands --write` from the commands that the daemon installs: change them, not this file. -->

Every command of ravo's command line, by the mode it is given in. `docs/examples.md` shows them at work.

Words in lower case are typed as they are, in letters of either case, or abbreviated as far as no other word fits. The others stand for a value:

| in a command | stands for |
| --- | --- |
| `<a-b>` | a number from a to b |
| `A.B.C.D` | an IPv4 address |
| `IFNAME` | a VLAN interface: `vlan10`, or the device that carries the VLAN |
| `WORD` | any one word; one with blanks is put in double quotes, and the character behind a backslash counts as it is |
| `LINE` | everything up to the end of the line |
| another word in capitals | a value, which its text describes |
| `{a\|b}` | one of these words |
| `[...]` | may be left out |

A line that begins with `!` is a comment. The output of a command can be filtered: `| include RE`, `| exclude RE`,
`| begin RE`, `| section RE`, `| count`, and several of them in a row; show commands that have JSON print their data so with
`| json`. Show commands can be given in every mode.

A command can be used by a session of at least its privilege. Root and members of group `ravo-admin` have every
privilege; members of group `ravo` may use the show commands of privilege 2 and below, `exit`, `quit`, `help` and `terminal length`.
)";

constexpr const char *messages = R"(
## The relay's messages

Their words are kept as they are; `show ip dhcp relay help` says the same.

| message | what it means |
| --- | --- |
)";

constexpr const char *appendix = R"(
## For programs

These commands have privilege 31. Web and SNMP front ends use them over the management socket
(`docs/management-protocol.md`), for which their output is made; help and completion pass over them, and people need
none of them.
)";

struct mode_section {
    int mode;
    const char *title;
    const char *how;
};

constexpr mode_section sections[] = {
    {CLI_MODE_EXEC, "Privileged execution mode", "Where a session begins. The prompt is `HOST#`."},
    {CLI_MODE_CONFIGURATION, "Global configuration mode",
     "`configure terminal` leads here. The prompt is `HOST(config)#`."},
    {CLI_MODE_INTERFACE, "Interface configuration mode",
     "`interface ...` leads here, from global configuration mode or from another interface. The prompt is\n"
     "`HOST(config-if)#`. After `interface range` a command is given to each interface of the range."},
};

const char *mode_title(int mode) {
    for (const mode_section &each : sections)
        if (each.mode == mode) return each.title;
    return "No mode for people";
}

std::string trimmed(std::string text) {
    text.erase(text.find_last_not_of(' ') + 1);
    return text;
}

// Text for the cell of a table.
std::string cell(std::string_view text) {
    std::string out;
    for (const char c : text) {
        if (c == '|') out += '\\';
        out += c;
    }
    return out;
}

void print_command(const installed_command &command, const char *where) {
    std::printf("\n### `%s`\n\n%sPrivilege %d.", trimmed(command.text).c_str(), where, command.privilege);
    if (command.traits.schema != nullptr)
        std::printf(" Has JSON, `docs/schema/%s.schema.json`.", command.traits.schema);
    std::printf("\n\n| word | |\n| --- | --- |\n");
    std::vector<const char *> help;
    for (const std::string &text : command.help) help.push_back(text.c_str());
    help.push_back(nullptr);
    ravo::cli::grammar form;
    // Not judged: what is installed has been through this already.
    (void)ravo::cli::compile(command.text.c_str(), help.data(), &form);
    for (const ravo::cli::item &item : form.items)
        for (const ravo::cli::token &token : item.tokens)
            std::printf("| `%s` | %s |\n", cell(token.text).c_str(), cell(token.help).c_str());
}

bool for_programs(const installed_command &command) {
    return command.privilege == ravo::cli::program_privilege;
}

// The order of the alphabet, but "no" and what it undoes are together, the latter first.
bool comes_before(const installed_command &a, const installed_command &b) {
    const auto key = [](const installed_command &each) {
        const bool undoes = each.text.starts_with("no ");
        std::string words = undoes ? each.text.substr(3) : each.text;
        std::erase_if(words, [](char c) { return std::string_view("[]{}").find(c) != std::string_view::npos; });
        return std::pair(words, undoes);
    };
    return key(a) < key(b);
}

}  // namespace

int main() {
    install_platform();
    (void)ravo_cli_install(ravo::cli::library_globals());
    std::vector<installed_command> commands = ravo::cli::installed_commands();
    std::stable_sort(commands.begin(), commands.end(), comes_before);
    std::fputs(introduction, stdout);
    for (const mode_section &section : sections) {
        std::printf("\n## %s\n\n%s\n", section.title, section.how);
        for (const installed_command &command : commands)
            if (command.mode == section.mode && !for_programs(command)) print_command(command, "");
    }
    std::fputs(messages, stdout);
    for (const ravo::cli::relay_message &each : ravo::cli::relay_messages)
        std::printf("| `%s` | %s |\n", each.text, each.meaning);
    std::fputs(appendix, stdout);
    for (const installed_command &command : commands)
        if (for_programs(command)) print_command(command, (std::string(mode_title(command.mode)) + ". ").c_str());
    return std::fflush(stdout) == 0 && std::ferror(stdout) == 0 ? 0 : 1;
}

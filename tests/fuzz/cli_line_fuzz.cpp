// SPDX-License-Identifier: Apache-2.0
// Surface: lines as a session of the command line gets them: each line of the input is run, then its help and its
// completions are asked for, in one session that starts in privileged execution mode with every privilege.
//
// Contract: whatever the bytes, the session stays in one of its modes; a line that is refused says so; a text that help
// calls complete words begins as the half-typed one does, in letters of either case; and a word that is written into a
// configuration is read back as it was. Nothing that a line does here leaves the session: the handlers note their
// arguments, files are not touched.

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <utility>

#include "all_commands.h"
#include "cli.h"
#include "cli/command_line.h"
#include "cli/session.h"
#include "cli/words.h"
#include "process/frame.h"

namespace {

using ravo::cli::session_ptr;

void require(bool condition) {
    if (!condition) std::abort();
}

int check_arguments(struct cli * /*cli*/, int argc, char **argv) {
    require(argc >= 0 && argc <= 8 && argv[argc] == nullptr);
    for (int i = 0; i < argc; ++i)
        require(argv[i] != nullptr && std::string_view(argv[i]).size() <= ravo::cli::session_line_limit);
    return 0;
}

int enter_interface(struct cli *cli, int argc, char **argv) {
    (void)check_arguments(cli, argc, argv);
    cli->mode = cli_get_ifmode(argv[0]);
    return 0;
}

struct definition {
    int mode;
    cli_element element;
};

definition definitions[] = {
    {5, {"interface IFNAME", enter_interface, nullptr, {}}},
    {5, {"interface vlan <1-4094>", enter_interface, nullptr, {}}},
    {5, {"ip dhcp relay", check_arguments, nullptr, {}}},
    {5, {"ip dhcp relay hops <1-16>", check_arguments, nullptr, {}}},
    {5, {"ip dhcp relay information policy {keep|drop|replace}", check_arguments, nullptr, {}}},
    {34,
     {"ip dhcp relay option60 string WORD {exact-match|partial-match} address A.B.C.D", check_arguments, nullptr, {}}},
    {34,
     {"no ip dhcp relay option60 [string WORD] [exact-match|partial-match] [address A.B.C.D]",
      check_arguments,
      nullptr,
      {}}},
    {4, {"show ip dhcp relay option [60|61]", check_arguments, nullptr, {}}},
    {5, {"web set dhcp relay ifsettings IFNAME A.B.C.D STATE", check_arguments, nullptr, {}}},
    {5, {"web set dhcp relay ifsettings IFNAME STATE", check_arguments, nullptr, {}}},
};

bool install() {
    ravo::platform::frame_options options;
    options.startup_config = "/proc/no-such-folder/startup-config";
    ravo::platform::frame_set_options(options);
    install_platform();
    cli_tree *tree = ravo::cli::library_globals()->tree;
    require(if_range_cli_init(tree) == 0 && cli_install_default(tree, CLI_MODE_INTERFACE) == 0);
    for (definition &each : definitions) require(cli_install_gen(tree, each.mode, 2, 0, &each.element) == 0);
    return true;
}

void check_mode(const session_ptr &s) {
    const int mode = ravo::cli::session_mode(*s);
    require(mode == CLI_MODE_EXEC || mode == CLI_MODE_CONFIGURATION || mode == CLI_MODE_INTERFACE);
}

// What is typed of the last word: nothing behind a blank.
std::string_view last_word(std::string_view line) {
    const std::size_t blank = line.find_last_of(" \t");
    return blank == std::string_view::npos ? line : line.substr(blank + 1);
}

void check_completions(const session_ptr &s, std::string_view line) {
    (void)ravo::cli::session_help(*s, line);
    const bool plain = line.find_first_of("\"\\|") == std::string_view::npos;
    for (const std::string &each : ravo::cli::session_complete(*s, line))
        require(!each.empty() && (!plain || ravo::cli::begins_with(each, last_word(line))));
}

void check_quoting(std::string_view line) {
    for (const ravo::cli::word &each : ravo::cli::split(line).words) {
        if (each.malformed) continue;
        const ravo::cli::split_line again = ravo::cli::split(ravo::cli::quote_word(each.text));
        require(again.words.size() == 1 && again.words[0].text == each.text && !again.words[0].malformed);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    static const bool installed = install();
    require(installed);
    std::string text;
    ravo::cli::session_output output;
    output.text = [&](std::string_view piece) {
        text += piece;
        return 0;
    };
    const session_ptr s = ravo::cli::session_open(std::move(output), 31, "fuzzer");
    std::string_view rest(reinterpret_cast<const char *>(data), size);
    while (!rest.empty()) {
        const std::string_view line = rest.substr(0, rest.find('\n'));
        rest.remove_prefix(std::min(rest.size(), line.size() + 1));
        check_completions(s, line);
        check_quoting(line);
        text.clear();
        const int result = ravo::cli::session_run(*s, line);
        require(result == 0 || line.find('|') != std::string_view::npos || text.find("% ") != std::string::npos);
        check_mode(s);
    }
    return 0;
}

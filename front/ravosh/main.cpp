// SPDX-License-Identifier: Apache-2.0
// ravosh: the command line of the daemon. It only talks to the management socket; it runs no other program, so it can
// be somebody's login shell.
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "batch.h"
#include "options.h"
#include "replace.h"
#include "shell.h"
#include "streams.h"

int main(int argc, char **argv) {
    ravo::client::fill_standard_streams();
    ravo::client::shell_options options;
    const ravo::fault wrong = ravo::client::parse_options({argv + (argc > 0 ? 1 : 0), argv + argc}, &options);
    if (wrong) {
        std::fprintf(stderr, "ravosh: %s; see ravosh --help\n", wrong.text.c_str());
        return ravo::client::exit_unreachable;
    }
    if (options.help || options.version) {
        std::fputs(options.help ? ravo::client::help_text() : "ravosh " RAVO_VERSION "\n", stdout);
        return std::fflush(stdout) == 0 ? ravo::client::exit_good : ravo::client::exit_unreachable;
    }
    if (options.has_replace) return ravo::client::run_replace(options);
    const bool has_commands = !options.commands.empty() || options.has_file;
    if (!has_commands && isatty(STDIN_FILENO) == 1 && isatty(STDOUT_FILENO) == 1)
        return ravo::client::run_shell(options);
    return ravo::client::run_batch(options);
}

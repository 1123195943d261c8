// SPDX-License-Identifier: Apache-2.0
// The configuration as text and as a file.
#ifndef PLATFORM_LINUX_CONFIGURATION_CONFIGURATION_H
#define PLATFORM_LINUX_CONFIGURATION_CONFIGURATION_H

#include <sys/types.h>

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

#include "fault.h"

struct cli_tree;

namespace ravo::cli {

// The commands that show, save, erase and replay configurations.
void install_configuration_commands(cli_tree *tree);

// The whole running configuration as text.
std::string running_configuration();

// Tells whether the saved configuration has the same meaning; without one: whether nothing is configured.
bool configuration_is_saved();

// Replays a file of commands as the start-up configuration: in global configuration mode with full privilege. A line
// that fails is reported as "FILE:LINE: reason" through report, the rest is applied; one that asks for what is in force
// already has not failed. check_only: finds the same lines, but changes nothing but the relay's data: no sockets are
// opened and commands of the platform's own are not run. Returns the number of failing lines; -1 when the file cannot
// be read (reported too); 0 when it does not exist and optional. commands: if given, set to the number of lines that
// hold a command.
int replay_file(const std::string &path, bool optional, bool check_only,
                const std::function<void(const std::string &line)> &report, std::size_t *commands = nullptr);

// The part of the running configuration that the daemon's sections leave out, as commands; empty when there is nothing.
// daemon_text: those sections, behind which it is replayed.
std::string extra_section(std::string_view daemon_text);

// Replaces a file by this text so that, whatever happens meanwhile, the file holds its old or its new text, whole, and
// on the disk before the function returns. A symbolic link is followed. mode: of the files that are made. versions: how
// many earlier texts are kept beside it, the last one as PATH.1, the one before that as PATH.2 and so on. The fault, if
// any: one line with the reason; the file is then untouched.
fault save_file(const std::string &path, std::string_view text, mode_t mode = 0600, int versions = 1);

// Versions of the saved configuration that are kept beside the one in use.
inline constexpr int saved_versions = 5;

// For a configuration that goes back by itself unless it is confirmed in time (unconfirmed.h). At a start: its time
// goes on where the daemon before was ended, and when it has run out meanwhile the configuration goes back at once. At
// the end: the timer is removed, the file with the time stays.
void unconfirmed_resume();
void unconfirmed_end();

// Removes a file, or what a symbolic link leads to; PATH.1 stays. That there is no such file is no fault.
fault erase_file(const std::string &path);

// Why a path may be neither replaced nor erased: something else than an ordinary file is there, such as /dev/null. No
// fault when an ordinary file is there, or nothing.
fault not_a_file(const std::string &path);

// Most bytes that a file of commands may have.
inline constexpr std::size_t configuration_limit = 64u << 20;

}  // namespace ravo::cli

#endif

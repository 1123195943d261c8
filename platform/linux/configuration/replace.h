// SPDX-License-Identifier: Apache-2.0
// Making a configuration the running one.
#ifndef PLATFORM_LINUX_CONFIGURATION_REPLACE_H
#define PLATFORM_LINUX_CONFIGURATION_REPLACE_H

#include <string>

#include "configuration/configuration_model.h"
#include "fault.h"

struct cli_tree;

namespace ravo::cli {

// The commands that replace the running configuration and show what differs, part of install_configuration_commands.
void install_replace_commands(cli_tree *tree);

// Makes a configuration the running one, all of it or nothing: changes only what differs, between two messages. The
// fault, if any: one line that says why everything is as it was.
fault make_running(const configuration &wanted);

// A configuration as text that read_model reads.
std::string text_of(const configuration &of);

}  // namespace ravo::cli

#endif

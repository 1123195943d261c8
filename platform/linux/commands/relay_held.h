// SPDX-License-Identifier: Apache-2.0
// Settings that a configuration asks for and that are made already: a check for each command of the relay that refuses
// to make its setting twice.
#ifndef PLATFORM_LINUX_COMMANDS_RELAY_HELD_H
#define PLATFORM_LINUX_COMMANDS_RELAY_HELD_H

#include "cli/command_row.h"

namespace ravo::cli {

// Global settings.
bool option_is_on(const asked_setting &asked);
bool option_is_off(const asked_setting &asked);
bool check_is_on(const asked_setting &asked);
bool check_is_off(const asked_setting &asked);
bool policy_is(const asked_setting &asked);
bool hops_are(const asked_setting &asked);

// Settings of the current interface.
bool has_server(const asked_setting &asked);
bool has_option60_host(const asked_setting &asked);
bool has_option61_host(const asked_setting &asked);

}  // namespace ravo::cli

#endif

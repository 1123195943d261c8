// SPDX-License-Identifier: Apache-2.0
// Lines of a configuration, run one by one in a session of their own.
#ifndef PLATFORM_LINUX_CONFIGURATION_REPLAY_H
#define PLATFORM_LINUX_CONFIGURATION_REPLAY_H

#include <functional>
#include <string_view>

#include "cli/session.h"
#include "configuration/configuration_model.h"

namespace ravo::cli {

// Runs the lines from global configuration mode on. prepare: may change the session before its first line; each, if
// given: called after each line. Returns the number of lines that failed, each of which was reported.
int replay_lines(std::string_view text, const line_report &report, const std::function<void(session &s)> &prepare,
                 const std::function<void(session &s)> &each = {});

}  // namespace ravo::cli

#endif

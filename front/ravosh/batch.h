// SPDX-License-Identifier: Apache-2.0
// Commands that are not typed: of -c, of a file, of standard input.
#ifndef FRONT_RAVOSH_BATCH_H
#define FRONT_RAVOSH_BATCH_H

#include "options.h"

namespace ravo::client {

// Exit statuses.
inline constexpr int exit_good = 0;
inline constexpr int exit_failed = 1;       // a command failed
inline constexpr int exit_unreachable = 2;  // no daemon, wrong usage, or a file or standard output that failed

// Runs the commands of -c, then those of the file, or of standard input when neither is given, in one session.
// Standard output gets what the daemon printed and nothing else. Returns the exit status.
int run_batch(const shell_options &options);

}  // namespace ravo::client

#endif

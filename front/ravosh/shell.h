// SPDX-License-Identifier: Apache-2.0
// The interactive shell.
#ifndef FRONT_RAVOSH_SHELL_H
#define FRONT_RAVOSH_SHELL_H

#include "options.h"

namespace ravo::client {

// Talks to the person at the terminal until they leave. Returns the exit status: 2 when the daemon cannot be reached in
// the first place, else 0.
int run_shell(const shell_options &options);

}  // namespace ravo::client

#endif

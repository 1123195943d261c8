// SPDX-License-Identifier: Apache-2.0
// Making the running configuration what a file says.
#ifndef FRONT_RAVOSH_REPLACE_H
#define FRONT_RAVOSH_REPLACE_H

#include "options.h"

namespace ravo::client {

// Hands the file to the daemon, line by line, which judges all of it before it changes anything. Prints the difference;
// faults go to standard error as "FILE:LINE: reason". Returns the exit status.
int run_replace(const shell_options &options);

}  // namespace ravo::client

#endif

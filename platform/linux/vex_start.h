// SPDX-License-Identifier: Apache-2.0
// The beginning of the daemon's life: its options, what only asks for something, and whether it may run at all. Nothing
// outside of the process is changed here.
#ifndef PLATFORM_LINUX_VEX_START_H
#define PLATFORM_LINUX_VEX_START_H

#include <string>

#include "process/frame.h"

namespace ravo::platform {

// How the relay's commands are installed, and how the relay begins: --check needs both.
struct relay_start {
    void (*install_commands)();
    void (*connect_and_start)();
};

// Of a start that ends at a file which only its owner can mend. An init system need not try again before that, and its
// unit knows the one number; for everybody else it is a start that failed.
int status_of_configuration();

// Ends the process. The line goes to standard error wherever the log goes: that is where whoever started us looks.
[[noreturn]] void refuse(const std::string &line, int status = 1);

// Whoever closes a standard stream must not have lines for it written into the socket that got its number.
void fill_standard_streams();

// Reads the command line, puts the options in force, becomes the daemon's user and opens the log. Does not return for
// what only asks for something (--help, --version, --check, --lend-gate, --supervise). Returns a remark for the log, or
// nothing.
std::string start_read_options(const relay_start &relay);

// Ends the process when somebody else may write its files, or when a daemon listens already.
void start_check(const frame_options &options);

}  // namespace ravo::platform

#endif

// SPDX-License-Identifier: Apache-2.0
// Start-up, registration with the daemon frame, and the crash report.
#ifndef RAVO_MAIN_H
#define RAVO_MAIN_H

#include <csignal>
#include <cstdint>

struct cli_globals;

// Fills the frame's registration record (VEX_INIT_WORDS words).
void ravo_register(std::uintptr_t *record);

// Installs the relay's commands, configuration writer and reset callback. Returns 0.
int ravo_cli_install(struct cli_globals *globals);

// Start-up callback: signal handler and databases. Both arguments are unused. Returns 1.
int ravo_sys_init(void *a, void *b);

// Installs the crash handler for SIGSEGV. Returns 0; a failure ends the process with status 1.
int installSignalHandlers();

// Prints the crash report and ends the process with status 1.
void ravo_crash_handler(int signo, siginfo_t *info, void *context);

#endif

// SPDX-License-Identifier: Apache-2.0
// The signals that a fault of the program's own raises, and the way to the end that they begin.
#ifndef PLATFORM_LINUX_PROCESS_CRASH_SIGNALS_H
#define PLATFORM_LINUX_PROCESS_CRASH_SIGNALS_H

namespace ravo::platform {

// From now on SIGABRT, SIGBUS, SIGFPE, SIGILL and SIGSEGV are noted before whoever caught them earlier gets them, on a
// stack of their own, so that a stack that is used up can be reported. note: called with the signal's number, or with 0
// when the process exits by any other way; it must do what a handler may do only. Whatever happens then, the process
// ends within seconds: what hangs in memory's own locks is ended by an alarm. To be called once, behind those who catch
// these signals.
void crash_signals_catch(void (*note)(int signal));

}  // namespace ravo::platform

#endif

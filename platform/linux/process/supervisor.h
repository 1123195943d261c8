// SPDX-License-Identifier: Apache-2.0
// A daemon that starts its successor when it dies, where there is no init system to do that (ravod --supervise).
//
// The supervisor is a process of its own, which does nothing but wait, and execs the daemon as its child. It keeps
// descriptors for it, as an init system does (descriptor_store.h), and gives them to the next. It starts it
// again at once when it crashed; not when it was stopped, and not when it could not start at first. Only when it dies
// at once again and again, or cannot be started any more, the next start waits, up to a few seconds.
#ifndef PLATFORM_LINUX_PROCESS_SUPERVISOR_H
#define PLATFORM_LINUX_PROCESS_SUPERVISOR_H

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace ravo::platform {

inline constexpr std::chrono::milliseconds supervisor_first_wait{100};  // doubled each time
inline constexpr std::chrono::milliseconds supervisor_longest_wait{5000};
inline constexpr unsigned supervisor_free_starts = 3;                    // deaths at once in a row that cost no wait
inline constexpr std::chrono::milliseconds supervisor_short_life{1000};  // who dies sooner dies at once

// How long the next start waits after so many deaths at once in a row.
std::chrono::milliseconds supervisor_wait(unsigned deaths);

// Runs a program, and again when it crashes, until it ends for good. SIGTERM, SIGINT and SIGHUP are passed on to it.
// program: its path; words: its arguments, without its name; report: gets a line for each start that follows a crash;
// short_life: as above, but for tests. Returns the status for the process to exit with: that of the child, 128 and its
// signal's number when one ended it.
int supervise(const std::string &program, const std::vector<std::string> &words,
              const std::function<void(const std::string &line)> &report,
              std::chrono::milliseconds short_life = supervisor_short_life);

// The child's side, without effect for who has no supervisor: it looks for one, before anything else; it says that it
// has started; and, from a handler of signals, that it crashes. Who exits with neither of these said could not start.
void supervised_begins();
void supervised_is_ready();
void supervised_crashes();

}  // namespace ravo::platform

#endif

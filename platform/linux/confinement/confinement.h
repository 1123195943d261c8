// SPDX-License-Identifier: Apache-2.0
// What the process gives up before it reads a byte from outside, so that whoever takes it over has little of it.
//
//   root's user            at the start, before a file is opened          user_become (daemon_user.h)
//   capabilities           those that nothing configured needs            confine
//   files                  all but the system's and its own folders       confine
//   system calls           all that its work does not need                confine
//
// It is the same whoever starts the daemon: an init system's own sandbox comes on top of it.
#ifndef PLATFORM_LINUX_CONFINEMENT_CONFINEMENT_H
#define PLATFORM_LINUX_CONFINEMENT_CONFINEMENT_H

#include <cstdint>
#include <string>
#include <vector>

#include "confinement/daemon_user.h"
#include "fault.h"
#include "process/frame.h"

namespace ravo::platform {

// What the description of the switch asks for that takes rights.
struct confinement_wishes {
    bool ports_are_limited = false;              // what they send is counted and held back in the kernel
    bool trap = false;                           // filters are put on ports
    std::vector<std::string> capture_folders{};  // captures are written there, besides the daemon's own folders
};

// The capabilities with which the daemon begins, as a set of bits.
[[nodiscard]] std::uint64_t confinement_first_capabilities();

// The folders that the daemon writes into and makes when they are missing, of those that only root could make.
[[nodiscard]] std::vector<own_folder> confinement_own_folders(const frame_options &options);

// The folders for captures: the daemon's own folders for logs and for what it remembers, and those of the wishes.
[[nodiscard]] std::vector<std::string> confinement_capture_folders(const std::vector<std::string> &wished);

// Whether system calls are filtered too: a build with sanitizers looks at its own threads when it ends, for which it
// needs calls that the relay's work does not.
#ifdef RAVO_ADDRESS_SANITIZER
inline constexpr bool confinement_filters_calls = false;
#else
inline constexpr bool confinement_filters_calls = true;
#endif

// Gives up the rest, for good. To be called while the process has one thread. The fault, if any: why it cannot
// be done.
fault confine(const frame_options &options, const confinement_wishes &wishes);

}  // namespace ravo::platform

#endif

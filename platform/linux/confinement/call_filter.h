// SPDX-License-Identifier: Apache-2.0
// The system calls that this process may make.
#ifndef PLATFORM_LINUX_CONFINEMENT_CALL_FILTER_H
#define PLATFORM_LINUX_CONFINEMENT_CALL_FILTER_H

#include <string>
#include <string_view>

#include "fault.h"

namespace ravo::platform {

// From now on, in all threads and for good, the process makes no system call but those that the daemon's work needs: no
// other program is started, no other process touched, no memory both written and run, no socket opened but those of the
// relay's families. Any other call fails with EPERM, and its name is written to standard error, once. bpf: programs for
// the kernel may be loaded too. The fault, if any: why the filter cannot be put in place.
fault call_filter_install(bool bpf);

// What is written of a forbidden call before its name; one such line means that the list lacks something, or that
// somebody is at work who should not be.
inline constexpr std::string_view call_forbidden_text = "ravod: forbidden system call: ";

}  // namespace ravo::platform

#endif

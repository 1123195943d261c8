// SPDX-License-Identifier: Apache-2.0
// Descriptors that outlast the process: the init system keeps them while no daemon runs, or the supervisor does
// (supervisor.h), so that what the kernel queues at them meanwhile is not lost, and gives them to the next start
// (FileDescriptorStoreMax=, sd_notify(3)).
//
// Who keeps one gives it a name, and asks for it by that name at the next start. What comes back may be of another
// version or of somebody else: whoever takes a descriptor looks at it before he trusts it.
#ifndef PLATFORM_LINUX_PROCESS_DESCRIPTOR_STORE_H
#define PLATFORM_LINUX_PROCESS_DESCRIPTOR_STORE_H

#include <string>

#include "base/owners.h"

namespace ravo::platform {

// Takes what the process was given into its hands; before it opens anything of its own.
void store_begin();

// Tells whether a descriptor of this name was given that nobody took.
bool store_has(const std::string &name);

// The descriptor of this name; none when none was given, or several. It is kept on, unless it is forgotten.
descriptor store_take(const std::string &name);

// Has a descriptor kept under a name, which must be no other's; where no init system keeps any, nothing happens. An
// init system that is busy is asked again a little later. fd: stays the caller's.
void store_keep(const std::string &name, int fd);

// Has what is kept under this name closed, unless nothing is.
void store_forget(const std::string &name);

// Closes what nobody took, with a line in the log for each, and has it forgotten.
void store_end_of_start();

// Gives up on what the init system had no room for; to be called before the loop ends.
void store_close();

}  // namespace ravo::platform

#endif

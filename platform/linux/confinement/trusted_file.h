// SPDX-License-Identifier: Apache-2.0
// Files that decide what the daemon does are believed only when nobody else can have written them.
#ifndef PLATFORM_LINUX_CONFINEMENT_TRUSTED_FILE_H
#define PLATFORM_LINUX_CONFINEMENT_TRUSTED_FILE_H

#include <sys/types.h>

#include <string>

#include "fault.h"

namespace ravo::platform {

// Tells why a file of configuration cannot be believed: it, or the folder in which it is, can be written by others
// than root, the user of this process and the daemon's own user; or this process may not read it. Links are followed. A
// file that does not exist is no fault, nor is a device. The fault, if any: one line with the file and the
// remedy.
fault trusted_file_fault(const std::string &path, uid_t daemon);

}  // namespace ravo::platform

#endif

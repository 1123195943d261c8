// SPDX-License-Identifier: Apache-2.0
// The files that this process may touch, beside what the file system's own permissions say.
#ifndef PLATFORM_LINUX_CONFINEMENT_FILE_RULES_H
#define PLATFORM_LINUX_CONFINEMENT_FILE_RULES_H

#include <string>
#include <vector>

#include "fault.h"

namespace ravo::platform {

struct file_wishes {
    std::vector<std::string> written;  // folders in which files are made, read, replaced and removed
    std::vector<std::string> read{};   // folders whose files are read, beside those of the system
};

// From now on and for good the process reads no files but those of the system's own folders and the ones wished for,
// and writes none but below the latter; it connects to nobody by TCP and signals no other process. A folder that does
// not exist now stays closed. It is no fault of a kernel that it knows no such rules; the fault is why they cannot
// be put in place. For a process of one thread.
fault file_rules_install(const file_wishes &wishes);

}  // namespace ravo::platform

#endif

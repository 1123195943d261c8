// SPDX-License-Identifier: Apache-2.0
// The folder in which the daemon keeps what it has to know again after a restart: numbers of ports, saved versions.
#ifndef PLATFORM_LINUX_PROCESS_STATE_FOLDER_H
#define PLATFORM_LINUX_PROCESS_STATE_FOLDER_H

#include <string>
#include <string_view>

#include "fault.h"

namespace ravo::platform {

// Chooses the folder: the one given, else the first of those in STATE_DIRECTORY, which systemd sets. It is made when it
// does not exist. The fault, if any: one line that says why nothing is remembered.
fault state_open(const std::string &given);

// The folder, without a slash at its end; empty when nothing is remembered.
const std::string &state_folder();

// A file's path in it; empty when nothing is remembered.
std::string state_path(std::string_view name);

}  // namespace ravo::platform

#endif

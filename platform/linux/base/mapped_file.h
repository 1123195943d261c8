// SPDX-License-Identifier: Apache-2.0
// Files that are memory of the daemon's own, which the next daemon finds.
#ifndef PLATFORM_LINUX_BASE_MAPPED_FILE_H
#define PLATFORM_LINUX_BASE_MAPPED_FILE_H

#include <cstddef>
#include <string>

#include "base/mapping.h"
#include "fault.h"

namespace ravo::platform {

// Maps a file of this size, which is made, mode 0600 and all zeros, when it is missing. Its room is taken from the disk
// at once. What belongs to another user, what others may use, and what is no plain file is refused: they could cut it
// short. The fault, without the path, says why *mapped owns nothing.
fault map_own_file(const std::string &path, std::size_t size, mapping *mapped);

}  // namespace ravo::platform

#endif

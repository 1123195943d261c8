// SPDX-License-Identifier: Apache-2.0
// Reaching the daemon: a connection to its management socket, made without waiting.
#ifndef FRONT_CLIENT_REACH_H
#define FRONT_CLIENT_REACH_H

#include <string>

#include "fault.h"

namespace ravo::client {

// Connects to the management socket at path. The descriptor, in *fd, is non-blocking and the caller's. The fault, if
// any: one line that tells why not (without the path).
fault reach(const std::string &path, int *fd);

// What the system calls an error.
std::string error_text(int error);

}  // namespace ravo::client

#endif

// SPDX-License-Identifier: Apache-2.0
// What a socket that somebody else opened is.
#ifndef PLATFORM_LINUX_CHANNEL_GIVEN_SOCKET_H
#define PLATFORM_LINUX_CHANNEL_GIVEN_SOCKET_H

#include "fault.h"

namespace ravo::platform {

// Looks whether a descriptor is a socket of this domain and type in the network namespace of this process. It is a
// fault, too, when the kernel cannot tell.
fault look_at_socket(int fd, int domain, int type);

}  // namespace ravo::platform

#endif

// SPDX-License-Identifier: Apache-2.0
// Calls that the daemon ends over when they fail, made again while the kernel only lacks something for a moment.
#ifndef PLATFORM_LINUX_OSAL_ONCE_MORE_H
#define PLATFORM_LINUX_OSAL_ONCE_MORE_H

#include <functional>

namespace ravo::platform {

// Makes a call up to five times within 75 ms, as long as it fails for want of memory, buffers or descriptors or was
// interrupted; says in a line of the log when that helped. name: of the call, for that line. call: returns a negative
// number and sets errno when it fails. Returns what the last call returned, with its errno.
int once_more(const char *name, const std::function<int()> &call);

}  // namespace ravo::platform

#endif

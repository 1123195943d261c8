// SPDX-License-Identifier: Apache-2.0
// A process may raise its own limit up to the hard one, without any right.
#include "process/limits.h"

#include <sys/resource.h>

namespace ravo::platform {

void limits_raise_descriptors() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == limit.rlim_max) return;
    limit.rlim_cur = limit.rlim_max;
    (void)setrlimit(RLIMIT_NOFILE, &limit);  // up to the hard limit it cannot fail
}

}  // namespace ravo::platform

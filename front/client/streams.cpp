// SPDX-License-Identifier: Apache-2.0
#include "streams.h"

#include <fcntl.h>
#include <unistd.h>

#include <initializer_list>

namespace ravo::client {

void fill_standard_streams() {
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
        if (fcntl(fd, F_GETFD) < 0) (void)open("/dev/null", fd == STDIN_FILENO ? O_WRONLY : O_RDONLY);
}

}  // namespace ravo::client

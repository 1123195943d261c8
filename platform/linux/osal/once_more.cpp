// SPDX-License-Identifier: Apache-2.0
// Some calls fail for lack of something that others give back a moment later. They are tried again after 5, 10, 20 and
// 40 ms; other errors are final at once.
#include "osal/once_more.h"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

#include "log/log.h"

namespace ravo::platform {

namespace {

using std::chrono::milliseconds;

constexpr milliseconds first_wait{5};
constexpr milliseconds longest_wait{40};

bool passes_by(int error) {
    switch (error) {
        case EINTR:
        case EAGAIN:
        case ENOMEM:
        case ENOBUFS:
        case EMFILE:
        case ENFILE:
            return true;
        default:
            return false;
    }
}

}  // namespace

int once_more(const char *name, const std::function<int()> &call) {
    int result = call();
    int lacked = 0;
    for (milliseconds wait = first_wait; result < 0 && passes_by(errno) && wait <= longest_wait; wait *= 2) {
        lacked = errno;
        std::this_thread::sleep_for(wait);
        result = call();
    }
    if (result >= 0 && lacked != 0)
        log_line(log_level_warning, "%s(): %s; tried again, and it is done", name, strerrordesc_np(lacked));
    return result;
}

}  // namespace ravo::platform

// SPDX-License-Identifier: Apache-2.0
// Signals are for the event loop's thread: all are blocked while the new one is made, which inherits that.
#include "base/threads.h"

#include <pthread.h>
#include <signal.h>

#include <cerrno>
#include <new>
#include <system_error>
#include <thread>
#include <utility>

namespace ravo::platform {

int start_thread(std::function<void()> work) {
    sigset_t all, before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    int reason = 0;
    try {
        std::thread(std::move(work)).detach();
    } catch (const std::system_error &fault) {
        reason = fault.code().value();
    } catch (const std::bad_alloc &) {
        reason = ENOMEM;
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return reason;
}

}  // namespace ravo::platform

// SPDX-License-Identifier: Apache-2.0
// Threads for what may have to wait: the event loop never does.
#ifndef PLATFORM_LINUX_BASE_THREADS_H
#define PLATFORM_LINUX_BASE_THREADS_H

#include <functional>

namespace ravo::platform {

// Does work in a thread of its own, which nobody waits for. It blocks all signals: they are the event loop's. Returns
// 0, or the reason as errno when the system gives none; the work is not done then.
int start_thread(std::function<void()> work);

}  // namespace ravo::platform

#endif

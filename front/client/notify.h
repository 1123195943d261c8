// SPDX-License-Identifier: Apache-2.0
// Tells the service manager that a program is ready, and what it is doing.
#ifndef FRONT_CLIENT_NOTIFY_H
#define FRONT_CLIENT_NOTIFY_H

#include <string_view>

namespace ravo::client {

// Sends a state ("READY=1") to the service manager that started this process; nothing happens when there is none.
void notify_manager(std::string_view state);

}  // namespace ravo::client

#endif

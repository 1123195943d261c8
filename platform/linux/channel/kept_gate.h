// SPDX-License-Identifier: Apache-2.0
// The gate's program and maps outlast the process, as the sockets do that they belong to: so the next daemon
// need not wait for whoever lends it them, and the limits of ports hold all the while.
#ifndef PLATFORM_LINUX_CHANNEL_KEPT_GATE_H
#define PLATFORM_LINUX_CHANNEL_KEPT_GATE_H

#include <string>

namespace ravo::platform {

// Has gates kept from here on, and asks for the first one unless a daemon before left one, or none was to be had for
// it. lender: the path of the socket at which is asked.
void kept_gate_begin(const std::string &lender);

// Has the next gate be what the daemon before left, if it left one. What is not to be used is logged, and kept no more.
void kept_gate_take_over();

// Has nothing kept any more.
void kept_gate_forget();

}  // namespace ravo::platform

#endif

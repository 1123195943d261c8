// SPDX-License-Identifier: Apache-2.0
// What the daemon reported about its services, for the init system and "show service status".
#ifndef PLATFORM_LINUX_PROCESS_SERVICE_STATUS_H
#define PLATFORM_LINUX_PROCESS_SERVICE_STATUS_H

#include <cstdint>
#include <string>
#include <vector>

namespace ravo::platform {

struct service_state {
    std::uint32_t protocol;
    std::uint32_t state;  // 1 on, 2 off
    std::string name;     // "DHCP relay"
    std::string text;     // what the daemon says of it, may be empty
};
// In order of protocol number.
std::vector<service_state> service_states();

// The states as one line, as the init system shows it: "DHCP relay on".
std::string service_status_line();

// Tells the init system that start-up is complete, or that the daemon is stopping.
void service_ready();
void service_stopping();

// Tells the init system at half its watchdog's interval that the event loop is alive; nothing when it set none.
void service_watchdog_start();
void service_watchdog_stop();

}  // namespace ravo::platform

#endif

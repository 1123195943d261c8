// SPDX-License-Identifier: Apache-2.0
// The daemon's commands that the web side runs, and how long what they print is good for.
#ifndef FRONT_WEB_COMMANDS_H
#define FRONT_WEB_COMMANDS_H

#include <chrono>

namespace ravo::web {

inline constexpr std::chrono::milliseconds fresh_enough{1000};

inline constexpr const char *version_command = "show version";
inline constexpr const char *settings_command = "show ip dhcp relay | json";
inline constexpr const char *detail_command = "show ip dhcp relay detail | json";
inline constexpr const char *statistics_command = "show ip dhcp relay statistics | json";
inline constexpr const char *servers_command = "show ip dhcp relay server | json";
inline constexpr const char *clients_command = "show ip dhcp relay client | json";
inline constexpr const char *client_command = "show ip dhcp relay client ";  // MAC | json
inline constexpr const char *advice_command = "show ip dhcp relay advice | json";
inline constexpr const char *transactions_command = "show ip dhcp relay xid-port-mapping | json";
inline constexpr const char *running_command = "show running-config";
inline constexpr const char *saved_command = "show startup-config";

}  // namespace ravo::web

#endif

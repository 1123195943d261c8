// SPDX-License-Identifier: Apache-2.0
// Help texts of words that many commands begin with; those of one command are in its row.
#ifndef PLATFORM_LINUX_CLI_HELP_TEXTS_H
#define PLATFORM_LINUX_CLI_HELP_TEXTS_H

namespace ravo::cli::help {

inline constexpr char show[] = "Show running system information";
inline constexpr char clear[] = "Reset counters";
inline constexpr char ip[] = "Internet Protocol version 4 (IPv4)";
inline constexpr char dhcp[] = "DHCP";
inline constexpr char relay[] = "The DHCP relay";
inline constexpr char running[] = "The settings in force";
inline constexpr char vlan_id[] = "VLAN id";
inline constexpr char port[] = "Module and port, such as 1/2, or its device";

}  // namespace ravo::cli::help

#endif

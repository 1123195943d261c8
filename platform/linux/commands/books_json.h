// The platform's own show commands as JSON; the relay's are in show_json.h.
//
// Members keep their names and meanings; more may be added. What is not known is left out. docs/json.md tells them all.
#ifndef PLATFORM_LINUX_COMMANDS_BOOKS_JSON_H
#define PLATFORM_LINUX_COMMANDS_BOOKS_JSON_H

#include <string>
#include <vector>

#include "relay_access.h"

namespace ravo::cli {

// Documents, each for the commands whose arguments it takes. One that begins with "%" is no document but the line that
// tells what is wrong with an argument.
std::string statistics_json(const relay_access &relay, const std::vector<std::string> &arguments);
std::string statistics_of_vlan_json(const relay_access &relay, const std::vector<std::string> &arguments);
std::string statistics_of_port_json(const relay_access &relay, const std::vector<std::string> &arguments);
std::string clients_json(const relay_access &relay, const std::vector<std::string> &arguments);
std::string client_json(const relay_access &relay, const std::vector<std::string> &arguments);
std::string interfaces_json(const relay_access &relay, const std::vector<std::string> &arguments);

}  // namespace ravo::cli

#endif

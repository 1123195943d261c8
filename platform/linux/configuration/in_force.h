// Settings that a configuration asks for and that are made already.
#ifndef PLATFORM_LINUX_CONFIGURATION_IN_FORCE_H
#define PLATFORM_LINUX_CONFIGURATION_IN_FORCE_H

#include <string>
#include <string_view>
#include <vector>

namespace ravo::cli {

// Tells whether the setting that a command of the relay makes is in force. The relay refuses to make most of its
// settings twice; for a configuration that is replayed this is no fault. command: text of its definition; arguments: as
// its handler gets them; interface: name of the current one, null without one. False for every command that is not
// known here, and when no relay is registered.
bool in_force(std::string_view command, const std::vector<std::string> &arguments, const char *interface);

}  // namespace ravo::cli

#endif

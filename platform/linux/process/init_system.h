// The init system's notification socket (sd_notify(3)).
#ifndef PLATFORM_LINUX_PROCESS_INIT_SYSTEM_H
#define PLATFORM_LINUX_PROCESS_INIT_SYSTEM_H

#include <string>

namespace ravo::platform {

// Tells the init system, without ever waiting for it: the event loop must not stand still because another process does.
// message: lines such as "READY=1". Returns false when the init system has no room for it now, so that it is to be told
// again; true when it was told, or when there is nobody to tell.
bool init_system_tell(const std::string &message);

}  // namespace ravo::platform

#endif

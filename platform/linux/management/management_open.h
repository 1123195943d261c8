// The management socket with other bounds than the daemon's own.
#ifndef PLATFORM_LINUX_MANAGEMENT_MANAGEMENT_OPEN_H
#define PLATFORM_LINUX_MANAGEMENT_MANAGEMENT_OPEN_H

#include <cstddef>
#include <string>

#include "management/management_session.h"

namespace ravo::platform {

// As management_open, with these settings.
std::string management_open_with(const std::string &path, const management_settings &settings);

// Number of sessions that are open.
std::size_t management_sessions();

}  // namespace ravo::platform

#endif

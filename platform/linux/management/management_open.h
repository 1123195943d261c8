// SPDX-License-Identifier: Apache-2.0
// The management socket with other bounds than the daemon's own.
#ifndef PLATFORM_LINUX_MANAGEMENT_MANAGEMENT_OPEN_H
#define PLATFORM_LINUX_MANAGEMENT_MANAGEMENT_OPEN_H

#include <cstddef>
#include <string>
#include <vector>

#include "fault.h"
#include "management/management_names.h"
#include "management/management_session.h"

namespace ravo::platform {

// As management_open, with these settings, and with this service that knows names.
fault management_open_with(const std::string &path, const management_settings &settings,
                           name_service names = system_names());

// Number of sessions that are open, and what others may know of each, in the order in which they were opened.
std::size_t management_sessions();
std::vector<session_about> management_session_list();

// Ends a session; its client gets the reason. by: the user who asked for that. Returns false when there is no session
// of this number.
bool management_session_clear(unsigned number, const std::string &by);

}  // namespace ravo::platform

#endif

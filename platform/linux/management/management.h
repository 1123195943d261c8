// The management socket: sessions of shells and front ends.
#ifndef PLATFORM_LINUX_MANAGEMENT_MANAGEMENT_H
#define PLATFORM_LINUX_MANAGEMENT_MANAGEMENT_H

#include <string>

namespace ravo::platform {

// Listens on a Unix socket. A stale socket file is taken over, one with a living daemon behind it is refused. Returns
// an empty string, or one line with the reason.
std::string management_open(const std::string &path);

// Checks that no living daemon listens on the path. Returns an empty string, or one line with the reason.
std::string management_check(const std::string &path);

// Ends all sessions (after their output is sent as far as it can be without waiting) and removes the socket file.
void management_close();

}  // namespace ravo::platform

#endif

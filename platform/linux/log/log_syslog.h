// SPDX-License-Identifier: Apache-2.0
// The form of a line for the system's log daemon.
#ifndef PLATFORM_LINUX_LOG_LOG_SYSLOG_H
#define PLATFORM_LINUX_LOG_LOG_SYSLOG_H

#include <span>

#include "log/log_datagram.h"

namespace ravo::platform {

inline constexpr const char *syslog_path = "/dev/log";

// "<27>Jan  2 03:04:05 ravod[123]: text". What is no printable character is shown as "?". Fields have no place in it.
std::size_t syslog_format(const log_record &record, std::span<char> room);

}  // namespace ravo::platform

#endif

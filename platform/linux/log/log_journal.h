// SPDX-License-Identifier: Apache-2.0
// The form of a line for the journal's own socket, which takes fields beside the text.
#ifndef PLATFORM_LINUX_LOG_LOG_JOURNAL_H
#define PLATFORM_LINUX_LOG_LOG_JOURNAL_H

#include <span>

#include "log/log_datagram.h"

namespace ravo::platform {

inline constexpr const char *journal_path = "/run/systemd/journal/socket";

// MESSAGE, PRIORITY and SYSLOG_IDENTIFIER, then the record's own fields.
std::size_t journal_format(const log_record &record, std::span<char> room);

}  // namespace ravo::platform

#endif

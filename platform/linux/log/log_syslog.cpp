// SPDX-License-Identifier: Apache-2.0
// The classic form of a line to a local syslog daemon: priority, local time, program and process (RFC 3164 section 4.1,
// without a host's name).
#include "log/log_syslog.h"

#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <ctime>

namespace ravo::platform {

namespace {

constexpr std::size_t line_room = 4096;

// "<27>Jan  2 03:04:05 ravod[123]: ". Returns its length.
std::size_t write_head(std::span<char> room, int severity) {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    static constexpr const char *months[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                             "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    const int written = std::snprintf(
        room.data(), room.size(), "<%d>%s %2d %02d:%02d:%02d ravod[%d]: ", LOG_DAEMON | severity, months[local.tm_mon],
        local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec, static_cast<int>(getpid()));
    return std::min(static_cast<std::size_t>(std::max(written, 0)), room.size() - 1);
}

}  // namespace

std::size_t syslog_format(const log_record &record, std::span<char> room) {
    const std::size_t head = write_head(room, record.severity);
    const std::size_t length = std::min({record.line.size(), line_room, room.size() - head});
    std::transform(record.line.begin(), record.line.begin() + static_cast<std::ptrdiff_t>(length), room.begin() + head,
                   [](char c) {
                       const auto byte = static_cast<unsigned char>(c);
                       return (byte < 0x20 && c != '\t') || byte == 0x7F ? '?' : c;
                   });
    return head + length;
}

}  // namespace ravo::platform

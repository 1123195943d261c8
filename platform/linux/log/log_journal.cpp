// SPDX-License-Identifier: Apache-2.0
// One field a line, "NAME=value"; the line of a log has no line end inside it, so that no value needs the binary form.
#include "log/log_journal.h"

#include <algorithm>
#include <cstdio>

namespace ravo::platform {

namespace {

std::size_t append(std::span<char> room, std::size_t at, std::string_view text) {
    const std::size_t length = std::min(text.size(), room.size() - at);
    std::copy_n(text.begin(), length, room.begin() + static_cast<std::ptrdiff_t>(at));
    return at + length;
}

}  // namespace

std::size_t journal_format(const log_record &record, std::span<char> room) {
    char head[64];
    const int length = std::snprintf(head, sizeof head, "SYSLOG_IDENTIFIER=ravod\nPRIORITY=%d\n", record.severity);
    std::size_t at = append(room, 0, {head, static_cast<std::size_t>(std::max(length, 0))});
    at = append(room, at, record.fields);
    at = append(room, at, "MESSAGE=");
    at = append(room, at, record.line);
    return append(room, at, "\n");
}

}  // namespace ravo::platform

// SPDX-License-Identifier: Apache-2.0
// Lines for a daemon that takes each as a datagram: the connection, and what becomes of lines that it does not take.
#ifndef PLATFORM_LINUX_LOG_LOG_DATAGRAM_H
#define PLATFORM_LINUX_LOG_LOG_DATAGRAM_H

#include <sys/un.h>

#include <cstddef>
#include <span>
#include <string_view>

namespace ravo::platform {

// A line on its way. fields: "NAME=value" lines that go with it, each with its line end; may be empty.
struct log_record {
    int severity;  // as in syslog
    std::string_view line;
    std::string_view fields;
};

// Writes a record in the daemon's format into a room. Returns its length.
using record_format = std::size_t (*)(const log_record &record, std::span<char> room);

struct log_datagram {
    record_format format = nullptr;
    sockaddr_un daemon{};
    int fd = -1;
    unsigned long lost = 0;  // lines in a row that could not be sent
};

// Connects to a daemon's socket. Returns 0, or the reason as errno; the target may be used all the same.
int datagram_open(log_datagram &target, record_format format, const char *path);
void datagram_close(log_datagram &target);

// Sends a line. One that finds nobody is lost, as is one that finds the daemon's queue full when there is no time to
// wait for room; the first of a row is reported on standard error, and how many they were is written before the next
// one that gets through. has_time: asked again and again while the queue is full; null: no time at all. Does not
// allocate.
using datagram_patience = bool (*)(const void *whose);
void datagram_send(log_datagram &target, const log_record &record, datagram_patience has_time = nullptr,
                   const void *whose = nullptr);

}  // namespace ravo::platform

#endif

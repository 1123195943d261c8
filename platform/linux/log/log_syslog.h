// The log's way to the system's log daemon: datagrams to /dev/log, as RFC 3164 has them.
//
// Not syslog(3), which waits when the log daemon does not read, takes a lock and may allocate: a relay must not stop
// for its log, and the crash report comes this way too.
#ifndef PLATFORM_LINUX_LOG_LOG_SYSLOG_H
#define PLATFORM_LINUX_LOG_LOG_SYSLOG_H

#include <string_view>

namespace ravo::platform {

// Opens the way to the log daemon at a socket. One that is not there is tried again with each line.
void syslog_open(const char *path = "/dev/log");
void syslog_close();

// Sends one line, without its line end, as facility "daemon" and program "ravod". severity: RFC 3164 section 4.1.1, 0
// to 7. Control characters become '?'. Never waits: a line that cannot be sent is lost. The first of a row is told on
// standard error; how many they were is sent once that is possible again.
void syslog_send(int severity, std::string_view line);

}  // namespace ravo::platform

#endif

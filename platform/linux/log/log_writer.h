// SPDX-License-Identifier: Apache-2.0
// The thread that writes the log. Whatever takes the lines may hang (a pipe whose reader does not read, a slow disk, a
// busy log daemon): then this thread waits, and nothing else. It shares nothing with the others but its queue.
#ifndef PLATFORM_LINUX_LOG_LOG_WRITER_H
#define PLATFORM_LINUX_LOG_LOG_WRITER_H

#include <chrono>
#include <string>
#include <string_view>

#include "log/log_datagram.h"
#include "log/log_queue.h"

namespace ravo::platform {

// What the thread writes to.
struct writer_target {
    int fd = -1;                       // the stream for text, -1: none
    bool owns_fd = false;              // it is closed when the stream goes on elsewhere, and at the end
    std::string path;                  // of a file, for reports of its faults; empty: they are reported to nobody
    log_datagram *datagram = nullptr;  // for records; the thread's alone while it runs
};

// Starts the thread. Returns false when the system does not let us have one: the caller then writes itself.
[[nodiscard]] bool log_writer_start(const writer_target &target);
// Tells whether there is one in this process; a process that was forked off has none.
[[nodiscard]] bool log_writer_running();

// Hands something to the thread. Returns false when the queue is full; urgent as for log_queue_put. May be called from
// a signal handler that interrupted the event loop.
[[nodiscard]] bool log_writer_put(const queue_entry &entry, std::string_view text, bool urgent);

// Tells whether the queue has room again for more than a few lines.
[[nodiscard]] bool log_writer_has_room();

// Waits until all that was handed over is written, but no longer than this. Returns whether it is. While the thread is
// known to be stuck there is no waiting, unless for who is patient: for the last words of the process.
bool log_writer_settle(std::chrono::microseconds limit, bool patient = false);

// Ends the thread when it has written everything. One that is still stuck after a second is left behind: it ends with
// the process.
void log_writer_stop();

// Writes bytes to a stream, whatever it takes; what is stuck for ever holds whoever calls this. Returns 0 or the reason
// as errno.
[[nodiscard]] int log_write_stream(int fd, std::string_view text);
// Tells on standard error that a log file cannot be written.
void log_tell_file_fault(const char *path, int error);

}  // namespace ravo::platform

#endif

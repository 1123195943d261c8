// SPDX-License-Identifier: Apache-2.0
// Where the log goes: standard error, a file, the journal or the system's log daemon, written by whoever logs or, once
// it runs, by the writer's thread.
#ifndef PLATFORM_LINUX_LOG_LOG_TARGET_H
#define PLATFORM_LINUX_LOG_LOG_TARGET_H

#include <string>
#include <string_view>

#include "fault.h"

namespace ravo::platform {

// Opens a target ("stderr", "syslog" or a file's path) in place of the one before. The fault, if any: the
// reason why it cannot be opened; the one before then stays.
fault target_open(const std::string &name);
// Goes back to standard error. What was handed over is written first, as far as that goes in a second.
void target_close();
// Opens a log file again under its name. Returns as target_open.
fault target_reopen();

// From now on a thread writes. Returns false when there can be none; lines are then written as before.
bool target_start_writer();

// Tells whether the target takes text piece by piece; else it takes lines.
bool target_is_stream();
// Writes text to a stream; what has no line end is continued by the next call.
void target_write(int level, std::string_view text);
// Ends a line of the stream that has been begun.
void target_end_line(int level);
// Sends a line, without its line end. fields: for the journal, which alone has room for them.
void target_send(int level, std::string_view line, std::string_view fields);
// Tells whether fields of lines are of use.
bool target_takes_fields();

}  // namespace ravo::platform

#endif

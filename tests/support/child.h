// SPDX-License-Identifier: Apache-2.0
// What a process gives up it gives up for good, so each test of that has a process of its own.
#ifndef CHILD_H
#define CHILD_H

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <string>

// Of `make coverage` alone, whose preset links it: writes what this process has run to the files of counts, as its end
// would. NULL elsewhere.
extern "C" void __gcov_dump() __attribute__((weak));

namespace child {

// Ends a child at once, without what the test program does at its end. What it ran is counted as far as it may write
// files.
[[noreturn]] inline void end(int status) {
    dup2(STDIN_FILENO, STDERR_FILENO);  // a complaint that it may not is none of its words
    if (__gcov_dump != nullptr) __gcov_dump();
    _exit(status);
}

struct result {
    int status = -1;     // what the work returned, -1 when the process was ended by a signal
    std::string told{};  // on standard error
};

// Runs the work in a process of its own. It must allocate little and return soon.
inline result run(const std::function<int()> &work) {
    int ends[2];
    EXPECT_EQ(pipe(ends), 0);
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(ends[1], STDERR_FILENO);
        close(ends[0]);
        close(ends[1]);
        end(work());
    }
    close(ends[1]);
    result out;
    char text[4096];
    for (ssize_t got; (got = read(ends[0], text, sizeof text)) > 0;)
        out.told.append(text, static_cast<std::size_t>(got));
    close(ends[0]);
    int status = 0;
    EXPECT_EQ(waitpid(pid, &status, 0), pid);
    if (WIFEXITED(status)) out.status = WEXITSTATUS(status);
    return out;
}

}  // namespace child

#endif

// SPDX-License-Identifier: Apache-2.0
#include "streams.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <initializer_list>

namespace {

// What is wrong in a child all of whose standard streams were closed: 0 for nothing.
int with_closed_streams() {
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) close(fd);
    ravo::client::fill_standard_streams();
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
        if (fcntl(fd, F_GETFD) < 0) return 1;
    char byte = 0;
    if (read(STDIN_FILENO, &byte, 1) != -1 || errno != EBADF) return 2;
    if (write(STDOUT_FILENO, &byte, 1) != -1 || errno != EBADF) return 3;
    return open("/dev/null", O_RDONLY) > STDERR_FILENO ? 0 : 4;
}

TEST(Streams, ThatWereClosedAreFilledAndGoOnFailing) {
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) _exit(with_closed_streams());
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST(Streams, ThatAreOpenStayWhatTheyAre) {
    const int before = fcntl(STDERR_FILENO, F_GETFL);
    ravo::client::fill_standard_streams();
    EXPECT_EQ(fcntl(STDERR_FILENO, F_GETFL), before);
    const int next = open("/dev/null", O_RDONLY);
    EXPECT_GT(next, STDERR_FILENO);
    close(next);
}

}  // namespace

// SPDX-License-Identifier: Apache-2.0
// The log's writer: whoever takes the lines may hang, and the one who logs does not.
#include "log/log_writer.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "log/log.h"
#include "vex_init.h"

namespace {

using ravo::platform::log_close;
using ravo::platform::log_level_error;
using ravo::platform::log_level_start;
using ravo::platform::log_level_warning;
using ravo::platform::log_line;
using ravo::platform::log_open;
using ravo::platform::log_reopen;
using ravo::platform::log_settle;
using ravo::platform::log_start_writer;
using ravo::platform::log_writer_running;
using ravo::platform::log_writer_settle;
using std::chrono::steady_clock;
using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;

constexpr std::chrono::seconds long_enough{30};

std::string contents(const std::string &path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

// Standard error is a pipe while this lives; nobody reads it unless the test does.
struct stderr_pipe {
    int ends[2] = {-1, -1};
    int saved = dup(STDERR_FILENO);
    stderr_pipe() {
        EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
        dup2(ends[1], STDERR_FILENO);
        close(ends[1]);
        fcntl(ends[0], F_SETFL, O_NONBLOCK);
    }
    ~stderr_pipe() {
        give_back();
        close(ends[0]);
        close(saved);
    }
    void give_back() const { dup2(saved, STDERR_FILENO); }
    // All that has been logged and not been read yet.
    std::string read_all() const {
        std::string out;
        char piece[65536];
        for (const auto begin = steady_clock::now(); steady_clock::now() - begin < long_enough;) {
            const bool written = log_writer_settle({});
            const ssize_t got = read(ends[0], piece, sizeof piece);
            if (got > 0) out.append(piece, static_cast<std::size_t>(got));
            if (got <= 0 && written) break;
        }
        return out;
    }
};

struct Writer : testing::Test {
    std::string folder;
    Writer() {
        char name[] = "/tmp/log_writer_test.XXXXXX";
        folder = mkdtemp(name);
    }
    ~Writer() override {
        log_close();
        std::filesystem::remove_all(folder);
    }
    static void start(const std::string &target) {
        ASSERT_EQ(log_open(target, log_level_warning).text, "");
        log_start_writer();
        ASSERT_TRUE(log_writer_running());
    }
};

TEST_F(Writer, WritesWhatWasLoggedInOrder) {
    const std::string path = folder + "/log";
    start(path);
    for (int i = 0; i < 3000; ++i) log_line(log_level_error, "line %d", i);
    ASSERT_TRUE(log_writer_settle(long_enough));
    const std::string text = contents(path);
    std::size_t at = 0;
    for (int i = 0; i < 3000; ++i) {
        const std::string line = " line " + std::to_string(i) + "\n";
        at = text.find(line, at);
        ASSERT_NE(at, std::string::npos) << line;
    }
}

TEST_F(Writer, PiecesOfALineStayTogether) {
    const stderr_pipe err;
    start("stderr");
    vexprintf(32, 0, 104, 0, "one ");
    vexprintf(32, 0, 104, 0, "line\ntwo");
    log_line(log_level_error, "three");
    ASSERT_TRUE(log_writer_settle(long_enough));
    EXPECT_EQ(err.read_all(), "one line\ntwo\nthree\n");
}

TEST_F(Writer, AReaderThatHangsHoldsNobody) {
    const stderr_pipe err;
    start("stderr");
    const auto begin = steady_clock::now();
    const std::string filling(150, 'x');
    for (int i = 0; i < 4000; ++i) log_line(log_level_error, "trace %d %s", i, filling.c_str());
    EXPECT_LT(steady_clock::now() - begin, std::chrono::seconds(5));
    log_settle();
    const auto again = steady_clock::now();
    for (int i = 0; i < 1000; ++i) log_settle();
    EXPECT_LT(steady_clock::now() - again, std::chrono::seconds(1)) << "nobody waits twice for one that is stuck";
    // The reader comes back: nothing is missing, since all of it found room.
    const std::string text = err.read_all();
    std::size_t at = 0;
    for (int i = 0; i < 4000; ++i) {
        at = text.find("trace " + std::to_string(i) + " ", at);
        ASSERT_NE(at, std::string::npos) << i;
    }
}

TEST_F(Writer, LinesThatFindNoRoomAreCountedAndToldAfterwards) {
    const stderr_pipe err;
    start("stderr");
    const std::string filling(1000, 'x');
    constexpr int many = 3000;
    // First the pipe is filled, then the queue: what is lost then is lost in one row.
    for (int i = 0; i < many; ++i) {
        log_line(log_level_error, "line %d %s", i, filling.c_str());
        if (i == 200) {
            EXPECT_FALSE(log_writer_settle(std::chrono::milliseconds(200)));
        }
    }
    const std::string text = err.read_all();
    int last = 0;
    while (text.find("\nline " + std::to_string(last + 1) + " ") != std::string::npos) ++last;
    EXPECT_GT(last, 900);
    EXPECT_LT(last, many - 1);
    EXPECT_TRUE(text.ends_with(filling + "\n")) << "every line is whole";
    log_line(log_level_error, "after");
    ASSERT_TRUE(log_writer_settle(long_enough));
    EXPECT_EQ(err.read_all(), std::to_string(many - 1 - last) + " lines of the log were lost here\nafter\n");
}

TEST_F(Writer, TheCrashReportHasRoomWhenOrdinaryLinesHaveNone) {
    const stderr_pipe err;
    start("stderr");
    const std::string filling(1000, 'x');
    for (int i = 0; i < 3000; ++i) log_line(log_level_error, "line %d %s", i, filling.c_str());
    vexprintf(32, 0, 0, 0, "RAVO Segmentation Fault!\n");
    EXPECT_THAT(err.read_all(), EndsWith(" lines of the log were lost here\nRAVO Segmentation Fault!\n"));
}

TEST_F(Writer, AFileThatWasMovedAwayIsOpenedAgain) {
    const std::string path = folder + "/log";
    start(path);
    log_line(log_level_error, "one");
    ASSERT_TRUE(log_writer_settle(long_enough));  // a line still queued would go to the new file
    std::filesystem::rename(path, path + ".1");
    EXPECT_EQ(log_reopen().text, "");
    log_line(log_level_error, "two");
    ASSERT_TRUE(log_writer_settle(long_enough));
    EXPECT_THAT(contents(path + ".1"), MatchesRegex("[-0-9]+ [0-9:.]+ one\n"));
    EXPECT_THAT(contents(path), MatchesRegex("[-0-9]+ [0-9:.]+ two\n"));
}

TEST_F(Writer, AFileThatCannotBeWrittenIsToldOnceOnStderr) {
    const stderr_pipe err;
    start("/dev/full");
    log_line(log_level_error, "one");
    ASSERT_TRUE(log_writer_settle(long_enough));
    log_line(log_level_error, "two");
    ASSERT_TRUE(log_writer_settle(long_enough));
    EXPECT_EQ(err.read_all(), "ravod: /dev/full: cannot write the log: No space left on device\n");
}

TEST_F(Writer, AStreamThatSomebodyMadeNonblockingIsWaitedForByTheWriter) {
    const stderr_pipe err;
    fcntl(STDERR_FILENO, F_SETFL, fcntl(STDERR_FILENO, F_GETFL) | O_NONBLOCK);
    start("stderr");
    const std::string filling(1000, 'x');
    for (int i = 0; i < 500; ++i) log_line(log_level_error, "line %d %s", i, filling.c_str());
    const std::string text = err.read_all();
    EXPECT_THAT(text, HasSubstr("\nline 499 "));
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 500);
}

TEST_F(Writer, ClosingWritesTheRest) {
    const std::string path = folder + "/log";
    start(path);
    for (int i = 0; i < 2000; ++i) log_line(log_level_error, "line %d", i);
    log_close();
    EXPECT_FALSE(log_writer_running());
    EXPECT_THAT(contents(path), EndsWith(" line 1999\n"));
}

TEST_F(Writer, ClosingWithAReaderThatHangsTakesASecondAndNoMore) {
    {
        const stderr_pipe err;
        start("stderr");
        for (int i = 0; i < 2000; ++i) log_line(log_level_error, "line %d %s", i, std::string(100, 'x').c_str());
        const auto begin = steady_clock::now();
        log_close();
        const auto took = steady_clock::now() - begin;
        EXPECT_GE(took, std::chrono::milliseconds(900));
        EXPECT_LT(took, std::chrono::seconds(10));
    }  // the reader goes, and the thread that was left behind ends
    EXPECT_EQ(log_open(folder + "/log", log_level_warning).text, "");
    log_line(log_level_error, "again");
    EXPECT_THAT(contents(folder + "/log"), EndsWith(" again\n"));
}

// ---- The process ends ----

// Runs in a child whose log is a file, and returns its wait status.
template <typename function>
int in_child(const std::string &path, function act) {
    const pid_t child = fork();
    if (child == 0) {
        const rlimit no_core{0, 0};
        setrlimit(RLIMIT_CORE, &no_core);
        if (log_open(path, log_level_warning)) _exit(99);
        log_start_writer();
        act();
        _exit(98);
    }
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    return status;
}

TEST_F(Writer, NothingIsLostByAnExit) {
    const std::string path = folder + "/log";
    const int status = in_child(path, [] {
        for (int i = 0; i < 2000; ++i) log_line(log_level_error, "line %d", i);
        std::exit(7);
    });
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 7) << status;
    EXPECT_THAT(contents(path), EndsWith(" line 1999\n"));
}

TEST_F(Writer, NothingIsLostByAnAbort) {
    const std::string path = folder + "/log";
    const int status = in_child(path, [] {
        for (int i = 0; i < 2000; ++i) log_line(log_level_error, "line %d", i);
        vexprintf(32, 0, 0, 0, "user/h/dhcp:1: f: Assertion 'x' failed.\n");
        std::abort();
    });
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT) << status;
    EXPECT_THAT(contents(path), EndsWith(" user/h/dhcp:1: f: Assertion 'x' failed.\n"));
}

// As the init system's watchdog ends a process that hangs.
TEST_F(Writer, AnAbortFromOutsideEndsTheProcessToo) {
    const std::string path = folder + "/log";
    const int status = in_child(path, [] {
        log_line(log_level_error, "last");
        kill(getpid(), SIGABRT);
        for (;;) pause();
    });
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT) << status;
    EXPECT_THAT(contents(path), EndsWith(" last\n"));
}

TEST_F(Writer, ACrashReportIsWrittenWhereverTheCrashWas) {
    const std::string path = folder + "/log";
    const int status = in_child(path, [] {
        signal(SIGSEGV, [](int) {
            vexprintf(32, 0, 0, 0, "RAVO Segmentation Fault!\n");
            std::exit(1);
        });
        log_line(log_level_error, "before");
        raise(SIGSEGV);
    });
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1) << status;
    EXPECT_THAT(contents(path), EndsWith(" RAVO Segmentation Fault!\n"));
}

TEST_F(Writer, AProcessThatWasForkedOffWritesItself) {
    const std::string path = folder + "/log";
    start(path);
    log_line(log_level_start, "parent");
    ASSERT_TRUE(log_writer_settle(long_enough));
    const pid_t child = fork();
    if (child == 0) {
        if (log_writer_running()) _exit(1);
        log_line(log_level_error, "child");
        _exit(0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_THAT(contents(path), EndsWith(" child\n"));
    EXPECT_TRUE(log_writer_running());
}

}  // namespace

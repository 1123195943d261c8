// SPDX-License-Identifier: Apache-2.0
// The log: levels, targets, lines put together from pieces, listeners, the last lines.
#include "log/log.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "log/log_ring.h"
#include "log/log_subject.h"
#include "vex_init.h"

namespace {

using ravo::platform::log_add_listener;
using ravo::platform::log_close;
using ravo::platform::log_event;
using ravo::platform::log_level_error;
using ravo::platform::log_level_of;
using ravo::platform::log_level_trace;
using ravo::platform::log_level_warning;
using ravo::platform::log_line;
using ravo::platform::log_open;
using ravo::platform::log_recent;
using ravo::platform::log_remove_listener;
using ravo::platform::log_reopen;
using ravo::platform::log_ring;
using ravo::platform::log_set_threshold;
using ravo::platform::log_threshold;
using ravo::platform::log_word_of;
using testing::ElementsAre;
using testing::EndsWith;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::SizeIs;

std::string contents(const std::string &path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

// Standard error goes into a file while this lives.
struct captured_stderr {
    std::string path;
    int saved;
    explicit captured_stderr(const std::string &folder) : path(folder + "/stderr"), saved(dup(STDERR_FILENO)) {
        const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND, 0600);
        EXPECT_GE(dup2(fd, STDERR_FILENO), 0);
        close(fd);
    }
    ~captured_stderr() {
        dup2(saved, STDERR_FILENO);
        close(saved);
    }
    std::string text() const { return contents(path); }
};

struct Log : testing::Test {
    std::string folder;
    std::unique_ptr<captured_stderr> err;
    Log() {
        char name[] = "/tmp/log_test.XXXXXX";
        folder = mkdtemp(name);
        err = std::make_unique<captured_stderr>(folder);
        EXPECT_EQ(log_open("stderr", log_level_warning).text, "");
    }
    ~Log() override {
        log_close();
        err.reset();
        std::filesystem::remove_all(folder);
    }
};

int print(int level, const char *text) {
    return vexprintf(32, 0, level, 0, "%s", text);
}

// ---- Levels ----

TEST_F(Log, LinesBelowTheThresholdAreNotPrinted) {
    EXPECT_EQ(print(101, "trace\n"), 0);
    EXPECT_EQ(print(103, "warning\n"), 8);
    EXPECT_EQ(print(104, "failure\n"), 8);
    EXPECT_EQ(err->text(), "warning\nfailure\n");
}

TEST_F(Log, LevelZeroIsAlwaysPrinted) {
    log_set_threshold(log_level_error);
    EXPECT_TRUE(vex_prints(0));
    EXPECT_EQ(print(0, "RAVO Segmentation Fault!\n"), 25);
    EXPECT_EQ(err->text(), "RAVO Segmentation Fault!\n");
}

TEST_F(Log, ThresholdFollowsTheLevelWord) {
    struct {
        const char *word;
        bool trace, warning, failure;
    } const rows[] = {{"error", false, false, true}, {"warning", false, true, true}, {"trace", true, true, true}};
    for (const auto &row : rows) {
        log_set_threshold(log_level_of(row.word));
        EXPECT_EQ(vex_prints(101), row.trace) << row.word;
        EXPECT_EQ(vex_prints(103), row.warning) << row.word;
        EXPECT_EQ(vex_prints(104), row.failure) << row.word;
        EXPECT_EQ(log_word_of(log_threshold()), row.word);
    }
    EXPECT_EQ(log_level_of("loud"), 0);
    EXPECT_EQ(log_level_of(""), 0);
}

TEST_F(Log, AWarningAboutAnOrdinaryMessageIsATrace) {
    static bool ordinary = true;
    ravo::platform::log_set_ordinary([] { return ordinary; });
    EXPECT_EQ(print(103, "warning\n"), 0);
    EXPECT_EQ(print(104, "failure\n"), 8);
    log_set_threshold(log_level_trace);
    EXPECT_EQ(print(103, "trace\n"), 6);
    log_set_threshold(log_level_warning);
    ordinary = false;
    EXPECT_EQ(print(103, "warning\n"), 8);
    ravo::platform::log_set_ordinary(nullptr);
    EXPECT_EQ(print(103, "another\n"), 8);
    EXPECT_EQ(err->text(), "failure\ntrace\nwarning\nanother\n");
}

// ---- Standard error ----

TEST_F(Log, TextStandsOnStderrAsItIs) {
    EXPECT_EQ(vexprintf(32, 0, 104, 0, "%s (%d): %s\n", "fillOptions", 12, "full"), 23);
    EXPECT_EQ(err->text(), "fillOptions (12): full\n");
}

TEST_F(Log, LineWithoutAnEndIsContinued) {
    print(104, "one ");
    EXPECT_EQ(err->text(), "one ");
    print(104, "line\ntwo\n");
    EXPECT_EQ(err->text(), "one line\ntwo\n");
}

TEST_F(Log, OwnLineEndsAnUnfinishedOne) {
    print(104, "unfinished");
    log_line(log_level_error, "own %d", 1);
    print(104, " rest\n");
    EXPECT_EQ(err->text(), "unfinished\nown 1\n rest\n");
    EXPECT_THAT(log_recent(), ElementsAre(EndsWith(" unfinished"), EndsWith(" own 1"), EndsWith("  rest")));
}

TEST_F(Log, TooLongALineIsCutButStillEnds) {
    const std::string text = std::string(10000, 'x') + "\n";
    EXPECT_EQ(print(104, text.c_str()), 10001);
    EXPECT_EQ(err->text(), std::string(4094, 'x') + "\n");
    log_line(log_level_error, "%s", std::string(10000, 'y').c_str());
    EXPECT_EQ(err->text(), std::string(4094, 'x') + "\n" + std::string(2046, 'y') + "\n");
}

// ---- The journal ----

// Names the file that standard error goes to as the journal's stream, as systemd does in a service's environment.
struct journal_stream {
    explicit journal_stream(const std::string &name) { setenv("JOURNAL_STREAM", name.c_str(), 1); }
    ~journal_stream() { unsetenv("JOURNAL_STREAM"); }
};

std::string device_and_inode(const std::string &path, unsigned more = 0) {
    struct stat status {};
    EXPECT_EQ(stat(path.c_str(), &status), 0);
    return std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino + more);
}

TEST_F(Log, LinesOfTheJournalBeginWithTheirSeverity) {
    const journal_stream stream(device_and_inode(err->path));
    EXPECT_EQ(log_open("stderr", log_level_trace).text, "");
    print(0, "start\n");
    print(101, "trace\n");
    print(103, "warning\n");
    print(104, "one ");
    print(104, "failure\ntwo\n");
    log_line(log_level_error, "own %d", 1);
    EXPECT_EQ(err->text(), "<5>start\n<7>trace\n<4>warning\n<3>one failure\n<3>two\n<3>own 1\n");
    EXPECT_THAT(log_recent(), ElementsAre(EndsWith(" start"), EndsWith(" trace"), EndsWith(" warning"),
                                          EndsWith(" one failure"), EndsWith(" two"), EndsWith(" own 1")));
}

TEST_F(Log, AnotherStreamIsNotTheJournal) {
    for (const std::string &name : {device_and_inode(err->path, 1), std::string("1"), std::string()}) {
        const journal_stream stream(name);
        EXPECT_EQ(log_open("stderr", log_level_warning).text, "");
        print(104, "plain\n");
    }
    EXPECT_EQ(err->text(), "plain\nplain\nplain\n");
}

// ---- The log file ----

TEST_F(Log, FileLinesBeginWithTheTime) {
    const std::string path = folder + "/log";
    ASSERT_EQ(log_open(path, log_level_warning).text, "");
    print(104, "one ");
    print(104, "line\ntwo\n");
    EXPECT_THAT(contents(path),
                MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} one line\n"
                             "[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} two\n"));
    EXPECT_EQ(err->text(), "");
}

TEST_F(Log, FileIsAppendedTo) {
    const std::string path = folder + "/log";
    std::ofstream(path) << "before\n";
    ASSERT_EQ(log_open(path, log_level_warning).text, "");
    print(104, "after\n");
    EXPECT_THAT(contents(path), MatchesRegex("before\n[-0-9]+ [0-9:.]+ after\n"));
}

TEST_F(Log, FileThatCannotBeOpenedIsReportedAndNothingChanges) {
    const std::string path = folder + "/none/log";
    EXPECT_EQ(
        log_open(path, log_level_trace).text,
        path +
            ": cannot write the log there: No such file or directory; name a file in an existing, writable folder, "
            "or stderr or syslog");
    EXPECT_EQ(log_threshold(), log_level_warning);
    print(104, "still here\n");
    EXPECT_EQ(err->text(), "still here\n");
}

TEST_F(Log, FileThatCannotBeWrittenIsToldOnceOnStderr) {
    ASSERT_EQ(log_open("/dev/full", log_level_warning).text, "");
    print(104, "one\n");
    print(104, "two\n");
    EXPECT_EQ(err->text(), "ravod: /dev/full: cannot write the log: No space left on device\n");
    EXPECT_THAT(log_recent(), ElementsAre(EndsWith(" one"), EndsWith(" two")));
}

TEST_F(Log, FileThatWasMovedAwayIsOpenedAgain) {
    const std::string path = folder + "/log";
    ASSERT_EQ(log_open(path, log_level_warning).text, "");
    print(104, "one\n");
    std::filesystem::rename(path, path + ".1");
    EXPECT_EQ(log_reopen().text, "");
    print(104, "two\n");
    EXPECT_THAT(contents(path + ".1"), EndsWith(" one\n"));
    EXPECT_THAT(contents(path), EndsWith(" two\n"));
}

// ---- Listeners ----

TEST_F(Log, ListenerGetsWholeLinesOfItsOwnLevel) {
    std::vector<std::string> heard;
    const int id = log_add_listener(log_level_trace, [&](const log_event &event) { heard.emplace_back(event.line); });
    EXPECT_TRUE(vex_prints(101));
    print(101, "half ");
    EXPECT_THAT(heard, IsEmpty());
    print(101, "and half\n\nnext\n");
    EXPECT_THAT(heard, ElementsAre("half and half", "", "next"));
    EXPECT_EQ(err->text(), "") << "the target keeps its own level";
    EXPECT_THAT(log_recent(), IsEmpty());
    log_remove_listener(id);
    EXPECT_FALSE(vex_prints(101));
    print(104, "later\n");
    EXPECT_THAT(heard, SizeIs(3));
}

TEST_F(Log, LineHasTheHighestLevelOfItsPieces) {
    std::vector<std::string> trace;
    std::vector<std::string> errors;
    log_add_listener(log_level_trace, [&](const log_event &event) { trace.emplace_back(event.line); });
    log_add_listener(log_level_error, [&](const log_event &event) { errors.emplace_back(event.line); });
    print(101, "result: ");
    print(104, "failed\n");
    print(101, "fine\n");
    EXPECT_THAT(trace, ElementsAre("result: failed", "fine"));
    EXPECT_THAT(errors, ElementsAre("result: failed"));
}

TEST_F(Log, LineLoggedByAListenerReachesNoListener) {
    int calls = 0;
    log_add_listener(log_level_warning, [&](const log_event & /*event*/) {
        ++calls;
        log_line(log_level_error, "from the listener");
    });
    log_line(log_level_error, "first");
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(err->text(), "first\nfrom the listener\n");
}

TEST_F(Log, ListenersMayComeAndGoWhileTheyRun) {
    std::vector<std::string> heard;
    int second = 0;
    int first = 0;
    first = log_add_listener(log_level_warning, [&](const log_event &event) {
        heard.push_back("first " + std::string(event.line));
        log_remove_listener(first);
        log_remove_listener(second);
        log_add_listener(log_level_trace,
                         [&](const log_event &later) { heard.push_back("third " + std::string(later.line)); });
    });
    second = log_add_listener(log_level_warning,
                              [&](const log_event &event) { heard.push_back("second " + std::string(event.line)); });
    log_line(log_level_error, "a");
    heard.clear();
    log_line(log_level_error, "b");
    EXPECT_THAT(heard, ElementsAre("third b"));
    EXPECT_TRUE(vex_prints(101));
}

// ---- The last lines ----

TEST_F(Log, RecentLinesHaveTheirTime) {
    print(104, "text\n");
    EXPECT_THAT(log_recent(),
                ElementsAre(MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} text")));
}

TEST_F(Log, LastThousandLinesAreKept) {
    for (int i = 0; i < 1500; ++i) log_line(log_level_error, "line %d", i);
    const std::vector<std::string> lines = log_recent();
    ASSERT_THAT(lines, SizeIs(1000));
    for (int i = 0; i < 1000; ++i)
        EXPECT_THAT(lines[static_cast<std::size_t>(i)], EndsWith(" line " + std::to_string(500 + i)));
}

TEST_F(Log, LongLinesMakeRoomFromTheOldestAndStayWhole) {
    // Three times the ring's bytes, in lines of every length, some of them empty.
    std::vector<std::string> sent;
    std::size_t bytes = 0;
    for (std::size_t i = 0; bytes < 3 * log_ring::text_room; ++i) {
        sent.push_back(i % 7 == 0 ? "" : std::string(i * 37 % 2000, static_cast<char>('a' + i % 26)));
        bytes += sent.back().size();
        log_line(log_level_error, "%s", sent.back().c_str());
    }
    std::vector<std::string> kept;
    for (const std::string &line : log_recent()) kept.push_back(line.substr(24));
    ASSERT_GT(kept.size(), 100U);
    ASSERT_LE(kept.size(), sent.size());
    const std::vector<std::string> newest(sent.end() - static_cast<std::ptrdiff_t>(kept.size()), sent.end());
    EXPECT_EQ(kept, newest);
    std::size_t kept_bytes = 0;
    for (const std::string &line : kept) kept_bytes += line.size();
    EXPECT_GT(kept_bytes, log_ring::text_room - 4096) << "more was forgotten than had to be";
}

TEST_F(Log, EmptyLinesTakeTheirPlaceToo) {
    for (int i = 0; i < 1200; ++i) log_line(log_level_error, "%s", i < 1100 ? "" : "x");
    const std::vector<std::string> lines = log_recent();
    ASSERT_THAT(lines, SizeIs(1000));
    EXPECT_EQ(lines.front().substr(24), "");
    EXPECT_EQ(lines.back().substr(24), "x");
}

// ---- The crash report ----

TEST_F(Log, LinePrintedInASignalHandlerIsWholeWhenTheProcessEnds) {
    const pid_t child = fork();
    if (child == 0) {
        signal(SIGSEGV, [](int) {
            vexprintf(32, 0, 0, 0, "RAVO Segmentation Fault!\n");
            vexprintf(32, 0, 0, 0, "no end");
            _exit(1);
        });
        raise(SIGSEGV);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(WEXITSTATUS(status), 1);
    EXPECT_EQ(err->text(), "RAVO Segmentation Fault!\nno end");
}

}  // namespace

// Lines for a log daemon, which here is the test: what a record holds, and what becomes of lines when nobody takes
// them.
#include "log/log_syslog.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace {

using ravo::platform::syslog_close;
using ravo::platform::syslog_open;
using ravo::platform::syslog_send;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;

constexpr int error = 3;
constexpr int warning = 4;

struct Syslog : testing::Test {
    std::string folder;
    std::string path;
    int fd = -1;
    Syslog() {
        char name[] = "/tmp/log_syslog_test.XXXXXX";
        folder = mkdtemp(name);
        path = folder + "/log";
    }
    ~Syslog() override {
        syslog_close();
        stop();
        std::filesystem::remove_all(folder);
    }

    void listen() {
        sockaddr_un here{};
        here.sun_family = AF_UNIX;
        std::strcpy(here.sun_path, path.c_str());
        fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        ASSERT_EQ(bind(fd, reinterpret_cast<const sockaddr *>(&here), sizeof here), 0);
    }
    void stop() {
        if (fd >= 0) close(fd);
        fd = -1;
        unlink(path.c_str());
    }

    std::optional<std::string> record() const {
        std::array<char, 65536> room;
        const ssize_t length = recv(fd, room.data(), room.size(), 0);
        if (length < 0) return std::nullopt;
        return std::string(room.data(), static_cast<std::size_t>(length));
    }
    // What stands behind "ravod[N]: " in all records that wait.
    std::vector<std::string> texts() const {
        std::vector<std::string> result;
        const std::string mark = "ravod[" + std::to_string(getpid()) + "]: ";
        while (const auto found = record()) {
            const std::size_t at = found->find(mark);
            result.push_back(at == std::string::npos ? "no mark: " + *found : found->substr(at + mark.size()));
        }
        return result;
    }
};

TEST_F(Syslog, ARecordHasPriorityTimeProgramAndText) {
    listen();
    syslog_open(path.c_str());
    syslog_send(error, "cannot do it: 100%");
    const auto found = record();
    ASSERT_TRUE(found);
    EXPECT_THAT(*found, MatchesRegex("<27>[A-Z][a-z][a-z] [ 123][0-9] [0-9][0-9]:[0-9][0-9]:[0-9][0-9] ravod\\[" +
                                     std::to_string(getpid()) + "\\]: cannot do it: 100%"));
    EXPECT_FALSE(record());
}

TEST_F(Syslog, TheSeverityIsInThePriority) {
    listen();
    syslog_open(path.c_str());
    for (int severity = 0; severity < 8; ++severity) {
        syslog_send(severity, "x");
        EXPECT_EQ(record().value_or("").substr(0, 4), "<" + std::to_string(24 + severity) + ">");
    }
}

TEST_F(Syslog, ControlCharactersBecomeQuestionMarks) {
    listen();
    syslog_open(path.c_str());
    std::string every;
    std::string expected;
    for (int c = 0; c < 256; ++c) {
        every += static_cast<char>(c);
        expected += (c < 32 && c != '\t') || c == 127 ? '?' : static_cast<char>(c);
    }
    syslog_send(error, every);
    EXPECT_THAT(texts(), ElementsAre(expected));
}

TEST_F(Syslog, ALongLineIsCut) {
    listen();
    syslog_open(path.c_str());
    syslog_send(error, std::string(4096, 'x'));
    syslog_send(error, std::string(100000, 'y'));
    EXPECT_THAT(texts(), ElementsAre(std::string(4096, 'x'), std::string(4096, 'y')));
}

TEST_F(Syslog, WithoutALogDaemonTheFirstLostLineIsTold) {
    testing::internal::CaptureStderr();
    syslog_open(path.c_str());
    syslog_send(error, "one");
    syslog_send(error, "two");
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "ravod: " + path + ": the log is lost: No such file or directory; is a log daemon running?\n");
    listen();
    syslog_send(error, "three");
    EXPECT_THAT(texts(), ElementsAre("2 lines of the log were lost here", "three"));
}

TEST_F(Syslog, ALogDaemonThatStartsAgainIsFoundAgain) {
    listen();
    syslog_open(path.c_str());
    syslog_send(error, "one");
    stop();
    listen();
    syslog_send(error, "two");
    EXPECT_THAT(texts(), ElementsAre("two"));
    stop();
    testing::internal::CaptureStderr();
    syslog_send(error, "three");
    EXPECT_NE(testing::internal::GetCapturedStderr(), "");
    listen();
    syslog_send(error, "four");
    EXPECT_THAT(texts(), ElementsAre("1 lines of the log were lost here", "four"));
}

TEST_F(Syslog, AFullQueueIsNotWaitedFor) {
    listen();
    syslog_open(path.c_str());
    testing::internal::CaptureStderr();
    constexpr std::size_t many = 5000;  // more than any queue of datagrams holds
    for (std::size_t i = 0; i < many; ++i) syslog_send(warning, "line " + std::to_string(i));
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "ravod: " + path + ": the log is lost: Resource temporarily unavailable; is a log daemon running?\n");
    const std::size_t taken = texts().size();
    EXPECT_GT(taken, 0U);
    syslog_send(warning, "last");
    EXPECT_THAT(texts(), ElementsAre(std::to_string(many - taken) + " lines of the log were lost here", "last"));
    syslog_send(warning, "more");
    EXPECT_THAT(texts(), ElementsAre("more"));
}

}  // namespace

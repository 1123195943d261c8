// SPDX-License-Identifier: Apache-2.0
// Lines for the system's log daemon, which here is the test: what a record holds, and what becomes of lines when nobody
// takes them.
#include "log/log_syslog.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace {

using ravo::platform::datagram_close;
using ravo::platform::datagram_open;
using ravo::platform::datagram_send;
using ravo::platform::log_datagram;
using ravo::platform::syslog_format;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;

constexpr int error = 3;
constexpr int warning = 4;

struct Syslog : testing::Test {
    std::string folder;
    std::string path;
    int fd = -1;
    log_datagram target;
    Syslog() {
        char name[] = "/tmp/log_syslog_test.XXXXXX";
        folder = mkdtemp(name);
        path = folder + "/log";
    }
    ~Syslog() override {
        datagram_close(target);
        stop();
        std::filesystem::remove_all(folder);
    }

    void open() { (void)datagram_open(target, syslog_format, path.c_str()); }
    void send_line(int severity, const std::string &line) { datagram_send(target, {severity, line, {}}); }

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
    open();
    send_line(error, "cannot do it: 100%");
    const auto found = record();
    ASSERT_TRUE(found);
    EXPECT_THAT(*found, MatchesRegex("<27>[A-Z][a-z][a-z] [ 123][0-9] [0-9][0-9]:[0-9][0-9]:[0-9][0-9] ravod\\[" +
                                     std::to_string(getpid()) + "\\]: cannot do it: 100%"));
    EXPECT_FALSE(record());
}

TEST_F(Syslog, TheSeverityIsInThePriority) {
    listen();
    open();
    for (int severity = 0; severity < 8; ++severity) {
        send_line(severity, "x");
        EXPECT_EQ(record().value_or("").substr(0, 4), "<" + std::to_string(24 + severity) + ">");
    }
}

TEST_F(Syslog, ControlCharactersBecomeQuestionMarks) {
    listen();
    open();
    std::string every;
    std::string expected;
    for (int c = 0; c < 256; ++c) {
        every += static_cast<char>(c);
        expected += (c < 32 && c != '\t') || c == 127 ? '?' : static_cast<char>(c);
    }
    send_line(error, every);
    EXPECT_THAT(texts(), ElementsAre(expected));
}

TEST_F(Syslog, ALongLineIsCut) {
    listen();
    open();
    send_line(error, std::string(4096, 'x'));
    send_line(error, std::string(100000, 'y'));
    EXPECT_THAT(texts(), ElementsAre(std::string(4096, 'x'), std::string(4096, 'y')));
}

TEST_F(Syslog, WithoutALogDaemonTheFirstLostLineIsTold) {
    testing::internal::CaptureStderr();
    open();
    send_line(error, "one");
    send_line(error, "two");
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "ravod: " + path + ": the log is lost: No such file or directory; is a log daemon running?\n");
    listen();
    send_line(error, "three");
    EXPECT_THAT(texts(), ElementsAre("2 lines of the log were lost here", "three"));
}

TEST_F(Syslog, ALogDaemonThatStartsAgainIsFoundAgain) {
    listen();
    open();
    send_line(error, "one");
    stop();
    listen();
    send_line(error, "two");
    EXPECT_THAT(texts(), ElementsAre("two"));
    stop();
    testing::internal::CaptureStderr();
    send_line(error, "three");
    EXPECT_NE(testing::internal::GetCapturedStderr(), "");
    listen();
    send_line(error, "four");
    EXPECT_THAT(texts(), ElementsAre("1 lines of the log were lost here", "four"));
}

TEST_F(Syslog, AFullQueueIsNotWaitedFor) {
    listen();
    open();
    testing::internal::CaptureStderr();
    constexpr std::size_t many = 5000;  // more than any queue of datagrams holds
    for (std::size_t i = 0; i < many; ++i) send_line(warning, "line " + std::to_string(i));
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "ravod: " + path + ": the log is lost: Resource temporarily unavailable; is a log daemon running?\n");
    const std::size_t taken = texts().size();
    EXPECT_GT(taken, 0U);
    send_line(warning, "last");
    EXPECT_THAT(texts(), ElementsAre(std::to_string(many - taken) + " lines of the log were lost here", "last"));
    send_line(warning, "more");
    EXPECT_THAT(texts(), ElementsAre("more"));
}

TEST_F(Syslog, AFullQueueIsWaitedForWhereThereIsTime) {
    listen();
    open();
    for (int i = 0; i < 5000; ++i) (void)::send(target.fd, "x", 1, MSG_DONTWAIT);
    std::thread reader([this] {
        pollfd full{target.fd, POLLOUT, 0};
        EXPECT_EQ(poll(&full, 1, 0), 0) << "the queue is to be full";
        (void)record();
    });
    testing::internal::CaptureStderr();
    datagram_send(target, {warning, "waited", {}}, [](const void *) { return true; });
    reader.join();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_THAT(texts().back(), "waited");
}

}  // namespace

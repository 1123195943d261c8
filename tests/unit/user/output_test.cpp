// SPDX-License-Identifier: Apache-2.0
// Diagnostic output to a message file: exact text, silence without a file.
#include "output.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "dhcp.h"
#include "fake_platform.h"

namespace {

const int msg_fd_at_start = msg_fd;

// The time of day, as the code under test is told it.
timeval clock_time = {1700000000, 42};

}  // namespace

// Stands before the system's own.
extern "C" int gettimeofday(struct timeval *time, void *) noexcept {
    *time = clock_time;
    return 0;
}

namespace {

// A message file that the test reads back: msg_fd points at a temporary file.
class Output : public testing::Test {
  protected:
    void SetUp() override {
        fake::reset();
        clock_time = {1700000000, 42};
        char name[] = "output_test_XXXXXX";
        fd = mkstemp(name);
        ASSERT_GE(fd, 0);
        path = name;
        msg_fd = fd;
    }
    void TearDown() override {
        msg_fd = -1;
        close(fd);
        unlink(path.c_str());
    }

    // What was written since the last look.
    std::string written() {
        std::string text(static_cast<std::size_t>(lseek(fd, 0, SEEK_END)), '\0');
        EXPECT_EQ(pread(fd, text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
        EXPECT_EQ(ftruncate(fd, 0), 0);
        lseek(fd, 0, SEEK_SET);
        return text;
    }

    int fd = -1;
    std::string path;
};

const std::string time_text = "1700000000..000042";

sockaddr_in peer(const char *address) {
    sockaddr_in result{};
    result.sin_family = AF_INET;
    result.sin_addr.s_addr = fake::address(address);
    return result;
}

const sockaddr *as_sockaddr(const sockaddr_in &address) {
    return reinterpret_cast<const sockaddr *>(&address);
}

ravo_pktinfo info() {
    return {1124, fake::address("192.0.2.1"), fake::address("255.255.255.255")};
}

// ---- Without a message file ----

TEST_F(Output, ThereIsNoMessageFileAtFirst) {
    EXPECT_EQ(msg_fd_at_start, -1);
}

// A write that was tried would leave its error behind.
TEST_F(Output, WithoutAFileNothingIsTried) {
    msg_fd = -1;
    errno = 0;
    writeMsgTimestamp();
    EXPECT_EQ(errno, 0);
    writeMsgUInt(1);
    EXPECT_EQ(errno, 0);
    writeMsgRaw("text", 4);
    EXPECT_EQ(errno, 0);
    writeMsgLine("text", 4);
    EXPECT_EQ(errno, 0);
}

// ---- Numbers and raw text ----

TEST_F(Output, NumbersAreDecimalWithoutPadding) {
    for (const std::uint32_t value : {0U, 1U, 9U, 10U, 99U, 1000U, 123456U, 4294967295U}) {
        writeUInt(fd, value);
        EXPECT_EQ(written(), std::to_string(value));
        writeMsgUInt(value);
        EXPECT_EQ(written(), std::to_string(value));
    }
}

TEST_F(Output, RawTextIsWrittenAsItIs) {
    writeMsgRaw("abc\ndef", 5);
    EXPECT_EQ(written(), "abc\nd");
    writeMsgRaw("abc", 0);
    EXPECT_EQ(written(), "");
}

TEST_F(Output, LineHasATimeAndAnEnd) {
    writeMsgLine("hello world", 5);
    EXPECT_EQ(written(), time_text + ": hello\n");
}

// ---- Time ----

TEST_F(Output, TimeHasTwoDotsAndSixDigits) {
    const std::vector<std::pair<long, std::string>> rows = {
        {0, "1000..000000"},      {1, "1000..000001"},     {5, "1000..000005"},     {8, "1000..000008"},
        {9, "1000..000009"},      {10, "1000..000010"},    {98, "1000..000098"},    {99, "1000..000099"},
        {100, "1000..000100"},    {998, "1000..000998"},   {1000, "1000..001000"},  {9998, "1000..009998"},
        {10000, "1000..010000"},  {99998, "1000..099998"}, {99999, "1000..099999"}, {100000, "1000..100000"},
        {123456, "1000..123456"}, {999999, "1000..999999"}};
    for (const auto &[microseconds, text] : rows) {
        clock_time = {1000, microseconds};
        writeMsgTimestamp();
        EXPECT_EQ(written(), text);
    }
}

TEST_F(Output, SecondsAreWrittenWhole) {
    clock_time = {static_cast<time_t>(4294967295U), 7};
    writeMsgTimestamp();
    EXPECT_EQ(written(), "4294967295..000007");
}

// ---- Silence ----

TEST_F(Output, WithoutAMessageFileEveryWriterIsSilent) {
    msg_fd = -1;
    testing::internal::CaptureStderr();
    testing::internal::CaptureStdout();
    writeMsgTimestamp();
    writeMsgUInt(5);
    writeMsgRaw("abc", 3);
    writeMsgLine("abc", 3);
    char buffer[4];
    char *cursor = buffer;
    std::size_t room = sizeof buffer;
    appendFormat(&cursor, &room, "%s", "too long for it");
    const sockaddr_in from = peer("192.0.2.9");
    const ravo_pktinfo where = info();
    const message_buffer message;
    tracePacket(message.data(), 244, &where, as_sockaddr(from));
    tracePacket(message.data(), -1, &where, as_sockaddr(from));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(written(), "");
}

// ---- openMsgfile ----

TEST_F(Output, NoFileNameMeansStandardError) {
    for (const char *name : {static_cast<const char *>(nullptr), ""}) {
        msg_fd = -1;
        openMsgfile(name);
        EXPECT_EQ(msg_fd, 2);
        testing::internal::CaptureStderr();
        writeMsgRaw("to the error output", 19);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "to the error output");
    }
}

TEST_F(Output, DevNullTurnsOutputOff) {
    openMsgfile("/dev/null");
    EXPECT_EQ(msg_fd, -1);
    testing::internal::CaptureStderr();
    writeMsgRaw("abc", 3);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

std::string content(const std::string &name) {
    std::ifstream file(name);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

// Runs in a child, as standard error becomes the file.
void write_to_file(const std::string &name) {
    // The file gets the next free descriptor; the platform, which is asked to close it, must know it.
    const int next = open("/dev/null", O_RDONLY);
    close(next);
    fake::sockets[next] = {};
    openMsgfile(name.c_str());
    if (msg_fd != 2) std::_Exit(2);
    if (fake::socket_calls != std::vector<std::string>{"close(" + std::to_string(next) + ") = 0"}) std::_Exit(3);
    writeMsgRaw("one\n", 4);
    if (write(2, "two\n", 4) != 4) std::_Exit(4);
    std::_Exit(0);
}

TEST_F(Output, FileBecomesStandardErrorAndIsAppendedTo) {
    const std::string name = path + "_file";
    std::ofstream(name) << "before\n";
    EXPECT_EXIT(write_to_file(name), testing::ExitedWithCode(0), "");
    EXPECT_EQ(content(name), "before\none\ntwo\n");
    unlink(name.c_str());
}

TEST_F(Output, NewFileIsReadableByItsOwnerOnly) {
    const std::string name = path + "_new";
    EXPECT_EXIT(write_to_file(name), testing::ExitedWithCode(0), "");
    struct stat status {};
    ASSERT_EQ(stat(name.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0400U);
    EXPECT_EQ(content(name), "one\ntwo\n");
    unlink(name.c_str());
}

TEST_F(Output, FileThatCannotBeOpenedEndsTheProcess) {
    EXPECT_EXIT(openMsgfile("/nowhere/at/all"), testing::ExitedWithCode(1),
                "^open\\(\\): No such file or directory\n$");
}

// ---- Addresses ----

TEST_F(Output, AddressesAsText) {
    char buffer[64];
    const std::uint32_t four = fake::address("192.0.2.33");
    EXPECT_EQ(addressText(AF_INET, &four, buffer, sizeof buffer), buffer);
    EXPECT_STREQ(buffer, "192.0.2.33");
    in6_addr six{};
    inet_pton(AF_INET6, "2001:db8::1", &six);
    EXPECT_STREQ(addressText(AF_INET6, &six, buffer, sizeof buffer), "2001:db8::1");
    EXPECT_STREQ(addressText(77, &six, buffer, sizeof buffer), "< ???? >");
    EXPECT_STREQ(addressText(AF_INET, &four, buffer, 9), "< ???? >") << "no room for the address";
    EXPECT_STREQ(addressText(AF_INET, &four, buffer, 4), "< ?") << "no room for that either";
    EXPECT_STREQ(addressText(AF_INET, &four, buffer, 1), "");
    buffer[0] = 'x';
    EXPECT_EQ(addressText(AF_INET, &four, buffer, 0), buffer);
    EXPECT_EQ(buffer[0], 'x') << "without room nothing is written";
}

// ---- Bounded appends ----

struct bounded {
    char buffer[16] = {};
    char *cursor = buffer;
    std::size_t room = 0;
};

TEST_F(Output, FormatAdvancesTheCursorAndShrinksTheRoom) {
    bounded to;
    to.room = 10;
    appendFormat(&to.cursor, &to.room, "%d-%s", 42, "ab");
    EXPECT_STREQ(to.buffer, "42-ab");
    EXPECT_EQ(to.cursor, to.buffer + 5);
    EXPECT_EQ(to.room, 5U);
    appendFormat(&to.cursor, &to.room, "%s", "");
    appendFormat(&to.cursor, &to.room, "%s", "cd");
    EXPECT_STREQ(to.buffer, "42-abcd");
    EXPECT_EQ(to.room, 3U);
    EXPECT_EQ(written(), "");
}

// deliberate: the last character is cut off, and yet it counts as success.
TEST_F(Output, FormatThatNeedsExactlyTheRoomSucceeds) {
    bounded to;
    to.room = 5;
    appendFormat(&to.cursor, &to.room, "%s", "abcde");
    EXPECT_EQ(to.room, 0U);
    EXPECT_EQ(to.cursor, to.buffer + 5);
    EXPECT_STREQ(to.buffer, "abcd");
    EXPECT_EQ(written(), "");
}

TEST_F(Output, FormatThatDoesNotFitIsReported) {
    bounded to;
    to.room = 5;
    appendFormat(&to.cursor, &to.room, "%s|%d", "abcd", 1);
    EXPECT_EQ(to.room, 5U);
    EXPECT_EQ(to.cursor, to.buffer);
    EXPECT_EQ(written(),
              "\n\nBuffer not large enough for snprintf(\"%s|%d\");\nthere are 5 chars available but 6 required\n\n");
}

TEST_F(Output, AppendOnlyWhatFits) {
    char buffer[16] = "ab";
    std::size_t room = 5;
    appendText(buffer, "cde", &room);
    EXPECT_STREQ(buffer, "abcde");
    EXPECT_EQ(room, 2U);
    appendText(buffer, "fg", &room);
    EXPECT_STREQ(buffer, "abcde") << "the room must exceed the text";
    EXPECT_EQ(room, 2U);
    appendText(buffer, "f", &room);
    EXPECT_STREQ(buffer, "abcdef");
    EXPECT_EQ(room, 1U);
    appendText(buffer, "", &room);
    EXPECT_EQ(room, 1U);
    appendText(buffer, "g", &room);
    EXPECT_STREQ(buffer, "abcdef");
}

// ---- Packet trace ----

message_buffer packet_of(std::uint8_t op) {
    message_buffer message;
    message.bytes[0] = op;
    const std::uint32_t xid = 0xA1B2C3D4;
    const std::uint32_t ciaddr = fake::address("10.0.0.1");
    const std::uint32_t yiaddr = fake::address("10.0.0.2");
    std::memcpy(message.bytes + 4, &xid, 4);
    std::memcpy(message.bytes + 12, &ciaddr, 4);
    std::memcpy(message.bytes + 16, &yiaddr, 4);
    return message;
}

// The trace line behind its time.
std::string behind_time(const std::string &text) {
    const std::string head = time_text + ": ";
    if (text.rfind(head, 0) != 0) return "no time: " + text;
    return text.substr(head.size());
}

struct traced {
    std::uint8_t op;
    ssize_t length;
    std::string line;
};

TEST_F(Output, PacketTraceOfEachOperation) {
    const std::string head = "from 192.0.2.9 (1124, 255.255.255.255, 192.0.2.1)): ";
    const std::vector<traced> rows = {
        {1, 300, head + "a1b2c3d4 BOOTREQUEST from 10.0.0.1\n"},
        {2, 300, head + "a1b2c3d4 BOOTREPLY to 10.0.0.2\n"},
        {0, 300, head + "a1b2c3d4 <UNKNOWN> (0), \n"},
        {200, 300, head + "a1b2c3d4 <UNKNOWN> (200), \n"},
        {1, 236, head + "a1b2c3d4 BOOTREQUEST from 10.0.0.1\n"},
        {1, 235, head + "Broken package with len 235\n"},
        {1, 0, head + "Broken package with len 0\n"},
    };
    const sockaddr_in from = peer("192.0.2.9");
    const ravo_pktinfo where = info();
    for (const traced &row : rows) {
        const message_buffer message = packet_of(row.op);
        tracePacket(message.data(), row.length, &where, as_sockaddr(from));
        EXPECT_EQ(behind_time(written()), row.line) << row.length;
    }
}

TEST_F(Output, PacketTraceOfAFailedReceiveTellsTheReason) {
    const sockaddr_in from = peer("192.0.2.9");
    const ravo_pktinfo where = info();
    const message_buffer message = packet_of(1);
    errno = ECONNREFUSED;
    tracePacket(message.data(), -1, &where, as_sockaddr(from));
    EXPECT_EQ(errno, ECONNREFUSED);
    EXPECT_EQ(behind_time(written()), "Connection refused\n");
}

TEST_F(Output, PacketTraceLeavesTheErrorNumber) {
    const sockaddr_in from = peer("192.0.2.9");
    const ravo_pktinfo where = info();
    const message_buffer message = packet_of(1);
    msg_fd = 9999;  // every write fails
    errno = EINTR;
    tracePacket(message.data(), 300, &where, as_sockaddr(from));
    EXPECT_EQ(errno, EINTR);
    msg_fd = fd;
}

TEST_F(Output, PacketTraceOfOtherPeers) {
    const ravo_pktinfo where = info();
    const message_buffer message = packet_of(1);
    sockaddr_storage room{};
    sockaddr_in6 six{};
    six.sin6_family = AF_INET6;
    inet_pton(AF_INET6, "2001:db8::1", &six.sin6_addr);
    std::memcpy(&room, &six, sizeof six);
    tracePacket(message.data(), 300, &where, reinterpret_cast<const sockaddr *>(&room));
    EXPECT_EQ(behind_time(written()),
              "from 2001:db8::1 (1124, 255.255.255.255, 192.0.2.1)): a1b2c3d4 BOOTREQUEST from 10.0.0.1\n");
    room.ss_family = 99;
    tracePacket(message.data(), 300, &where, reinterpret_cast<const sockaddr *>(&room));
    EXPECT_EQ(behind_time(written()),
              "from < ???? > (1124, 255.255.255.255, 192.0.2.1)): a1b2c3d4 BOOTREQUEST from 10.0.0.1\n");
}
}  // namespace

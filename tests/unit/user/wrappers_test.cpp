// SPDX-License-Identifier: Apache-2.0
// Checked system calls: what they call, and the label with which a failure ends the process.
#include "wrappers.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <map>
#include <string>
#include <vector>

#include "fake_platform.h"
#include "packet_bytes.h"

namespace {

using packet::bytes;

class Wrappers : public testing::Test {
  protected:
    void SetUp() override { fake::reset(); }
    void TearDown() override {
        for (const auto &[fd, socket] : std::map<int, fake::open_socket>(fake::sockets)) fake::drop_socket(fd);
        EXPECT_EQ(fake::leftovers(), std::vector<std::string>{});
    }
};

sockaddr_in any(std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    return address;
}

const testing::ExitedWithCode status1(1);

// ---- Calls that succeed ----

TEST_F(Wrappers, SocketBindOptionAndCloseMakeTheirCalls) {
    const int fd = Wsocket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
    const int on = 1;
    Wsetsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    const sockaddr_in address = any(68);
    Wbind(fd, reinterpret_cast<const sockaddr *>(&address));
    Wclose(fd);
    const std::vector<std::string> expected = {"socket(2, 2, 17) = 100", "setsockopt(100, 1, 2, 1) = 0",
                                               "bind(100, 0.0.0.0:68) = 0", "close(100) = 0"};
    EXPECT_EQ(fake::socket_calls, expected);
}

// ---- Labels ----

TEST_F(Wrappers, SocketFailureEndsTheProcess) {
    fake::script(fake::op::socket, {.error = EMFILE});
    EXPECT_EXIT((void)Wsocket(AF_INET, SOCK_DGRAM, IPPROTO_UDP), status1, "^socket\\(\\): Too many open files\n$");
}

TEST_F(Wrappers, BindFailureEndsTheProcess) {
    fake::script(fake::op::bind, {.error = EADDRINUSE});
    const sockaddr_in address = any(68);
    EXPECT_EXIT(Wbind(100, reinterpret_cast<const sockaddr *>(&address)), status1,
                "^bind\\(\\): Address already in use\n$");
}

TEST_F(Wrappers, SetsockoptFailureEndsTheProcess) {
    fake::script(fake::op::setsockopt, {.error = ENOPROTOOPT});
    const int on = 1;
    EXPECT_EXIT(Wsetsockopt(100, 0, 8, &on, sizeof on), status1, "^setsockopt\\(\\): Protocol not available\n$");
}

TEST_F(Wrappers, CloseFailureEndsTheProcess) {
    fake::script(fake::op::close, {.error = EIO});
    EXPECT_EXIT(Wclose(100), status1, "^close\\(\\): Input/output error\n$");
}

TEST_F(Wrappers, OpenFailureEndsTheProcess) {
    EXPECT_EXIT((void)Wopen("/nowhere/at/all", O_RDONLY, 0), status1, "^open\\(\\): No such file or directory\n$");
}

TEST_F(Wrappers, Dup2FailureEndsTheProcess) {
    EXPECT_EXIT((void)Wdup2(-1, 5), status1, "^dup2\\(\\): Bad file descriptor\n$");
}

TEST_F(Wrappers, FatalDoesNothingWhenTheConditionIsFalse) {
    testing::internal::CaptureStderr();
    Wfatal(false, 1, "label");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(Wrappers, FatalEndsWithTheGivenStatusAndLabel) {
    errno = ENOMEM;
    EXPECT_EXIT((errno = ENOMEM, Wfatal(true, 3, "some()")), testing::ExitedWithCode(3),
                "^some\\(\\): Cannot allocate memory\n$");
}

TEST_F(Wrappers, OpenAndDup2ReturnDescriptors) {
    const int fd = Wopen("/dev/null", O_WRONLY, 0);
    ASSERT_GE(fd, 3);
    EXPECT_EQ(Wdup2(fd, fd), fd);
    close(fd);
}

// ---- Receiving ----

struct received {
    ssize_t count;
    bytes data;
    int flags;
    socklen_t from_length;
    ravo_pktinfo info;
};

received receive(fake::udp_message message, bool with_info = true, std::size_t room = 64) {
    const int fd = osal_socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
    fake::put_udp(std::move(message));
    received result{};
    result.info = {-1, 0xFFFFFFFF, 0xFFFFFFFF};
    result.from_length = 16;
    sockaddr_in from{};
    bytes buffer(room);
    result.count = recvfrom_flags(fd, buffer.data(), buffer.size(), &result.flags, reinterpret_cast<sockaddr *>(&from),
                                  &result.from_length, with_info ? &result.info : nullptr);
    if (result.count > 0) buffer.resize(static_cast<std::size_t>(result.count));
    result.data = buffer;
    return result;
}

std::array<std::uint32_t, 3> words(const ravo_pktinfo &info) {
    return {static_cast<std::uint32_t>(info.ipi_ifindex), info.ipi_spec_dst, info.ipi_addr};
}

using three = std::array<std::uint32_t, 3>;

TEST_F(Wrappers, PacketInformationIsCopiedAsItIs) {
    const received got = receive({.payload = {1, 2, 3}, .controls = {fake::pktinfo_control(1124, 5185, 0x01020304)}});
    EXPECT_EQ(got.count, 3);
    EXPECT_BYTES((bytes{1, 2, 3}), got.data);
    EXPECT_EQ(got.from_length, 16U);
    EXPECT_EQ(words(got.info), (three{1124, 5185, 0x01020304}));
}

TEST_F(Wrappers, AnEmptyDatagramHasItsPacketInformationToo) {
    const received got = receive({.payload = {}, .controls = {fake::pktinfo_control(1124, 5185, 0x01020304)}});
    EXPECT_EQ(got.count, 0);
    EXPECT_EQ(words(got.info), (three{1124, 5185, 0x01020304}));
}

TEST_F(Wrappers, ADatagramIsTakenIntoTheOneBufferGiven) {
    const received got = receive({.payload = bytes(100, 7)}, /*with_info=*/true, /*room=*/64);
    EXPECT_EQ(fake::udp_parts, 1U);
    EXPECT_EQ(fake::udp_flags, 0);
    EXPECT_BYTES(bytes(64, 7), packet::part_of(got.data, 0, 64));
}

TEST_F(Wrappers, PacketInformationIsZeroWithoutControlData) {
    const received got = receive({.payload = {1}});
    EXPECT_EQ(got.count, 1);
    EXPECT_EQ(words(got.info), (three{0, 0, 0}));
}

TEST_F(Wrappers, TruncatedControlDataIsNotRead) {
    const received got =
        receive({.payload = {1}, .controls = {fake::pktinfo_control(1124, 5185, 1)}, .flags = MSG_CTRUNC});
    EXPECT_EQ(got.count, 1);
    EXPECT_EQ(got.flags, MSG_CTRUNC);
    EXPECT_EQ(words(got.info), (three{0, 0, 0}));
}

TEST_F(Wrappers, OtherControlMessagesAreSkipped) {
    fake::control other = fake::pktinfo_control(1, 2, 3);
    other.type = IP_TTL;
    other.data.resize(4);
    const received got = receive({.payload = {1}, .controls = {other}});
    EXPECT_EQ(words(got.info), (three{0, 0, 0}));
    fake::control level = fake::pktinfo_control(1, 2, 3);
    level.level = SOL_SOCKET;
    EXPECT_EQ(words(receive({.payload = {1}, .controls = {level}}).info), (three{0, 0, 0}));
}

TEST_F(Wrappers, PacketInformationThatIsCutShortIsNotRead) {
    fake::control shorter = fake::pktinfo_control(1, 2, 3);
    shorter.data.resize(8);
    EXPECT_EQ(words(receive({.payload = {1}, .controls = {shorter}}).info), (three{0, 0, 0}));
}

TEST_F(Wrappers, WithoutARecordControlDataIsNotRead) {
    const received got = receive({.payload = {7}, .controls = {fake::pktinfo_control(1, 2, 3)}}, /*with_info=*/false);
    EXPECT_EQ(got.count, 1);
    EXPECT_EQ(words(got.info), (three{0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF}));
}

TEST_F(Wrappers, FailedReceiveTouchesNothing) {
    fake::script(fake::op::recvmsg, {.error = EIO});
    const received got = receive({.payload = {1}, .flags = 5});
    EXPECT_EQ(got.count, -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(got.flags, 0);
    EXPECT_EQ(words(got.info), (three{0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF}));
}

TEST_F(Wrappers, AddressLengthAndFlagsComeBack) {
    const received got = receive({.payload = {1}, .from_length = 12, .flags = MSG_TRUNC});
    EXPECT_EQ(got.from_length, 12U);
    EXPECT_EQ(got.flags, MSG_TRUNC);
}

ssize_t receive_inet4(fake::udp_message message) {
    const int fd = osal_socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
    fake::put_udp(std::move(message));
    bytes buffer(64);
    int flags = 0;
    sockaddr_in from{};
    ravo_pktinfo info{};
    return WrecvfromFlagsInet4(fd, buffer.data(), buffer.size(), &flags, &from, &info);
}

TEST_F(Wrappers, Inet4ReturnsTheCount) {
    EXPECT_EQ(receive_inet4({.payload = {1, 2, 3, 4}}), 4);
    EXPECT_EQ(receive_inet4({.payload = {}}), 0);
}

TEST_F(Wrappers, Inet4RefusesOtherFamiliesAndAddressLengths) {
    EXPECT_EQ(receive_inet4({.payload = {1}, .from_family = AF_INET6}), -1);
    EXPECT_EQ(receive_inet4({.payload = {1}, .from_length = 15}), -1);
    EXPECT_EQ(receive_inet4({.payload = {1}, .from_length = 28}), -1);
}

TEST_F(Wrappers, Inet4RepeatsWhileInterrupted) {
    fake::script(fake::op::recvmsg, {.times = 3, .error = EINTR});
    EXPECT_EQ(receive_inet4({.payload = {1, 2}}), 2);
    EXPECT_EQ(fake::udp_waiting(), 0U);
}

TEST_F(Wrappers, Inet4ReturnsOtherErrors) {
    fake::script(fake::op::recvmsg, {.error = EAGAIN});
    EXPECT_EQ(receive_inet4({.payload = {1, 2}}), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(fake::udp_waiting(), 1U);
}

// Ends the process and tells whether the message was taken off the queue before the assertion broke.
void report_queue(int) {
    _exit(fake::udp_waiting() == 0 ? 42 : 43);
}

// deliberate: the message is received first, then the missing address is noticed.
TEST_F(Wrappers, Inet4AssertsTheAddressAfterTheReceive) {
    const auto receive_nowhere = [] {
        const int fd = osal_socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
        fake::put_udp({.payload = {1}});
        std::signal(SIGABRT, report_queue);
        bytes buffer(64);
        int flags = 0;
        (void)WrecvfromFlagsInet4(fd, buffer.data(), buffer.size(), &flags, nullptr, nullptr);
    };
    EXPECT_EXIT(receive_nowhere(), testing::ExitedWithCode(42),
                "wrappers:[0-9]+: WrecvfromFlagsInet4: Assertion 'from' failed");
}

}  // namespace

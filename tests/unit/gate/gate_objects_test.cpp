// SPDX-License-Identifier: Apache-2.0
// Who may not load the gate's program is lent it, and believes nobody but root.
#include "gate/gate_objects.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "capabilities.h"

namespace {

using ravo::platform::descriptor;
using ravo::platform::gate_ask;
using ravo::platform::gate_lend;
using ravo::platform::gate_load;
using ravo::platform::gate_objects;
using ravo::platform::gate_take;

constexpr uid_t somebody = 65534;

gate_objects borrow(const std::string &path, std::string *refusal) {
    descriptor lender;
    gate_objects lent;
    ravo::fault wrong = gate_ask(path, &lender);
    if (!wrong) wrong = gate_take(lender, &lent);
    *refusal = wrong.text;
    return lent;
}

// A lender at a path that serves one asker.
class GateLoan : public testing::Test {
  protected:
    std::string path_ = testing::TempDir() + "ravo-gate-" + std::to_string(getpid());
    std::string refusal_;

    void SetUp() override {
        if (geteuid() != 0) GTEST_SKIP() << "lenders are root's";
    }
    void TearDown() override { unlink(path_.c_str()); }

    descriptor listen_here() const {
        descriptor fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
        sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
        path_.copy(address.sun_path, sizeof address.sun_path - 1);
        EXPECT_EQ(bind(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
        EXPECT_EQ(listen(fd.get(), 1), 0);
        return fd;
    }
    gate_objects borrow_from(const std::function<void(int)> &serve) {
        const descriptor listener = listen_here();
        std::thread lender([&] {
            const descriptor asker(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
            serve(asker.get());
        });
        gate_objects objects = borrow(path_, &refusal_);
        lender.join();
        return objects;
    }
    // What the real one answers, byte for byte, without its descriptors.
    static std::vector<std::uint8_t> answer() {
        int ends[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
        const descriptor near(ends[0]), far(ends[1]);
        EXPECT_EQ(gate_lend(near.get()).text, "");
        std::vector<std::uint8_t> bytes(64);
        bytes.resize(static_cast<std::size_t>(recv(far.get(), bytes.data(), bytes.size(), 0)));
        return bytes;
    }
};

void send_bytes(int fd, const std::vector<std::uint8_t> &bytes) {
    EXPECT_EQ(send(fd, bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
}

void send_with(int fd, std::vector<std::uint8_t> bytes, const std::vector<int> &fds) {
    iovec part{.iov_base = bytes.data(), .iov_len = bytes.size()};
    alignas(cmsghdr) std::array<char, 256> room{};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = room.data();
    message.msg_controllen = CMSG_SPACE(fds.size() * sizeof(int));
    cmsghdr *header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(fds.size() * sizeof(int));
    std::memcpy(CMSG_DATA(header), fds.data(), fds.size() * sizeof(int));
    EXPECT_EQ(sendmsg(fd, &message, 0), static_cast<ssize_t>(bytes.size()));
}

std::size_t open_descriptors() {
    std::size_t count = 0;
    for (int fd = 0; fd < 256; ++fd) count += fcntl(fd, F_GETFD) >= 0;
    return count;
}

TEST_F(GateLoan, WhatIsLentCanBeAttachedWithoutARight) {
    const gate_objects objects = borrow_from([](int fd) { EXPECT_EQ(gate_lend(fd).text, ""); });
    EXPECT_EQ(refusal_, "");
    ASSERT_TRUE(objects);
    for (const descriptor *one :
         {&objects.program, &objects.devices, &objects.ports, &objects.limited_by_tag, &objects.queue})
        EXPECT_EQ(fcntl(one->get(), F_GETFD), FD_CLOEXEC);
    const descriptor packets(socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0));
    const without_programs refused;
    const int program = objects.program.get();
    EXPECT_EQ(setsockopt(packets.get(), SOL_SOCKET, SO_ATTACH_BPF, &program, sizeof program), 0);
}

TEST_F(GateLoan, WhoMayNotLoadCannotLendAndSaysSo) {
    const gate_objects objects = borrow_from([](int fd) {
        const without_programs refused;
        EXPECT_EQ(gate_lend(fd).text, "");
    });
    EXPECT_FALSE(objects);
    EXPECT_EQ(refusal_, "Operation not permitted");
}

TEST_F(GateLoan, WithoutALenderThereIsNothingToSay) {
    EXPECT_FALSE(borrow(path_, &refusal_));
    EXPECT_FALSE(borrow("", &refusal_));
    EXPECT_EQ(refusal_, "");
}

TEST_F(GateLoan, NobodyButRootIsBelieved) {
    ASSERT_EQ(seteuid(somebody), 0);
    path_ = "/tmp/ravo-gate-of-somebody-" + std::to_string(getpid());
    {
        const descriptor listener = listen_here();
        ASSERT_EQ(seteuid(0), 0);
        EXPECT_FALSE(borrow(path_, &refusal_));
    }
    EXPECT_EQ(refusal_, path_ + " is not root's");
}

TEST_F(GateLoan, ALenderThatIsGoneIsTold) {
    { const descriptor listener = listen_here(); }
    EXPECT_FALSE(borrow(path_, &refusal_));
    EXPECT_EQ(refusal_, path_ + ": Connection refused");
    unlink(path_.c_str());
    refusal_.clear();
    EXPECT_FALSE(borrow_from([](int) {}));
    EXPECT_EQ(refusal_, "its lender is gone");
}

TEST_F(GateLoan, AnotherVersionsAnswerIsNotTaken) {
    std::vector<std::uint8_t> bytes = answer();
    bytes[0] ^= 1;
    EXPECT_FALSE(borrow_from([&](int fd) { send_bytes(fd, bytes); }));
    EXPECT_EQ(refusal_, "its lender is of another version");
    unlink(path_.c_str());
    refusal_.clear();
    EXPECT_FALSE(borrow_from([](int fd) { send_bytes(fd, {1, 2, 3}); }));
    EXPECT_EQ(refusal_, "its lender is of another version");
}

TEST_F(GateLoan, TooFewAndTooManyDescriptorsAreClosed) {
    const std::vector<std::uint8_t> bytes = answer();
    for (const std::size_t count : {1U, 4U, 6U, 20U}) {
        const std::size_t before = open_descriptors();
        refusal_.clear();
        EXPECT_FALSE(borrow_from([&](int fd) { send_with(fd, bytes, std::vector<int>(count, fd)); })) << count;
        EXPECT_EQ(refusal_, "its lender sent no descriptors") << count;
        EXPECT_EQ(open_descriptors(), before) << count;
        unlink(path_.c_str());
    }
    EXPECT_FALSE(borrow_from([&](int fd) { send_bytes(fd, bytes); }));
    EXPECT_EQ(refusal_, "its lender sent no descriptors");
}

TEST(GateLend, TellsWhenNobodyTakesIt) {
    const descriptor nothing(open("/dev/null", O_RDWR | O_CLOEXEC));
    EXPECT_EQ(gate_lend(nothing.get()).text,
              "nobody asks for the gate's program at this input; ravo-gate.socket starts this for who does");
}

}  // namespace

// SPDX-License-Identifier: Apache-2.0
// What of a gate outlasts the process, and what is made of it by the next.
#include "channel/kept_gate.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <map>
#include <string>
#include <vector>

#include "capabilities.h"
#include "gate/gate.h"
#include "log/log.h"
#include "process/descriptor_store.h"

namespace {

std::map<std::string, ravo::platform::descriptor> stored;  // in place of an init system
std::map<std::string, ravo::platform::descriptor> given;   // that nobody took

ravo::platform::descriptor copy_of(const ravo::platform::descriptor &fd) {
    return ravo::platform::descriptor(::fcntl(fd.get(), F_DUPFD_CLOEXEC, 0));
}

}  // namespace

namespace ravo::platform {

bool store_has(const std::string &name) {
    return given.count(name) != 0;
}

descriptor store_take(const std::string &name) {
    auto found = given.extract(name);
    return found.empty() ? descriptor() : std::move(found.mapped());
}

void store_keep(const std::string &name, int fd) {
    stored[name] = descriptor(::fcntl(fd, F_DUPFD_CLOEXEC, 0));
}

void store_forget(const std::string &name) {
    stored.erase(name);
}

void store_begin() {}

void store_end_of_start() {}

void store_close() {}

}  // namespace ravo::platform

namespace {

using namespace ravo::platform;

class KeptGate : public testing::Test {
  protected:
    descriptor packets{socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0)};

    void SetUp() override {
        if (geteuid() != 0) GTEST_SKIP() << "packet sockets take a right";
        stored.clear();
        given.clear();
    }
    // As the next daemon is given it.
    static void start_again() {
        for (const auto &[name, fd] : stored) given[name] = copy_of(fd);
        kept_gate_begin("/nowhere/gate.sock");
        kept_gate_take_over();
    }
    static std::vector<std::string> names() {
        std::vector<std::string> all;
        for (const auto &[name, fd] : stored) all.push_back(name);
        return all;
    }
    const std::vector<std::string> whole{"gate-devices", "gate-ports", "gate-program", "gate-queue", "gate-tags"};
};

TEST_F(KeptGate, IsThatOfTheDaemonBefore) {
    kept_gate_begin("/nowhere/gate.sock");
    kept_gate_take_over();
    gate before;
    ASSERT_EQ(before.attach(packets.get()), 0);
    ASSERT_TRUE(before.in_kernel()) << before.refusal();
    EXPECT_EQ(names(), whole);
    start_again();
    EXPECT_TRUE(given.empty());
    gate after;
    const without_programs refused;  // there is none to be had
    ASSERT_EQ(after.attach(packets.get()), 0);
    EXPECT_TRUE(after.in_kernel()) << after.refusal();
    EXPECT_EQ(names(), whole) << "it is kept on";
    kept_gate_forget();
    EXPECT_TRUE(stored.empty());
}

TEST_F(KeptGate, IsMadeAnewWhenAPartIsMissing) {
    kept_gate_begin("/nowhere/gate.sock");
    gate before;
    ASSERT_EQ(before.attach(packets.get()), 0);
    stored.erase("gate-queue");
    testing::internal::CaptureStderr();
    start_again();
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "ravod: the program that limits ports, of the daemon before, is closed: it is another kind of "
              "descriptor\n");
    EXPECT_TRUE(stored.empty());
    gate after;
    ASSERT_EQ(after.attach(packets.get()), 0);
    EXPECT_TRUE(after.in_kernel()) << after.refusal();
    EXPECT_EQ(names(), whole);
}

TEST_F(KeptGate, IsNotAskedForWhenTheDaemonBeforeHadNone) {
    stored["packets-2048x512-0"] = copy_of(packets);
    start_again();
    const without_programs refused;
    gate after;
    ASSERT_EQ(after.prepare(), 0);
    EXPECT_EQ(after.refusal(), "it did so before the restart, and is asked again when relaying is switched on");
}

}  // namespace

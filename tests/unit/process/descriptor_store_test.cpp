// SPDX-License-Identifier: Apache-2.0
// Descriptors that an init system keeps: what is taken of what was given, and what it is told. What is given has the
// numbers from 3 on, so each test is a process of its own.
#include "process/descriptor_store.h"

#include <event2/event.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "base/loop.h"
#include "child.h"

namespace {

using namespace ravo::platform;

struct DescriptorStore : testing::Test {
    std::string folder;
    int init_system = -1;
    DescriptorStore() {
        char name[] = "/tmp/store_test.XXXXXX";
        folder = mkdtemp(name);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        (folder + "/notify").copy(address.sun_path, sizeof address.sun_path - 1);
        init_system = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        EXPECT_EQ(bind(init_system, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    }
    ~DescriptorStore() override {
        close(init_system);
        std::filesystem::remove_all(folder);
    }

    // Begins in the child with descriptors of these names; the file behind the one of number 3 + N is FOLDER/N.
    void begin(const char *names, const char *count, const std::string &pid = std::to_string(getpid())) {
        init_system = dup2(init_system, 50);
        close_range(3, 49, 0);
        close_range(51, ~0U, 0);
        for (int i = 0; i < 4; ++i)
            EXPECT_EQ(open((folder + "/" + std::to_string(i)).c_str(), O_CREAT | O_RDWR, 0600), 3 + i);
        setenv("NOTIFY_SOCKET", (folder + "/notify").c_str(), 1);
        setenv("LISTEN_PID", pid.c_str(), 1);
        setenv("LISTEN_FDS", count, 1);
        if (names != nullptr) setenv("LISTEN_FDNAMES", names, 1);
        store_begin();
    }
    // Which of the files a descriptor is: "0" to "3", "none", and "!" behind one that a program that is started would
    // get.
    std::string file_of(const descriptor &fd) const {
        if (!fd) return "none";
        const std::string link = "/proc/self/fd/" + std::to_string(fd.get());
        return std::filesystem::read_symlink(link).filename().string() +
               ((fcntl(fd.get(), F_GETFD) & FD_CLOEXEC) != 0 ? "" : "!");
    }
    // The next message to the init system, and how many descriptors came with it, told in the test's process.
    std::string told() const {
        char text[512];
        iovec bytes{.iov_base = text, .iov_len = sizeof text};
        alignas(cmsghdr) char room[CMSG_SPACE(4 * sizeof(int))];
        msghdr message{};
        message.msg_iov = &bytes;
        message.msg_iovlen = 1;
        message.msg_control = room;
        message.msg_controllen = sizeof room;
        const ssize_t size = recvmsg(init_system, &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
        if (size < 0) return "nothing";
        const cmsghdr *header = CMSG_FIRSTHDR(&message);
        return std::string(text, static_cast<std::size_t>(size)) +
               (header == nullptr ? "" : " with " + std::to_string((header->cmsg_len - CMSG_LEN(0)) / sizeof(int)));
    }
};

void say(const std::string &text) {
    std::fprintf(stderr, "%s\n", text.c_str());
}

TEST_F(DescriptorStore, EachIsTakenByItsName) {
    EXPECT_EQ(child::run([&] {
                  begin("packets:udp:other", "3");
                  for (const char *name : {"udp", "packets", "udp", "none"}) say(file_of(store_take(name)));
                  say(getenv("LISTEN_FDS") == nullptr && getenv("LISTEN_PID") == nullptr ? "not told on" : "told on");
                  store_end_of_start();
                  say(fcntl(5, F_GETFD) == -1 ? "closed" : "open");
                  say(fcntl(6, F_GETFD) == -1 ? "closed" : "not ours");
                  return 0;
              }).told,
              "1\n0\nnone\nnone\nnot told on\n"
              "ravod: it was given a descriptor \"other\" that it does not use; it is closed\nclosed\nnot ours\n");
    EXPECT_EQ(told(), "FDSTOREREMOVE=1\nFDNAME=other");
    EXPECT_EQ(told(), "nothing");
}

TEST_F(DescriptorStore, TellsWhatIsThereToBeTaken) {
    EXPECT_EQ(child::run([&] {
                  begin("packets", "1");
                  say(std::string(store_has("packets") ? "there" : "gone") + (store_has("udp") ? " there" : " gone"));
                  (void)store_take("packets");
                  say(store_has("packets") ? "there" : "gone");
                  return 0;
              }).told,
              "there gone\ngone\n");
}

TEST_F(DescriptorStore, OfSeveralWithOneNameNoneIsTaken) {
    const std::string line = "ravod: it was given a descriptor \"packets\" that it does not use; it is closed\n";
    EXPECT_EQ(child::run([&] {
                  begin("packets:packets", "2");
                  say(file_of(store_take("packets")));
                  store_end_of_start();
                  say(fcntl(3, F_GETFD) == -1 && fcntl(4, F_GETFD) == -1 ? "closed" : "open");
                  return 0;
              }).told,
              "none\n" + line + line + "closed\n");
}

TEST_F(DescriptorStore, NamesAndNumbersThatDoNotFitDoNoHarm) {
    struct {
        const char *names;
        const char *count;
        const char *taken;
    } const cases[] = {{"a", "4", "0"},           {nullptr, "2", "none"}, {":a", "2", "1"},
                       {"a:b:c:d:e:f", "1", "0"}, {"a", "0", "none"},     {"a", "", "none"},
                       {"a", "-1", "none"},       {"a", "1x", "none"},    {"a", "18446744073709551615", "0"}};
    for (const auto &each : cases)
        EXPECT_EQ(child::run([&] {
                      begin(each.names, each.count);
                      say(file_of(store_take("a")));
                      return 0;
                  }).told,
                  std::string(each.taken) + "\n")
            << (each.names == nullptr ? "" : each.names) << " " << each.count;
}

TEST_F(DescriptorStore, WhatIsMeantForAnotherProcessIsNotTouched) {
    EXPECT_EQ(child::run([&] {
                  begin("a", "1", "1");
                  say(file_of(store_take("a")));
                  say(fcntl(3, F_GETFD) == 0 ? "as it was" : "changed");
                  return 0;
              }).told,
              "none\nas it was\n");
}

TEST_F(DescriptorStore, WhatIsKeptIsTold) {
    (void)child::run([&] {
        begin("old", "1");
        (void)store_take("old");
        store_keep("packets", 4);
        for (const char *name : {"packets", "packets", "old", "never"}) store_forget(name);
        return 0;
    });
    EXPECT_EQ(told(), "FDSTORE=1\nFDPOLL=0\nFDNAME=packets with 1");
    EXPECT_EQ(told(), "FDSTOREREMOVE=1\nFDNAME=packets");
    EXPECT_EQ(told(), "FDSTOREREMOVE=1\nFDNAME=old");
    EXPECT_EQ(told(), "nothing");
}

TEST_F(DescriptorStore, ABusyInitSystemIsNotWaitedForAndToldLater) {
    const child::result result = child::run([&] {
        begin("", "0");
        for (int i = 0; i < 40; ++i) store_keep("packets-" + std::to_string(i), 4);
        store_forget("packets-0");
        for (int i = 0; i < 41; ++i) {
            std::string wanted = "FDSTORE=1\nFDPOLL=0\nFDNAME=packets-" + std::to_string(i) + " with 1";
            if (i == 40) wanted = "FDSTOREREMOVE=1\nFDNAME=packets-0";
            std::string next = told();
            for (int turns = 0; next == "nothing" && turns < 1000; ++turns, next = told())
                event_base_loop(loop_base(), EVLOOP_ONCE);
            if (next != wanted) say(next);
        }
        store_close();
        say(told());
        return 0;
    });
    EXPECT_EQ(result.told, "nothing\n");
}

TEST_F(DescriptorStore, AnInitSystemThatNeverListensIsNotWaitedForInVain) {
    const child::result result = child::run([&] {
        begin("", "0");
        const int limit = 2000;
        for (int i = 0; i < limit; ++i) store_keep("packets-" + std::to_string(i), 4);
        return 0;
    });
    EXPECT_EQ(result.status, 0);
    const std::string line = "the init system does not listen: \"FDNAME=packets-1999\" is not told to it\n";
    ASSERT_GE(result.told.size(), line.size());
    EXPECT_EQ(result.told.substr(result.told.size() - line.size()), line);
}

TEST_F(DescriptorStore, WithoutAnInitSystemNothingIsTold) {
    EXPECT_EQ(child::run([&] {
                  begin("", "0");
                  unsetenv("NOTIFY_SOCKET");
                  store_keep("packets", 4);
                  store_forget("packets");
                  store_end_of_start();
                  return 0;
              }).told,
              "");
    EXPECT_EQ(told(), "nothing");
}

}  // namespace

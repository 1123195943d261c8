// SPDX-License-Identifier: Apache-2.0
// Which files the process may touch, by the kernel's rules and not by its user's rights. Where the kernel has no such
// rules there is nothing to be tested.
#include "confinement/file_rules.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/landlock.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>

#include "child.h"

using ravo::platform::file_rules_install;

namespace {

long version() {
    return syscall(SYS_landlock_create_ruleset, nullptr, 0, LANDLOCK_CREATE_RULESET_VERSION);
}

struct FileRules : testing::Test {
    std::string folder;
    FileRules() {
        char name[] = "/tmp/file_rules_test.XXXXXX";
        folder = mkdtemp(name);
        for (const char *one : {"own", "read", "foreign"}) {
            std::filesystem::create_directory(folder + "/" + one);
            std::ofstream(folder + "/" + one + "/file") << "text\n";
        }
    }
    ~FileRules() override { std::filesystem::remove_all(folder); }
    void SetUp() override {
        if (version() < 1) GTEST_SKIP() << "this kernel has no Landlock";
    }

    // Returns the errno of a call under the rules, 0 when it succeeds, 200 when there are no rules.
    int ruled(const std::function<long()> &call) const {
        return child::run([&] {
                   if (file_rules_install({.written = {folder + "/own", folder + "/none"}, .read = {folder + "/read"}}))
                       return 200;
                   return call() >= 0 ? 0 : errno;
               })
            .status;
    }
    int opened(const std::string &path, int flags) const {
        return ruled([&] { return open(path.c_str(), flags | O_CLOEXEC, 0600); });
    }
};

TEST_F(FileRules, OwnFoldersAreWritten) {
    EXPECT_EQ(opened(folder + "/own/file", O_RDWR), 0);
    EXPECT_EQ(opened(folder + "/own/file", O_RDWR | O_TRUNC), 0);
    EXPECT_EQ(opened(folder + "/own/new", O_WRONLY | O_CREAT | O_EXCL), 0);
    EXPECT_EQ(opened(folder + "/own", O_RDONLY | O_DIRECTORY), 0);
    EXPECT_EQ(ruled([&] { return rename((folder + "/own/new").c_str(), (folder + "/own/file").c_str()); }), 0);
    EXPECT_EQ(ruled([&] { return unlink((folder + "/own/file").c_str()); }), 0);
    EXPECT_EQ(ruled([&] {
                  sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
                  (folder + "/own/socket").copy(address.sun_path, sizeof address.sun_path - 1);
                  const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
                  return bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address);
              }),
              0);
}

TEST_F(FileRules, OthersAreReadAtMost) {
    EXPECT_EQ(opened(folder + "/read/file", O_RDONLY), 0);
    EXPECT_EQ(opened(folder + "/read/file", O_WRONLY), EACCES);
    EXPECT_EQ(opened(folder + "/read/new", O_WRONLY | O_CREAT), EACCES);
    EXPECT_EQ(opened(folder + "/foreign/file", O_RDONLY), EACCES);
    EXPECT_EQ(opened(folder + "/foreign/new", O_WRONLY | O_CREAT), EACCES);
    EXPECT_EQ(ruled([&] { return unlink((folder + "/foreign/file").c_str()); }), EACCES);
    EXPECT_EQ(ruled([&] { return mkdir((folder + "/foreign/x").c_str(), 0700); }), EACCES);
    EXPECT_EQ(opened("/root", O_RDONLY | O_DIRECTORY), EACCES);
}

TEST_F(FileRules, NoFileLeavesOrEntersAFolder) {
    const auto is_refused = testing::AnyOf(EACCES, EXDEV);  // kernels differ in which rule they name first
    EXPECT_THAT(ruled([&] { return rename((folder + "/own/file").c_str(), (folder + "/foreign/file").c_str()); }),
                is_refused);
    EXPECT_THAT(ruled([&] { return rename((folder + "/foreign/file").c_str(), (folder + "/own/file").c_str()); }),
                is_refused);
    EXPECT_EQ(ruled([&] { return symlink("/etc", (folder + "/own/link").c_str()); }), EACCES);
    EXPECT_EQ(ruled([&] { return mkdir((folder + "/own/x").c_str(), 0700); }), EACCES);
}

TEST_F(FileRules, TheSystemIsReadAndNotWritten) {
    EXPECT_EQ(opened("/etc/passwd", O_RDONLY), 0);
    EXPECT_EQ(opened("/proc/self/status", O_RDONLY), 0);
    EXPECT_EQ(opened("/dev/null", O_RDWR), 0);
    EXPECT_EQ(opened("/etc/ravo-file-rules-test", O_WRONLY | O_CREAT), EACCES);
    EXPECT_EQ(opened("/proc/sys/kernel/core_pattern", O_WRONLY), EACCES);
}

TEST_F(FileRules, NobodyIsCalledByTcp) {
    if (version() < 4) GTEST_SKIP() << "this kernel's Landlock knows no network";
    EXPECT_EQ(ruled([] {
                  sockaddr_in address{};
                  address.sin_family = AF_INET;
                  address.sin_port = htons(80);
                  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
                  const int fd = socket(AF_INET, SOCK_STREAM, 0);
                  return connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address);
              }),
              EACCES);
}

TEST_F(FileRules, NobodyElseIsSignalled) {
    if (version() < 6) GTEST_SKIP() << "this kernel's Landlock knows no signals";
    EXPECT_EQ(ruled([] { return kill(getppid(), 0); }), EPERM);
    EXPECT_EQ(ruled([] { return kill(getpid(), 0); }), 0);
}

}  // namespace

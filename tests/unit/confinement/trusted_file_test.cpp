// SPDX-License-Identifier: Apache-2.0
// Which files of configuration are believed: owners and modes of the file and of its folder.
#include "confinement/trusted_file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

using ravo::platform::trusted_file_fault;

namespace {

constexpr uid_t daemon_user = 4711, foreign = 4712;
constexpr gid_t some_group = 4713;

// Owners are changed here, so these tests are root's.
struct TrustedFile : testing::Test {
    std::string folder, file;
    TrustedFile() {
        char name[] = "/tmp/trusted_file_test.XXXXXX";
        folder = mkdtemp(name);
        file = folder + "/startup-config";
        std::ofstream(file) << "!\n";
        chmod(folder.c_str(), 0755);
        chmod(file.c_str(), 0644);
    }
    ~TrustedFile() override { std::filesystem::remove_all(folder); }
    void SetUp() override {
        if (geteuid() != 0) GTEST_SKIP() << "only root can give files away";
    }
    std::string fault() const { return trusted_file_fault(file, daemon_user).text; }
};

TEST_F(TrustedFile, OfRootOrOfTheDaemonIsBelieved) {
    EXPECT_EQ(fault(), "");
    ASSERT_EQ(chown(file.c_str(), daemon_user, some_group), 0);
    ASSERT_EQ(chown(folder.c_str(), daemon_user, some_group), 0);
    EXPECT_EQ(fault(), "");
    ASSERT_EQ(chmod(file.c_str(), 0600), 0);
    ASSERT_EQ(chmod(folder.c_str(), 0700), 0);
    EXPECT_EQ(fault(), "");
}

TEST_F(TrustedFile, OfSomebodyElseIsNot) {
    ASSERT_EQ(chown(file.c_str(), foreign, 0), 0);
    EXPECT_EQ(fault(), file + ": belongs to user 4712, who may change what this daemon does; chown root " + file);
    EXPECT_EQ(trusted_file_fault(file, foreign).text, "");
    ASSERT_EQ(chown(file.c_str(), 0, 0), 0);
    ASSERT_EQ(chown(folder.c_str(), foreign, 0), 0);
    EXPECT_EQ(fault(), folder + ": belongs to user 4712, who may change what this daemon does; chown root " + folder);
}

TEST_F(TrustedFile, ThatOthersMayWriteIsNot) {
    ASSERT_EQ(chmod(file.c_str(), 0646), 0);
    EXPECT_EQ(fault(), file + ": others may write it (mode 0646); chmod o-w " + file);
    ASSERT_EQ(chmod(file.c_str(), 0664), 0);
    EXPECT_EQ(fault(), "") << "the group is root's";
    ASSERT_EQ(chown(file.c_str(), 0, some_group), 0);
    EXPECT_EQ(fault(), file + ": others may write it (mode 0664); chmod g-w " + file);
    ASSERT_EQ(chmod(file.c_str(), 0666), 0);
    EXPECT_EQ(fault(), file + ": others may write it (mode 0666); chmod go-w " + file);
}

TEST_F(TrustedFile, NorInAFolderThatOthersMayWrite) {
    ASSERT_EQ(chmod(folder.c_str(), 0777), 0);
    EXPECT_EQ(fault(), folder + ": others may write it (mode 0777); chmod o-w " + folder);
    ASSERT_EQ(chmod(folder.c_str(), 01777), 0);
    EXPECT_EQ(fault(), "") << "what is not theirs they cannot replace there";
}

TEST_F(TrustedFile, LinksAreFollowed) {
    const std::string link = folder + "/link";
    ASSERT_EQ(symlink(file.c_str(), link.c_str()), 0);
    ASSERT_EQ(lchown(link.c_str(), foreign, 0), 0);
    EXPECT_EQ(trusted_file_fault(link, daemon_user).text, "");
    ASSERT_EQ(chmod(file.c_str(), 0646), 0);
    EXPECT_EQ(trusted_file_fault(link, daemon_user).text,
              file + ": others may write it (mode 0646); chmod o-w " + file);
}

TEST_F(TrustedFile, WhatIsNoFileIsForItsReaderToTell) {
    EXPECT_EQ(trusted_file_fault(folder + "/none", daemon_user).text, "");
    EXPECT_EQ(trusted_file_fault(folder, daemon_user).text, "");
    EXPECT_EQ(trusted_file_fault("/dev/null", daemon_user).text, "");
}

}  // namespace

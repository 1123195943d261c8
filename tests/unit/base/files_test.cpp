// SPDX-License-Identifier: Apache-2.0
// Whole files, up to a limit, and never anything that could hold the reader up.
#include "base/files.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <string>

#include "base/owners.h"

namespace {

using ravo::platform::descriptor;
using ravo::platform::folder_of;
using ravo::platform::is_below;
using ravo::platform::read_file;
using ravo::platform::real_path;
using ravo::platform::replace_file;
using ravo::platform::write_all;

class Files : public testing::Test {
  protected:
    std::string folder = testing::TempDir() + "ravo-files-" + std::to_string(getpid());
    std::string path = folder + "/file";
    std::string text = "as it was";

    void SetUp() override { ASSERT_EQ(mkdir(folder.c_str(), 0700), 0); }
    void TearDown() override {
        unlink(path.c_str());
        rmdir(folder.c_str());
    }
    void write(const std::string &content) { std::ofstream(path, std::ios::binary) << content; }
};

TEST_F(Files, AreReadWhole) {
    const std::string content = std::string("a\0b\n", 4) + std::string(100000, 'x');
    write(content);
    EXPECT_EQ(read_file(path, 1 << 20, &text), 0);
    EXPECT_EQ(text, content);
}

TEST_F(Files, AsLargeAsTheLimitAreReadAndOneByteMoreIsRefused) {
    write("12345");
    EXPECT_EQ(read_file(path, 5, &text), 0);
    EXPECT_EQ(text, "12345");
    text = "as it was";
    EXPECT_EQ(read_file(path, 4, &text), EFBIG);
    EXPECT_EQ(text, "as it was");
}

TEST_F(Files, AreReplacedWholeWithTheirMode) {
    EXPECT_EQ(replace_file(path, "first", 0640), 0);
    EXPECT_EQ(replace_file(path, "second", 0600), 0);
    EXPECT_EQ(read_file(path, 100, &text), 0);
    EXPECT_EQ(text, "second");
    struct stat status;
    ASSERT_EQ(stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600U);
    EXPECT_NE(access((path + ".new").c_str(), F_OK), 0);
}

TEST_F(Files, WhatAKilledWriterLeftIsTakenOver) {
    write("old");
    std::ofstream(path + ".new") << "half a";
    EXPECT_EQ(replace_file(path, "new", 0600), 0);
    EXPECT_EQ(read_file(path, 100, &text), 0);
    EXPECT_EQ(text, "new");
}

TEST_F(Files, AFileThatCannotBeReplacedStaysAsItIs) {
    EXPECT_EQ(replace_file(folder + "/no/such/file", "x", 0600), ENOENT);
    ASSERT_EQ(mkdir((path + ".new").c_str(), 0700), 0);
    write("old");
    EXPECT_NE(replace_file(path, "new", 0600), 0);
    EXPECT_EQ(read_file(path, 100, &text), 0);
    EXPECT_EQ(text, "old");
    rmdir((path + ".new").c_str());
}

TEST_F(Files, EmptyFileIsAnEmptyText) {
    write("");
    EXPECT_EQ(read_file(path, 10, &text), 0);
    EXPECT_EQ(text, "");
}

TEST_F(Files, NullDeviceIsAnEmptyFileAndOtherDevicesAreRefused) {
    EXPECT_EQ(read_file("/dev/null", 10, &text), 0);
    EXPECT_EQ(text, "");
    text = "as it was";
    EXPECT_EQ(read_file("/dev/zero", 10, &text), EINVAL);
    EXPECT_EQ(text, "as it was");
}

TEST_F(Files, PipeInTheFilesPlaceIsRefusedAtOnce) {
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    EXPECT_EQ(read_file(path, 10, &text), EINVAL);
    EXPECT_EQ(text, "as it was");
}

TEST_F(Files, FolderAndMissingFileTellTheirReason) {
    EXPECT_EQ(read_file(folder, 10, &text), EISDIR);
    EXPECT_EQ(read_file(path, 10, &text), ENOENT);
    EXPECT_EQ(text, "as it was");
}

TEST_F(Files, AreWrittenWhole) {
    const std::string content(300000, 'y');
    descriptor file(open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    ASSERT_TRUE(static_cast<bool>(file));
    EXPECT_EQ(write_all(file.get(), content), 0);
    file.reset();
    EXPECT_EQ(read_file(path, content.size(), &text), 0);
    EXPECT_EQ(text, content);
}

TEST_F(Files, FailedWriteTellsItsReason) {
    const descriptor full(open("/dev/full", O_WRONLY | O_CLOEXEC));
    EXPECT_EQ(write_all(full.get(), "x"), ENOSPC);
    EXPECT_EQ(write_all(-1, "x"), EBADF);
    EXPECT_EQ(write_all(-1, ""), 0);
}

TEST(FolderOf, PathsOfEveryShape) {
    EXPECT_EQ(folder_of("/etc/ravo/switch.toml"), "/etc/ravo");
    EXPECT_EQ(folder_of("/switch.toml"), "/");
    EXPECT_EQ(folder_of("switch.toml"), ".");
    EXPECT_EQ(folder_of("a/b/"), "a/b");
    EXPECT_EQ(folder_of(""), ".");
}

TEST_F(Files, WhatAPathNamesIsToldWithoutLinks) {
    write("");
    const std::string link = folder + "/link";
    ASSERT_EQ(symlink("file", link.c_str()), 0);
    EXPECT_EQ(real_path(link), real_path(path));
    EXPECT_EQ(real_path(folder + "/../" + folder.substr(folder.rfind('/') + 1)), real_path(folder));
    unlink(link.c_str());
    EXPECT_EQ(real_path(link), "");
    EXPECT_EQ(errno, ENOENT);
}

TEST(Folders, HoldWhatIsBelowThem) {
    EXPECT_TRUE(is_below("/etc/ravo", "/etc/ravo"));
    EXPECT_TRUE(is_below("/etc/ravo/a/b", "/etc/ravo"));
    EXPECT_FALSE(is_below("/etc/ravo-web", "/etc/ravo"));
    EXPECT_FALSE(is_below("/etc", "/etc/ravo"));
    EXPECT_FALSE(is_below("", "/etc/ravo"));
    EXPECT_TRUE(is_below("/etc", "/"));
}

}  // namespace

// SPDX-License-Identifier: Apache-2.0
// The crash book: captures and lines of crashes, how many are kept, and what others may have written there.
#include "books/crash_book.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

using namespace ravo::platform;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

struct CrashBook : testing::Test {
    std::string folder;
    black_box_crash crash{.happened = true, .cause = SIGABRT, .held_seconds = 10};
    CrashBook() {
        char name[] = "/tmp/crash_book_test.XXXXXX";
        folder = mkdtemp(name);
        crash.entry.time_us = 1717747750123456;  // 2024-06-07 08:09:10.123456 UTC
        crash.entry.port_ifindex = 5123;
        crash.entry.vlan = 10;
        crash.entry.tag = {.protocol = 0x8100, .tci = 0x600A};
        crash.entry.client = {2, 0, 0, 0, 0, 1};
        crash.frame = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 2, 0, 0, 0, 0, 1, 8, 0, 0x45, 0x11};
        (void)crash_book_open(folder);
    }
    ~CrashBook() override {
        (void)crash_book_open("");
        std::filesystem::remove_all(folder);
    }
    std::string text_of(const std::string &name) const {
        std::stringstream text;
        text << std::ifstream(folder + "/" + name, std::ios::binary).rdbuf();
        return text.str();
    }
    std::vector<std::string> names() const {
        std::vector<std::string> all;
        for (const auto &each : std::filesystem::directory_iterator(folder)) all.push_back(each.path().filename());
        std::sort(all.begin(), all.end());
        return all;
    }
};

TEST_F(CrashBook, KeepsACaptureAndALine) {
    EXPECT_EQ(crash_book_enter(crash), folder + "/crash-20240607T080910.123456Z.pcapng");
    const std::string capture = text_of("crash-20240607T080910.123456Z.pcapng");
    EXPECT_THAT(capture, HasSubstr(std::string("\x02\0\0\0\0\x01\x81\0\x60\x0A\x08\0\x45\x11", 14)));
    EXPECT_THAT(capture, HasSubstr("the daemon died while it handled this message"));
    EXPECT_EQ(text_of("crashes"),
              "1717747750123456 5123 10 02:00:00:00:00:01 6 10 crash-20240607T080910.123456Z.pcapng\n");
    struct stat status {};
    ASSERT_EQ(stat((folder + "/crashes").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0600U);
}

TEST_F(CrashBook, IsReadAgain) {
    (void)crash_book_enter(crash);
    crash.entry.time_us += 1;
    crash.entry.port_ifindex = 0;
    (void)crash_book_enter(crash);
    (void)crash_book_open(folder);
    ASSERT_THAT(crash_book_all(), SizeIs(2));
    EXPECT_EQ(crash_book_all()[0].port_ifindex, 0U) << "the newest is first";
    const kept_crash &first = crash_book_all()[1];
    EXPECT_EQ(first.time_us, 1717747750123456);
    EXPECT_EQ(first.port_ifindex, 5123U);
    EXPECT_EQ(first.vlan, 10);
    EXPECT_EQ(first.client, (std::array<std::uint8_t, 6>{2, 0, 0, 0, 0, 1}));
    EXPECT_EQ(first.cause, 6U);
    EXPECT_EQ(first.held_seconds, 10U);
    EXPECT_EQ(first.capture, "crash-20240607T080910.123456Z.pcapng");
}

TEST_F(CrashBook, NewestAreKept) {
    std::ofstream(folder + "/ports") << "other";
    std::ofstream(folder + "/crash-course.pcapng") << "other";
    for (int more = 0; more < 21; ++more, crash.entry.time_us += 1000000)
        EXPECT_THAT(crash_book_enter(crash), HasSubstr("/crash-20240607T0809"));
    const std::vector<std::string> all = names();
    ASSERT_EQ(all.size(), crash_book_size + 3);
    EXPECT_EQ(all.front(), "crash-20240607T080915.123456Z.pcapng");
    EXPECT_THAT(crash_book_all(), SizeIs(crash_book_size));
    EXPECT_EQ(crash_book_all().back().capture, all.front());
    (void)crash_book_open(folder);
    EXPECT_THAT(crash_book_all(), SizeIs(crash_book_size));
}

TEST_F(CrashBook, ForgetsAllAndLeavesFilesOfOthers) {
    std::ofstream(folder + "/ports") << "other";
    (void)crash_book_enter(crash);
    EXPECT_EQ(crash_book_clear().text, "");
    EXPECT_THAT(crash_book_all(), IsEmpty());
    EXPECT_EQ(names(), std::vector<std::string>{"ports"});
    EXPECT_EQ(crash_book_clear().text, "");
}

TEST_F(CrashBook, WithoutAFolderItIsThisDaemonsAlone) {
    (void)crash_book_open("");
    EXPECT_EQ(crash_book_enter(crash), "there is no state folder to keep it in");
    ASSERT_THAT(crash_book_all(), SizeIs(1));
    EXPECT_EQ(crash_book_all()[0].capture, "");
    EXPECT_EQ(crash_book_clear().text, "");
    EXPECT_THAT(crash_book_all(), IsEmpty());
}

TEST_F(CrashBook, WhatCannotBeWrittenIsSaid) {
    std::filesystem::remove_all(folder);
    EXPECT_THAT(crash_book_enter(crash), HasSubstr(" cannot be written: No such file or directory"));
    EXPECT_THAT(crash_book_all(), SizeIs(1));
}

TEST_F(CrashBook, LinesThatAreNoneOfOursArePassedOver) {
    const std::string good = "1717747750123456 5123 10 02:00:00:00:00:01 6 10 -";
    const std::vector<std::string> bad = {
        "",
        " ",
        "x",
        good + " ",
        good + "x",
        "-1 5123 10 02:00:00:00:00:01 6 10 -",
        "99999999999999999999 5123 10 02:00:00:00:00:01 6 10 -",
        "9000000000000000000 5123 10 02:00:00:00:00:01 6 10 -",
        "1717747750123456 65536 10 02:00:00:00:00:01 6 10 -",
        "1717747750123456 5123 4095 02:00:00:00:00:01 6 10 -",
        "1717747750123456 5123 10 02:00:00:00:00:1 6 10 -",
        "1717747750123456 5123 10 02-00-00-00-00-01 6 10 -",
        "1717747750123456 5123 10 02:00:00:00:00:0g 6 10 -",
        "1717747750123456 5123 10 02:00:00:00:00:01 257 10 -",
        "1717747750123456 5123 10 02:00:00:00:00:01 6 601 -",
        "1717747750123456 5123 10 02:00:00:00:00:01 6 10 ../../etc/passwd",
        "1717747750123456 5123 10 02:00:00:00:00:01 6 10 crash-/../x.pcapng",
        "1717747750123456 5123 10 02:00:00:00:00:01 6 10 crash-1.pcapng.pcapng",
        "1717747750123456 5123 10 02:00:00:00:00:01 6 10 crash-" + std::string(80, '1') + ".pcapng",
        std::string("1717747750123456 5123 10 02:00:00:00:00:01 6 10 -\0", 50),
    };
    for (const std::string &line : bad) {
        std::ofstream(folder + "/crashes") << line << "\n" << good << "\n" << line;
        const std::string told = folder +
                                 "/crashes: lines that tell of no crash are left out: 2; \"clear ip dhcp relay "
                                 "crashes\" removes it";
        EXPECT_EQ(crash_book_open(folder).text, line.empty() ? "" : told);
        EXPECT_THAT(crash_book_all(), SizeIs(1)) << line;
    }
    std::ofstream many(folder + "/crashes");
    for (int i = 0; i < 40; ++i) many << good << "\n";
    many.close();
    EXPECT_EQ(crash_book_open(folder).text, "");
    EXPECT_THAT(crash_book_all(), SizeIs(crash_book_size));
    std::ofstream(folder + "/crashes") << std::string(5000, '\n') << good;
    EXPECT_EQ(
        crash_book_open(folder).text,
        folder +
            "/crashes: earlier crashes are not known, see whether it is a file of the daemon's user: File too large");
    EXPECT_THAT(crash_book_all(), IsEmpty()) << "a file larger than any that is written";
}

TEST_F(CrashBook, WhatCannotBeReadOrWrittenIsSaidAndChangesNothingElse) {
    std::filesystem::create_directories(folder + "/crashes");
    EXPECT_EQ(
        crash_book_open(folder).text,
        folder +
            "/crashes: earlier crashes are not known, see whether it is a file of the daemon's user: Is a directory");
    EXPECT_EQ(crash_book_enter(crash), folder + "/crash-20240607T080910.123456Z.pcapng (" + folder +
                                           "/crashes cannot be written: Is a directory)");
    EXPECT_THAT(crash_book_all(), SizeIs(1));
}

}  // namespace

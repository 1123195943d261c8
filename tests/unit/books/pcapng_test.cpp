// SPDX-License-Identifier: Apache-2.0
// Captures: their bytes, what tshark reads in them, and which files are written to.
#include "books/pcapng.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <sys/resource.h>
#include <bit>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

using ravo::platform::pcapng_begin;
using ravo::platform::pcapng_file;
using ravo::platform::pcapng_frame;
using testing::HasSubstr;
using octets = std::vector<std::uint8_t>;

constexpr std::size_t head_size = 28 + 20;

struct Pcapng : testing::Test {
    std::string folder;
    std::string path;
    Pcapng() {
        char name[] = "/tmp/pcapng_test.XXXXXX";
        folder = mkdtemp(name);
        path = folder + "/a.pcapng";
        ravo::platform::pcapng_set_folders({folder});
    }
    ~Pcapng() override { std::filesystem::remove_all(folder); }

    std::string contents() const {
        std::stringstream text;
        text << std::ifstream(path, std::ios::binary).rdbuf();
        return text.str();
    }
    std::string tshark(const std::string &arguments) const {
        std::string text;
        FILE *pipe = ::popen(("tshark -n -r " + path + " " + arguments + " 2>" + folder + "/err").c_str(), "r");
        char buffer[512];
        while (pipe != nullptr && std::fgets(buffer, sizeof buffer, pipe) != nullptr) text += buffer;
        EXPECT_EQ(::pclose(pipe), 0) << std::ifstream(folder + "/err").rdbuf();
        return text;
    }
};

TEST_F(Pcapng, BlocksByteByByte) {
    static_assert(std::endian::native == std::endian::little, "the bytes below are those of such a host");
    octets out;
    pcapng_begin(out);
    EXPECT_EQ(out,
              (octets{0x0A, 0x0D, 0x0D, 0x0A, 28,   0,    0,    0,    0x4D, 0x3C, 0x2B, 0x1A, 1, 0, 0, 0,  // section
                      0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 28,   0,    0,    0,                 //
                      1,    0,    0,    0,    20,   0,    0,    0,    1,    0,    0,    0,    0, 0, 0, 0,
                      20,   0,    0,    0}));  // interface
    out.clear();
    pcapng_frame(out, 0x0001020304050607, octets{0xAA, 0xBB, 0xCC, 0xDD, 0xEE}, "abc");
    EXPECT_EQ(out, (octets{6,    0,    0,    0,    52,   0,    0,    0,    0, 0, 0, 0,  // type, length, interface
                           0x03, 0x02, 0x01, 0x00, 0x07, 0x06, 0x05, 0x04,              // time, high word first
                           5,    0,    0,    0,    5,    0,    0,    0,                 // captured, on the wire
                           0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0,    0,    0,                 // frame, padded
                           1,    0,    3,    0,    'a',  'b',  'c',  0,    0, 0, 0, 0,
                           52,   0,    0,    0}));  // comment, end, length
}

TEST_F(Pcapng, BlocksAreAlignedWhateverTheLengths) {
    for (std::size_t frame = 0; frame < 9; ++frame) {
        for (std::size_t comment = 0; comment < 9; ++comment) {
            octets out;
            pcapng_frame(out, 1, octets(frame, 1), std::string(comment, 'c'));
            EXPECT_EQ(out.size() % 4, 0u);
            EXPECT_EQ(out[4], out.size());
            EXPECT_EQ(out[out.size() - 4], out.size());
        }
    }
}

TEST_F(Pcapng, TsharkReadsFramesTimesAndComments) {
    pcapng_file file;
    ASSERT_EQ(file.open(path).text, "");
    const octets arp(60, 0xFF);
    ASSERT_EQ(file.write(1717747750123456, arp, "relayed (relayed to servers)").text, "");
    ASSERT_EQ(file.write(1717747751000001, octets(61, 2), std::string("\xC3\xA4 b")).text, "");
    EXPECT_EQ(tshark("-T fields -e frame.time_epoch -e frame.len -e frame.comment"),
              "1717747750.123456000\t60\trelayed (relayed to servers)\n1717747751.000001000\t61\t\xC3\xA4 b\n");
    EXPECT_EQ(file.size(), std::filesystem::file_size(path));
}

TEST_F(Pcapng, TagStandsInTheFrameAgain) {
    octets frame(14, 0xFF);
    frame[12] = 0x08;
    frame[13] = 0x06;
    octets out;
    pcapng_frame(out, 1, frame, "", octets{0x81, 0x00, 0xA0, 0x0A});
    EXPECT_EQ(octets(out.begin() + 20, out.begin() + 28), (octets{18, 0, 0, 0, 18, 0, 0, 0})) << "both lengths";
    EXPECT_EQ(octets(out.begin() + 38, out.begin() + 48), (octets{0xFF, 0xFF, 0x81, 0x00, 0xA0, 0x0A, 8, 6, 0, 0}));
    EXPECT_EQ(out[4], out.size());
    pcapng_file file;
    ASSERT_EQ(file.open(path).text, "");
    ASSERT_EQ(file.write(1, frame, "tagged", octets{0x81, 0x00, 0xA0, 0x0A}).text, "");
    ASSERT_EQ(file.write(1, octets(11, 1), "too short for one", octets{0x81, 0x00, 0xA0, 0x0A}).text, "");
    EXPECT_EQ(tshark("-T fields -e frame.len -e vlan.id -e vlan.priority"), "18\t10\t5\n11\t\t\n");
}

TEST_F(Pcapng, LongCommentsAreCut) {
    pcapng_file file;
    ASSERT_EQ(file.open(path).text, "");
    ASSERT_EQ(file.write(1, octets(60), std::string(70000, 'x')).text, "");
    EXPECT_EQ(tshark("-T fields -e frame.len"), "60\n");
}

// ---- Which files ----

TEST_F(Pcapng, NewFilesAreTheOwnersOnly) {
    umask(0);
    pcapng_file file;
    ASSERT_EQ(file.open(path).text, "");
    struct stat status {};
    ASSERT_EQ(stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600u);
    EXPECT_EQ(file.size(), head_size);
}

TEST_F(Pcapng, CapturesAndEmptyFilesAreReplaced) {
    std::ofstream(path) << "";
    {
        pcapng_file file;
        ASSERT_EQ(file.open(path).text, "");
        ASSERT_EQ(file.write(1, octets(60), "old").text, "");
    }
    pcapng_file file;
    ASSERT_EQ(file.open(path).text, "");
    EXPECT_EQ(contents().size(), head_size);
}

TEST_F(Pcapng, FileIsOneWritersAtATime) {
    pcapng_file second;
    {
        pcapng_file first;
        ASSERT_EQ(first.open(path).text, "");
        ASSERT_EQ(first.write(1, octets(60), "first").text, "");
        EXPECT_EQ(second.open(path).text, path + " is being captured to already; name another file");
        ASSERT_EQ(first.write(2, octets(60), "first again").text, "");
        EXPECT_EQ(tshark("-T fields -e frame.comment"), "first\nfirst again\n");
    }
    EXPECT_EQ(second.open(path).text, "");
}

TEST_F(Pcapng, OtherFilesStayAsTheyAre) {
    std::ofstream(path) << "precious";
    pcapng_file file;
    EXPECT_EQ(file.open(path).text, path + " exists and is no capture; name another file");
    EXPECT_EQ(contents(), "precious");
    std::ofstream(path) << "abc";
    EXPECT_EQ(file.open(path).text, path + " exists and is no capture; name another file") << "shorter than any mark";
}

TEST_F(Pcapng, WhatIsNoRegularFileIsRefused) {
    pcapng_file file;
    std::filesystem::create_directory(folder + "/d.pcapng");
    EXPECT_EQ(file.open(folder + "/d.pcapng").text, folder + "/d.pcapng is no regular file; name another");
    ASSERT_EQ(mkfifo((folder + "/p.pcapng").c_str(), 0600), 0);
    EXPECT_EQ(file.open(folder + "/p.pcapng").text, folder + "/p.pcapng is no regular file; name another");
    ASSERT_EQ(symlink(path.c_str(), (folder + "/l.pcapng").c_str()), 0);
    EXPECT_EQ(file.open(folder + "/l.pcapng").text, folder + "/l.pcapng is a symbolic link; name the file itself");
    EXPECT_FALSE(std::filesystem::exists(path));
    std::ofstream(path) << "";
    std::filesystem::create_hard_link(path, folder + "/h.pcapng");
    EXPECT_EQ(file.open(folder + "/h.pcapng").text, folder + "/h.pcapng has other names too; name another file");
}

TEST_F(Pcapng, NamesThatMeanSomethingElseAreRefused) {
    pcapng_file file;
    for (const char *name : {"a.pcapng", "a.pcap", "", "/tmp/x.sh", "/tmp/.pcapng", "/tmp/.pcap", "/tmp/x.pcapng/",
                             "/tmp/x.pcapn", ".pcap", "/.pcapng"})
        EXPECT_EQ(
            file.open(name).text,
            "\"" + std::string(name) + "\" is no file for a capture; give a whole path that ends in .pcapng or .pcap");
    EXPECT_EQ(file.open(folder + "/x.pcap").text, "");
    EXPECT_EQ(file.open(folder + "/no/x.pcapng").text,
              "cannot write " + folder + "/no/x.pcapng: No such file or directory");
}

TEST_F(Pcapng, FullDiskLeavesWholeFrames) {
    pcapng_file file;
    ASSERT_EQ(file.open(path).text, "");
    ASSERT_EQ(file.write(1, octets(1000), "first").text, "");
    // The limit on file sizes stands in for the disk: it cuts the next frame.
    signal(SIGXFSZ, SIG_IGN);
    rlimit before{};
    getrlimit(RLIMIT_FSIZE, &before);
    const rlimit small{1500, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
    const ravo::fault wrong = file.write(2, octets(1000), "second");
    setrlimit(RLIMIT_FSIZE, &before);
    EXPECT_EQ(wrong.text, "cannot write " + path + ": File too large");
    EXPECT_EQ(tshark("-T fields -e frame.comment"), "first\n");
}

TEST_F(Pcapng, OnlyWhereCapturesBelong) {
    const std::string inside = folder + "/captures", outside = folder + "/other", beside = folder + "/captures2";
    for (const std::string &one : {inside, inside + "/deep", outside, beside}) std::filesystem::create_directory(one);
    std::filesystem::create_symlink(outside, inside + "/link");
    std::filesystem::create_symlink(inside, outside + "/back");
    ravo::platform::pcapng_set_folders({folder + "/none", inside});
    const auto opened = [](const std::string &file) { return pcapng_file().open(file).text; };
    const std::string rest = " stands in no folder for captures (" + folder + "/none, " + inside +
                             "); name another file, or allow its folder: [capture] in the switch description";
    EXPECT_EQ(opened(inside + "/a.pcapng"), "");
    EXPECT_EQ(opened(inside + "/deep/a.pcapng"), "");
    EXPECT_EQ(opened(outside + "/back/b.pcapng"), "") << "where a link leads is what counts";
    EXPECT_TRUE(std::filesystem::exists(inside + "/b.pcapng"));
    for (const std::string &file : {outside + "/a.pcapng", beside + "/a.pcapng", inside + "/link/a.pcapng",
                                    inside + "/../other/a.pcapng", std::string("/a.pcapng")})
        EXPECT_EQ(opened(file), file + rest);
    EXPECT_TRUE(std::filesystem::is_empty(outside + "/../captures2"));
    EXPECT_FALSE(std::filesystem::exists(outside + "/a.pcapng"));
    ravo::platform::pcapng_set_folders({});
    EXPECT_THAT(opened(inside + "/a.pcapng"), HasSubstr("stands in no folder for captures ()"));
}

}  // namespace

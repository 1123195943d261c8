// SPDX-License-Identifier: Apache-2.0
// What a supervisor keeps for its child: what it is told, by whom it need not believe, and what the next child finds.
#include "process/kept_descriptors.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "child.h"

namespace {

using ravo::platform::descriptor;
using ravo::platform::kept_descriptors;

// A file of this name, in memory.
descriptor file(const std::string &name) {
    return descriptor(memfd_create(name.c_str(), MFD_CLOEXEC));
}

std::vector<descriptor> files(std::size_t count) {
    std::vector<descriptor> all;
    for (std::size_t i = 0; i < count; ++i) all.push_back(file(std::to_string(i)));
    return all;
}

void store(kept_descriptors &kept, const std::string &name, const std::string &content) {
    std::vector<descriptor> one;
    one.push_back(file(content));
    kept.take("FDSTORE=1\nFDPOLL=0\nFDNAME=" + name, std::move(one));
}

// What the program would find: the names, the file behind each number from 3 on, "!" behind one that it would not get.
std::string handed_over(const kept_descriptors &kept) {
    return child::run([&] {
               const int behind = kept.hand_over(memfd_create("behind", MFD_CLOEXEC));
               const char *count = getenv("LISTEN_FDS"), *names = getenv("LISTEN_FDNAMES"), *pid = getenv("LISTEN_PID");
               std::string text = std::string(count == nullptr ? "-" : count) + " " + (names == nullptr ? "-" : names) +
                                  " " + (pid != nullptr && pid == std::to_string(getpid()) ? "ours" : "-");
               for (int fd = 3; fd <= behind; ++fd) {
                   const auto link = std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd)).string();
                   text +=
                       " " + link.substr(7, link.find(' ') - 7) + ((fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0 ? "!" : "");
               }
               std::fprintf(stderr, "%s", text.c_str());
               return 0;
           })
        .told;
}

TEST(KeptDescriptors, AreGivenInTheirOrderWithTheirNames) {
    kept_descriptors kept;
    EXPECT_EQ(handed_over(kept), "- - - behind");
    store(kept, "packets", "a");
    store(kept, "udp-67", "b");
    EXPECT_EQ(handed_over(kept), "2 packets:udp-67 ours a b behind");
    kept.take("FDSTOREREMOVE=1\nFDNAME=packets", {});
    EXPECT_EQ(handed_over(kept), "1 udp-67 ours b behind");
    store(kept, "udp-67", "c");
    EXPECT_EQ(handed_over(kept), "1 udp-67 ours c behind") << "the name is one descriptor's";
}

TEST(KeptDescriptors, WhatIsSaidOtherwiseKeepsNothing) {
    kept_descriptors kept;
    for (const std::string text :
         {"", "\n", "FDSTORE=1", "FDNAME=x", "FDSTORE=1\nFDNAME=", "FDSTORE=0\nFDNAME=x", "FDSTORE=11\nFDNAME=x",
          "FDSTORE=1\nFDNAME=a:b", "FDSTORE=1\nFDNAME=a b", "FDSTORE=1\nFDNAME=\x80", "FDSTORE=1 FDNAME=x"})
        kept.take(text, files(1));
    kept.take("FDSTORE=1\nFDNAME=" + std::string(256, 'x'), files(1));
    kept.take("FDSTORE=1\nFDNAME=x", files(2));
    kept.take("FDSTORE=1\nFDNAME=x", {});
    EXPECT_EQ(kept.size(), 0U);
    kept.take("FDSTORE=1\nFDNAME=" + std::string(255, 'x'), files(1));
    EXPECT_EQ(kept.size(), 1U);
}

TEST(KeptDescriptors, AreSoManyAndNotOneMore) {
    kept_descriptors kept;
    for (std::size_t i = 0; i <= kept_descriptors::most; ++i) store(kept, std::to_string(i), "a");
    EXPECT_EQ(kept.size(), kept_descriptors::most);
    kept.take("FDSTOREREMOVE=1\nFDNAME=0", {});
    store(kept, "new", "a");
    EXPECT_EQ(kept.size(), kept_descriptors::most);
}

}  // namespace

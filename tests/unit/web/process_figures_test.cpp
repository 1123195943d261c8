// SPDX-License-Identifier: Apache-2.0
#include "process_figures.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace {

using ravo::web::process_figures;
using ravo::web::read_process;

struct ProcessFigures : testing::Test {
    std::filesystem::path root;
    ProcessFigures() {
        char name[] = "/tmp/ravo-proc-XXXXXX";
        root = mkdtemp(name);
        std::filesystem::create_directories(root / "7" / "fd");
    }
    ~ProcessFigures() override { std::filesystem::remove_all(root); }
    void write(const std::string &name, const std::string &text) const { std::ofstream(root / name) << text; }
};

TEST_F(ProcessFigures, AreReadWhateverTheProcessIsCalled) {
    write("stat", "cpu 1 2\nbtime 1000\n");
    write("7/stat", "7 (a) b) S 1 2 3 4 5 6 7 8 9 10 150 50 0 0 20 0 3 0 200 4096000 25 1 1\n");
    write("7/limits", "Limit\nMax open files            1024                 4096                 files\n");
    write("7/fd/0", "");
    write("7/fd/1", "");
    const process_figures p = read_process(7, root);
    const auto ticks = static_cast<double>(sysconf(_SC_CLK_TCK));
    EXPECT_EQ(p.cpu_seconds, 200 / ticks);
    EXPECT_EQ(p.threads, 3);
    EXPECT_EQ(p.start_seconds, 1000 + 200 / ticks);
    EXPECT_EQ(p.virtual_bytes, 4096000);
    EXPECT_EQ(p.resident_bytes, 25.0 * static_cast<double>(sysconf(_SC_PAGESIZE)));
    EXPECT_EQ(p.open_descriptors, 2);
    EXPECT_EQ(p.most_descriptors, 1024);
}

TEST_F(ProcessFigures, WhatCannotBeReadIsLeftOut) {
    write("7/stat", "7 (short) S 1 2");
    const process_figures p = read_process(7, root);
    EXPECT_FALSE(p.cpu_seconds || p.start_seconds || p.most_descriptors);
    EXPECT_FALSE(read_process(8, root).open_descriptors);
}

TEST_F(ProcessFigures, OfThisProcessAreThere) {
    const process_figures p = read_process(getpid());
    EXPECT_GT(p.resident_bytes, 0);
    EXPECT_GT(p.start_seconds, 1e9);
    EXPECT_GT(p.open_descriptors, 2);
}

}  // namespace

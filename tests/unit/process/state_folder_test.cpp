// SPDX-License-Identifier: Apache-2.0
// The folder for what is to be known again: which one, made when it is missing, and why not.
#include "process/state_folder.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace {

using ravo::platform::state_folder;
using ravo::platform::state_open;
using ravo::platform::state_path;

class StateFolder : public testing::Test {
  protected:
    std::string base = testing::TempDir() + "ravo-state-" + std::to_string(getpid());

    void SetUp() override {
        unsetenv("STATE_DIRECTORY");
        ASSERT_EQ(mkdir(base.c_str(), 0700), 0);
    }
    void TearDown() override {
        unsetenv("STATE_DIRECTORY");
        std::filesystem::remove_all(base);
    }
};

TEST_F(StateFolder, TheOneGivenIsMadeAndUsed) {
    setenv("STATE_DIRECTORY", "/nowhere/at/all", 1);
    EXPECT_EQ(state_open(base + "/new//").text, "");
    EXPECT_EQ(state_folder(), base + "/new");
    EXPECT_EQ(state_path("ports"), base + "/new/ports");
    struct stat status;
    ASSERT_EQ(stat(state_folder().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07027, 0U) << "not for everybody";
}

TEST_F(StateFolder, TheInitSystemsFirstOneIsUsedOtherwise) {
    setenv("STATE_DIRECTORY", (base + ":/var/lib/other").c_str(), 1);
    EXPECT_EQ(state_open("").text, "");
    EXPECT_EQ(state_folder(), base);
}

TEST_F(StateFolder, WithNeitherNothingIsRemembered) {
    EXPECT_EQ(
        state_open("").text,
        "state: no folder is given (--state, or StateDirectory= of the unit): numbers of ports and saved versions "
        "are not remembered");
    EXPECT_EQ(state_folder(), "");
    EXPECT_EQ(state_path("ports"), "");
}

TEST_F(StateFolder, OneThatCannotBeUsedIsTold) {
    const std::string why = ", numbers of ports and saved versions are not remembered: ";
    EXPECT_EQ(state_open(base + "/no/such").text,
              "state: " + base + "/no/such cannot be used" + why + "No such file or directory");
    EXPECT_EQ(state_folder(), "");
    std::ofstream(base + "/file") << "x";
    EXPECT_EQ(state_open(base + "/file").text, "state: " + base + "/file cannot be used" + why + "Not a directory");
}

}  // namespace

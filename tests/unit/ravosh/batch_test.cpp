// SPDX-License-Identifier: Apache-2.0
// Commands that are not typed, as far as they go without a daemon: what is said of a file or a daemon that is not
// there.
#include "batch.h"

#include <gtest/gtest.h>

#include <string>

#include "replace.h"

namespace {

using namespace ravo::client;

// The status and what went to standard error.
template <typename Run>
std::string said(const Run &run, int expected) {
    testing::internal::CaptureStderr();
    testing::internal::CaptureStdout();
    EXPECT_EQ(run(), expected);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    return testing::internal::GetCapturedStderr();
}

TEST(Batch, FileThatCannotBeOpened) {
    shell_options o;
    o.has_file = true;
    o.file = "/nonexistent/commands";
    EXPECT_EQ(said([&] { return run_batch(o); }, exit_unreachable),
              "ravosh: /nonexistent/commands: cannot open: No such file or directory\n");
}

TEST(Batch, DaemonThatIsNotThere) {
    shell_options o;
    o.socket = "/nonexistent/ravod.sock";
    o.commands = {"show version"};
    const std::string text = said([&] { return run_batch(o); }, exit_unreachable);
    EXPECT_EQ(text.substr(0, 8), "ravosh: ");
    EXPECT_NE(text.find("/nonexistent/ravod.sock"), std::string::npos) << text;
    EXPECT_EQ(text.find('\n'), text.size() - 1);
}

TEST(Batch, ReplacementThatCannotBeRead) {
    shell_options o;
    o.has_replace = true;
    o.replace = "/nonexistent/configuration";
    EXPECT_EQ(said([&] { return run_replace(o); }, exit_unreachable),
              "ravosh: /nonexistent/configuration: cannot read: No such file or directory\n");
}

}  // namespace

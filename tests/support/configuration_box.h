// SPDX-License-Identifier: Apache-2.0
// What the tests of configurations share: a folder with a start-up configuration, and its replay.
#ifndef CONFIGURATION_BOX_H
#define CONFIGURATION_BOX_H

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

#include "cli_box.h"
#include "configuration/configuration.h"
#include "process/frame.h"

namespace configuration_box {

// A folder of its own for each test, with the start-up configuration in it.
class Configuration : public testing::Test {
  protected:
    void SetUp() override {
        char name[] = "/tmp/ravo-cli-XXXXXX";
        ASSERT_NE(mkdtemp(name), nullptr);
        folder_ = name;
        path_ = folder_ + "/startup-config";
        ravo::platform::frame_options options;
        options.startup_config = path_;
        ravo::platform::frame_set_options(options);
    }
    void TearDown() override { std::filesystem::remove_all(folder_); }

    void write(std::string_view text) const { std::ofstream(path_, std::ios::binary) << text; }
    static std::string read(const std::string &path) {
        std::ifstream file(path, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    }
    // Replays a text; the reports without the file's path.
    std::vector<std::string> replay(std::string_view text, bool check_only = false) {
        write(text);
        std::vector<std::string> out;
        result_ = ravo::cli::replay_file(path_, /*optional=*/false, check_only, [&](const std::string &line) {
            EXPECT_TRUE(line.starts_with(path_ + ":")) << line;
            out.push_back(line.substr(path_.size() + 1));
        });
        return out;
    }
    static std::vector<std::string> lines_called() {
        std::vector<std::string> out;
        for (const cli_box::call &each : cli_box::calls) {
            std::string line = each.interface.empty() ? "" : each.interface + ": ";
            line += cli_box::relay_commands()[each.command].text;
            for (const std::string &argument : each.arguments) line += " (" + argument + ")";
            out.push_back(line);
        }
        return out;
    }

    std::string folder_;
    std::string path_;
    int result_ = 0;
    cli_box::shell shell_;
};

}  // namespace configuration_box

#endif

// SPDX-License-Identifier: Apache-2.0
// What the tests of the switch description share: a file, what is read of it, and its faults.
#ifndef SWITCH_DESCRIPTION_BOX_H
#define SWITCH_DESCRIPTION_BOX_H

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "inventory/switch_description.h"

namespace switch_box {

using ravo::platform::switch_description;

struct SwitchDescription : testing::Test {
    std::string folder;
    std::string path;
    SwitchDescription() {
        char name[] = "/tmp/switch_test.XXXXXX";
        folder = mkdtemp(name);
        path = folder + "/switch.toml";
    }
    ~SwitchDescription() override { std::filesystem::remove_all(folder); }

    switch_description good(const std::string &text) const {
        std::ofstream(path) << text;
        switch_description out;
        EXPECT_EQ(ravo::platform::switch_description_read(path, false, &out).text, "");
        return out;
    }

    // The faults without the file's name, which each of them begins with.
    std::vector<std::string> faults(const std::string &text) const {
        std::ofstream(path) << text;
        const switch_description before{{{"kept", 1, 1}}, {}};
        switch_description out = before;
        std::vector<std::string> lines = ravo::platform::switch_description_check(path, false, &out);
        EXPECT_EQ(out, before) << "a faulty description must not be used in part";
        const ravo::fault first = ravo::platform::switch_description_read(path, false, &out);
        EXPECT_FALSE(lines.empty());
        EXPECT_EQ(first.text, lines.empty() ? "" : lines.front());
        for (std::string &line : lines) {
            EXPECT_EQ(line.substr(0, path.size() + 1), path + ":");
            line.erase(0, path.size() + 1);
        }
        return lines;
    }
};

}  // namespace switch_box

#endif

// SPDX-License-Identifier: Apache-2.0
// The switch description: the whole line for each fault.
#include "inventory/switch_description.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "switch_description_box.h"

namespace {

using ravo::platform::described_guard;
using ravo::platform::described_limit;
using ravo::platform::described_management;
using ravo::platform::described_port;
using ravo::platform::switch_description;
using ravo::platform::switch_description_check;
using ravo::platform::switch_description_read;
using switch_box::SwitchDescription;
using testing::ElementsAre;
using testing::IsEmpty;

// ---- The file itself ----

TEST_F(SwitchDescription, MissingFileIsAnEmptyDescriptionWhenOptional) {
    switch_description out{{{"old", 1, 1}}, {}};
    EXPECT_EQ(switch_description_read(path, true, &out).text, "");
    EXPECT_EQ(out, switch_description{});
}

TEST_F(SwitchDescription, MissingFileThatWasNamedIsAFault) {
    switch_description out;
    EXPECT_EQ(switch_description_read(path, false, &out).text,
              path +
                  ": cannot read the switch description: No such file or directory; name a readable file with "
                  "--switch");
}

TEST_F(SwitchDescription, FolderInItsPlaceIsAFaultEvenWhenOptional) {
    switch_description out;
    EXPECT_EQ(switch_description_read(folder, true, &out).text,
              folder + ": cannot read the switch description: Is a directory; name a readable file with --switch");
}

TEST_F(SwitchDescription, HugeFileIsAFault) {
    std::ofstream(path) << std::string(5 * 1024 * 1024, '#');
    switch_description out;
    EXPECT_EQ(switch_description_read(path, false, &out).text,
              path + ": cannot read the switch description: File too large; name a readable file with --switch");
}

// ---- Syntax ----

TEST_F(SwitchDescription, SyntaxErrorIsPlaced) {
    const std::vector<std::string> lines = faults("[[port]]\ndevice = \"swp1\nmodule = 1\n");
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines[0].substr(0, 5), "2:15:") << lines[0];
}

TEST_F(SwitchDescription, KeyTwiceInOneTableIsASyntaxError) {
    const std::vector<std::string> lines = faults("[[port]]\nmodule = 1\nmodule = 2\n");
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines[0].substr(0, 2), "3:") << lines[0];
}

TEST_F(SwitchDescription, EveryCutOfAGoodFileIsReadOrRefused) {
    const std::string whole =
        "[[port]]\ndevice = \"swp1\"\nmodule = 1\nport = 1\n[[interface]]\nvlan = 30\ndevice = \"e\"\n";
    for (std::size_t length = 0; length < whole.size(); ++length) {
        std::ofstream(path) << whole.substr(0, length);
        switch_description out;
        const ravo::fault wrong = switch_description_read(path, false, &out);
        EXPECT_EQ(wrong.text.find('\n'), std::string::npos) << wrong.text;
        EXPECT_TRUE(!wrong || out == switch_description{}) << length;
    }
}

TEST_F(SwitchDescription, KeysThatBeginWrong) {
    EXPECT_THAT(faults("[."), ElementsAre("1:2: Error while parsing key: expected bare key starting character or "
                                          "string delimiter, saw '.'"));
    for (const char *text : {"[..", "[a.", "[.a]", "[[.", "[ .", "[", "[[", ".", "=", "a.", "[a..b]", "[]", "a.=1"})
        EXPECT_EQ(faults(text).size(), 1U) << text;
}

// ---- Keys and tables ----

TEST_F(SwitchDescription, UnknownTableOrKeyAtTheTop) {
    EXPECT_THAT(
        faults("[ports]\nx = 1\n"),
        ElementsAre("1:2: unknown table \"ports\"; there are [[port]], [[interface]], [channel], [limit], [guard], "
                    "[settings], [management] and [capture]"));
    EXPECT_THAT(faults("\n[[vlan]]\n"),
                ElementsAre("2:3: unknown table \"vlan\"; there are [[port]], [[interface]], "
                            "[channel], [limit], [guard], [settings], [management] and [capture]"));
    EXPECT_THAT(
        faults("hostname = \"x\"\n"),
        ElementsAre("1:1: unknown key \"hostname\"; there are [[port]], [[interface]], [channel], [limit], [guard], "
                    "[settings], [management] and [capture]"));
}

TEST_F(SwitchDescription, UnknownKeyInATable) {
    EXPECT_THAT(faults("[[port]]\ndevice = \"a\"\nmodule = 1\nport = 1\nspeed = 10\n"),
                ElementsAre("5:1: unknown key \"speed\" in [[port]]; it has device, module, port, trap, limit, burst, "
                            "servers, trusted and clients"));
    EXPECT_THAT(faults("[[interface]]\nvlan = 1\ndevice = \"a\"\nVlan = 2\n"),
                ElementsAre("4:1: unknown key \"Vlan\" in [[interface]]; it has vlan and device"));
}

TEST_F(SwitchDescription, KeyThatBreaksTheLineStaysOneLine) {
    EXPECT_THAT(faults("\"a\\nb\" = 1\n"),
                ElementsAre("1:1: unknown key \"a b\"; there are [[port]], [[interface]], "
                            "[channel], [limit], [guard], [settings], [management] and [capture]"));
}

TEST_F(SwitchDescription, SingleTableInsteadOfAList) {
    EXPECT_THAT(faults("[port]\ndevice = \"a\"\n"),
                ElementsAre("1:1: expected [[port]], not [port]; each one is a table of a list"));
    EXPECT_THAT(faults("interface = 3\n"),
                ElementsAre("1:13: expected [[interface]], not a number; each one is a table of a list"));
    EXPECT_THAT(faults("port = [1]\n"), ElementsAre("1:9: expected [[port]], not a number"));
}

TEST_F(SwitchDescription, MissingKeys) {
    EXPECT_THAT(faults("[[port]]\nmodule = 1\nport = 1\n"),
                ElementsAre("1:1: [[port]] without \"device\"; it needs device, module and port"));
    EXPECT_THAT(faults("[[port]]\ndevice = \"a\"\nport = 1\n"),
                ElementsAre("1:1: [[port]] without \"module\"; it needs device, module and port"));
    EXPECT_THAT(faults("[[port]]\ndevice = \"a\"\nmodule = 1\n"),
                ElementsAre("1:1: [[port]] without \"port\"; it needs device, module and port"));
    EXPECT_THAT(faults("\n[[interface]]\n"),
                ElementsAre("2:1: [[interface]] without \"vlan\"; it needs vlan and device",
                            "2:1: [[interface]] without \"device\"; it needs vlan and device"));
}

// ---- Values ----

TEST_F(SwitchDescription, ValuesOfTheWrongType) {
    EXPECT_THAT(faults("[[port]]\ndevice = 1\nmodule = \"1\"\nport = 1.5\n"),
                ElementsAre("2:10: \"device\" must be a device's name in quotes, not a number",
                            "3:10: \"module\" must be a number from 1 to 255, not a text",
                            "4:8: \"port\" must be a number from 0 to 63, not a number with a fraction"));
    EXPECT_THAT(faults("[[interface]]\nvlan = true\ndevice = [\"a\"]\n"),
                ElementsAre("2:8: \"vlan\" must be a number from 1 to 4094, not true or false",
                            "3:10: \"device\" must be a device's name in quotes, not a list"));
    EXPECT_THAT(faults("[[interface]]\nvlan = 2024-01-01\ndevice = {}\n"),
                ElementsAre("2:8: \"vlan\" must be a number from 1 to 4094, not a date or time",
                            "3:10: \"device\" must be a device's name in quotes, not a table"));
}

TEST_F(SwitchDescription, NumbersOutOfRange) {
    const auto port = [](const std::string &module, const std::string &number) {
        return "[[port]]\ndevice = \"a\"\nmodule = " + module + "\nport = " + number + "\n";
    };
    EXPECT_THAT(faults(port("0", "1")), ElementsAre("3:10: module 0 is out of range; it must be 1 to 255"));
    EXPECT_THAT(faults(port("256", "1")), ElementsAre("3:10: module 256 is out of range; it must be 1 to 255"));
    EXPECT_THAT(faults(port("-1", "1")), ElementsAre("3:10: module -1 is out of range; it must be 1 to 255"));
    EXPECT_THAT(faults(port("4294967297", "1")),
                ElementsAre("3:10: module 4294967297 is out of range; it must be 1 to 255"));
    EXPECT_THAT(faults(port("1", "0")), ElementsAre("4:8: port 0 is out of range; it must be 1 to 63"));
    EXPECT_THAT(faults(port("1", "64")), ElementsAre("4:8: port 64 is out of range; it must be 1 to 63"));
    EXPECT_THAT(faults(port("2", "64")), ElementsAre("4:8: port 64 is out of range; it must be 0 to 63"));
    EXPECT_THAT(faults("[[interface]]\nvlan = 0\ndevice = \"a\"\n"),
                ElementsAre("2:8: vlan 0 is out of range; it must be 1 to 4094"));
    EXPECT_THAT(faults("[[interface]]\nvlan = 4095\ndevice = \"a\"\n"),
                ElementsAre("2:8: vlan 4095 is out of range; it must be 1 to 4094"));
}

TEST_F(SwitchDescription, NamesThatAreNoDeviceNames) {
    const auto interface = [](const std::string &device) {
        return "[[interface]]\nvlan = 1\ndevice = \"" + device + "\"\n";
    };
    EXPECT_THAT(faults(interface("")), ElementsAre("3:10: \"device\" is empty; give the name of a network device"));
    EXPECT_THAT(faults(interface("a234567890123456")),
                ElementsAre("3:10: device \"a234567890123456\" is too long; a device name has at most 15 bytes"));
    for (const char *name : {"a b", "a/b", "a:1", "..", "a\\tb", "a\\u0000"})
        EXPECT_THAT(faults(interface(name)),
                    ElementsAre("3:10: \"device\" cannot be a network device's name; one has no blanks, control "
                                "characters, \"/\" or \":\""))
            << name;
}

// ---- Things that may not stand twice ----

TEST_F(SwitchDescription, PortNumberTwice) {
    EXPECT_THAT(
        faults("[[port]]\ndevice = \"a\"\nmodule = 1\nport = 1\n[[port]]\ndevice = \"b\"\nmodule = 1\nport = 1\n"),
        ElementsAre("8:8: port 1/1 is already in line 4; give each port a number of its own"));
}

TEST_F(SwitchDescription, PortDeviceTwice) {
    EXPECT_THAT(
        faults("[[port]]\ndevice = \"a\"\nmodule = 1\nport = 1\n[[port]]\ndevice = \"a\"\nmodule = 2\nport = 1\n"),
        ElementsAre("6:10: port device \"a\" is already in line 2; name it once"));
}

TEST_F(SwitchDescription, VlanTwice) {
    EXPECT_THAT(faults("[[interface]]\nvlan = 1\ndevice = \"a\"\n[[interface]]\nvlan = 1\ndevice = \"b\"\n"),
                ElementsAre("5:8: vlan 1 is already in line 2; name one device for it"));
}

TEST_F(SwitchDescription, InterfaceDeviceTwice) {
    EXPECT_THAT(faults("[[interface]]\nvlan = 1\ndevice = \"a\"\n[[interface]]\nvlan = 2\ndevice = \"a\"\n"),
                ElementsAre("6:10: interface device \"a\" is already in line 3; a device carries one VLAN"));
}

TEST_F(SwitchDescription, AllFaultsAreToldInOrderOfTheirPlace) {
    EXPECT_THAT(
        faults("[[port]]\ndevice = \"a\"\nmodule = 0\nport = 64\n[[interface]]\nvlan = 0\ndevice = \"a\"\n[x]\n"),
        ElementsAre(
            "3:10: module 0 is out of range; it must be 1 to 255", "4:8: port 64 is out of range; it must be 0 to 63",
            "6:8: vlan 0 is out of range; it must be 1 to 4094",
            "8:2: unknown table \"x\"; there are [[port]], [[interface]], [channel], [limit], [guard], [settings], "
            "[management] and [capture]"));
}
TEST_F(SwitchDescription, WhatIsNoText) {
    EXPECT_THAT(faults("[limit]\nport = 5 # \xFC\n"), ElementsAre("2:12: what stands here is not UTF-8"));
    EXPECT_THAT(faults("\xE0\xCD"), ElementsAre("1:1: what stands here is not UTF-8"));
}

}  // namespace

// SPDX-License-Identifier: Apache-2.0
// Port numbers by themselves: what a device gets and why, what it keeps and loses, and what is remembered.
#include "inventory/inventory_ports.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "log/log.h"

namespace {

using ravo::platform::first_port_number;
using ravo::platform::last_port_number;
using ravo::platform::natural_less;
using ravo::platform::port_device;
using ravo::platform::port_reason_word;
using ravo::platform::port_table;
using ravo::platform::port_table_describe;
using ravo::platform::port_table_forget;
using ravo::platform::port_table_give;
using ravo::platform::port_table_gone;
using ravo::platform::port_table_number;
using ravo::platform::port_table_read;
using ravo::platform::port_table_text;
using ravo::platform::switch_description;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr char head[] =
    "# ravod's own: device, port, why, and since when it is away (microseconds since 1970; 0: there)\n";

class PortTable : public testing::Test {
  protected:
    port_table table_;
    std::vector<std::uint32_t> in_use_;  // by transactions that are open

    void give(const std::vector<port_device> &devices) {
        port_table_give(&table_, devices, [this](std::uint32_t number) {
            return std::find(in_use_.begin(), in_use_.end(), number) != in_use_.end();
        });
    }
    // "5121 next free", or "none".
    std::string number_of(const std::string &device) const {
        const auto found = table_.of_device.find(device);
        if (found == table_.of_device.end()) return "none";
        return std::to_string(found->second.number) + " " + std::string(port_reason_word(found->second.reason));
    }
    void gone(const std::string &device, std::int64_t when = 1000) { port_table_gone(&table_, device, when); }
    void describe(const std::vector<ravo::platform::described_port> &ports) {
        switch_description description;
        description.ports = ports;
        port_table_describe(&table_, description);
    }
    // The same numbers in another life of the process.
    void restart() {
        const std::string text = port_table_text(table_);
        table_ = {};
        EXPECT_THAT(port_table_read(&table_, text, 2000), IsEmpty());
    }
};

// ---- The first that fits ----

TEST_F(PortTable, TheKernelNumberCountsWhereItIsAPortsNumber) {
    give({{"swp1", 5121, ""}, {"swp9", 5129, ""}, {"last", 7167, ""}, {"beyond", 7168, ""}, {"below", 5120, ""}});
    EXPECT_EQ(number_of("swp1"), "5121 kernel index");
    EXPECT_EQ(number_of("swp9"), "5129 kernel index");
    EXPECT_EQ(number_of("last"), "7167 kernel index");
    EXPECT_EQ(number_of("below"), "5122 next free");
    EXPECT_EQ(number_of("beyond"), "5123 next free");
}

TEST_F(PortTable, TheDriversNameCountsBeforeTheDevices) {
    give({{"swp1", 7, "p8"},
          {"swp2", 8, "p1"},
          {"swp3", 9, "p3s0"},
          {"swp8", 10, ""},
          {"x", 11, "p64"},
          {"y", 12, "q5"}});
    EXPECT_EQ(number_of("swp1"), "5128 port name");
    EXPECT_EQ(number_of("swp2"), "5121 port name");
    EXPECT_EQ(number_of("swp3"), "5123 name") << "a part of a port is no port";
    EXPECT_EQ(number_of("swp8"), "5122 next free") << "swp1 is called so by its driver";
    EXPECT_EQ(number_of("x"), "5124 next free");
    EXPECT_EQ(number_of("y"), "5125 next free");
}

TEST_F(PortTable, ANameOfLettersAndOneNumberSaysWhichPort) {
    give({{"swp7", 2, ""}, {"lan63", 3, ""}, {"eth08", 4, ""}});
    EXPECT_EQ(number_of("swp7"), "5127 name");
    EXPECT_EQ(number_of("lan63"), "5183 name");
    EXPECT_EQ(number_of("eth08"), "5128 name");
    give({{"eth0", 5, ""}, {"lan64", 6, ""}, {"enp3s0", 7, ""}, {"7", 8, ""}, {"swp", 9, ""}, {"a7b", 10, ""}});
    EXPECT_EQ(number_of("7"), "5121 next free");
    EXPECT_EQ(number_of("a7b"), "5122 next free");
    EXPECT_EQ(number_of("enp3s0"), "5123 next free");
    EXPECT_EQ(number_of("eth0"), "5124 next free");
    EXPECT_EQ(number_of("lan64"), "5125 next free");
    EXPECT_EQ(number_of("swp"), "5126 next free");
}

TEST_F(PortTable, TwoNamesThatClaimOneNumberBothGetFreeOnes) {
    give({{"swp2", 3, ""}, {"swp1", 2, ""}, {"eth1", 4, ""}});
    EXPECT_EQ(number_of("swp2"), "5122 name");
    EXPECT_EQ(number_of("eth1"), "5121 next free");
    EXPECT_EQ(number_of("swp1"), "5123 next free");
}

TEST_F(PortTable, ALaterClaimantGetsAFreeOne) {
    give({{"swp1", 2, ""}});
    give({{"eth1", 3, ""}});
    EXPECT_EQ(number_of("swp1"), "5121 name");
    EXPECT_EQ(number_of("eth1"), "5122 next free");
}

TEST_F(PortTable, FreeNumbersGoInTheNaturalOrderOfNames) {
    give({{"veth10x", 2, ""}, {"veth9x", 3, ""}, {"alpha", 4, ""}, {"Beta", 5, ""}});
    EXPECT_EQ(number_of("Beta"), "5121 next free");
    EXPECT_EQ(number_of("alpha"), "5122 next free");
    EXPECT_EQ(number_of("veth9x"), "5123 next free");
    EXPECT_EQ(number_of("veth10x"), "5124 next free");
    EXPECT_TRUE(natural_less("a2", "a10"));
    EXPECT_FALSE(natural_less("a10", "a2"));
    EXPECT_TRUE(natural_less("a", "a1"));
    EXPECT_TRUE(natural_less("a01b", "a1c"));
    EXPECT_FALSE(natural_less("a1", "a1"));
}

// ---- What was given stays ----

TEST_F(PortTable, ADeviceThatComesBackHasItsNumber) {
    give({{"tapx", 2, ""}, {"tapy", 3, ""}});
    gone("tapx");
    give({{"tapz", 4, ""}});
    EXPECT_EQ(number_of("tapz"), "5123 next free") << "tapx keeps 5121";
    give({{"tapx", 99, "p7"}});
    EXPECT_EQ(number_of("tapx"), "5121 next free") << "a guess, also once remembered";
}

TEST_F(PortTable, TheKernelNumberFollowsARename) {
    give({{"swp1", 5121, ""}});
    gone("swp1");
    give({{"front1", 5121, ""}});
    EXPECT_EQ(number_of("front1"), "5121 kernel index");
    EXPECT_EQ(number_of("swp1"), "none");
    give({{"swp1", 7, ""}});
    EXPECT_EQ(number_of("swp1"), "5122 next free") << "another device of the old name";
}

TEST_F(PortTable, ADeviceWhoseKernelNumberChangedKeepsThePortsNumber) {
    give({{"swp1", 5121, ""}});
    gone("swp1");
    give({{"swp1", 5300, ""}});
    EXPECT_EQ(number_of("swp1"), "5121 earlier");
}

TEST_F(PortTable, AKernelNumberThatAnotherPortHasIsNotTakenFromIt) {
    give({{"eth1", 3, ""}});
    give({{"late", 5121, ""}});
    EXPECT_EQ(number_of("late"), "5122 next free");
    EXPECT_THAT(ravo::platform::log_recent(),
                Contains(HasSubstr("late cannot be port number 5121, which eth1 has; it gets 5122")));
}

// ---- The description ----

TEST_F(PortTable, TheDescriptionTakesANumberOver) {
    give({{"swp1", 5121, ""}});
    describe({{"eth7", 1, 1}});
    give({{"eth7", 7, ""}, {"swp1", 5121, ""}});
    EXPECT_EQ(number_of("eth7"), "5121 description");
    EXPECT_EQ(number_of("swp1"), "5122 next free");
    give({{"front1", 5121, ""}});
    EXPECT_EQ(number_of("front1"), "5123 next free") << "described numbers do not follow the kernel's";
}

TEST_F(PortTable, DescribedPortsMayChangePlaces) {
    describe({{"a", 1, 1}, {"b", 1, 2}});
    describe({{"a", 1, 2}, {"b", 1, 1}});
    EXPECT_EQ(number_of("a"), "5122 description");
    EXPECT_EQ(number_of("b"), "5121 description");
}

TEST_F(PortTable, WhatIsDescribedNoMoreKeepsItsNumber) {
    describe({{"a", 3, 7}});
    give({{"a", 2, ""}});
    describe({});
    EXPECT_EQ(number_of("a"), "5255 earlier");
    describe({{"a", 3, 7}});
    EXPECT_EQ(number_of("a"), "5255 description");
}

TEST_F(PortTable, AGuessBecomesADescribedNumber) {
    give({{"tapx", 2, ""}});
    describe({{"tapx", 1, 1}});
    EXPECT_EQ(number_of("tapx"), "5121 description");
}

// ---- Numbers do not run out ----

class FullPortTable : public PortTable {
  protected:
    void SetUp() override {
        std::vector<port_device> devices;
        for (std::uint32_t number = first_port_number; number <= last_port_number; ++number)
            devices.push_back({"d" + std::to_string(number) + "x", 2, ""});
        give(devices);
        ASSERT_EQ(number_of("d5130x"), "5130 next free");
        ASSERT_EQ(number_of("d21439x"), "21439 next free");
    }
};

TEST_F(FullPortTable, WithAllOfThemThereNothingIsLeft) {
    give({{"more", 2, ""}});
    EXPECT_EQ(number_of("more"), "none");
    EXPECT_EQ(port_table_number(table_, "more"), 0U);
    EXPECT_THAT(ravo::platform::log_recent(), Contains(HasSubstr("no port number is left for more")));
}

TEST_F(FullPortTable, TheLongestAbsentGivesItsNumberUp) {
    gone("d6000x", 300);
    gone("d7000x", 100);
    gone("d8000x", 200);
    give({{"one", 2, ""}});
    give({{"two", 2, ""}});
    EXPECT_EQ(number_of("one"), "7000 next free");
    EXPECT_EQ(number_of("two"), "8000 next free");
    EXPECT_EQ(number_of("d7000x"), "none");
    give({{"d8000x", 2, ""}});
    EXPECT_EQ(number_of("d8000x"), "6000 next free") << "back, but its number is another's";
    give({{"d6000x", 2, ""}});
    EXPECT_EQ(number_of("d6000x"), "none");
}

TEST_F(FullPortTable, NeverOneThatAnOpenTransactionNames) {
    gone("d7000x", 100);
    gone("d8000x", 200);
    in_use_ = {7000};
    give({{"one", 2, ""}});
    EXPECT_EQ(number_of("one"), "8000 next free");
    give({{"two", 2, ""}});
    EXPECT_EQ(number_of("two"), "none");
    in_use_.clear();
    give({{"two", 2, ""}});
    EXPECT_EQ(number_of("two"), "7000 next free");
}

TEST_F(FullPortTable, ADescribedPortThatIsAwayKeepsItsNumber) {
    describe({{"d7000x", 30, 24}});
    gone("d7000x", 100);
    give({{"one", 2, ""}});
    EXPECT_EQ(number_of("one"), "none");
}

TEST_F(PortTable, OnAHypervisorWhoseDevicesComeAndGoEachGetsANumber) {
    for (int i = 0; i < 18000; ++i) {  // more than there are numbers
        const std::string name = "tap" + std::to_string(i) + "i0";
        give({{name, 10000 + i, ""}});
        ASSERT_NE(port_table_number(table_, name), 0U) << name;
        gone(name, 1000 + i);
    }
    EXPECT_EQ(table_.of_device.size(), last_port_number - first_port_number + 1);
}

TEST_F(PortTable, ForgettingLeavesWhatIsThereOrDescribed) {
    describe({{"front", 2, 1}});
    give({{"tapx", 2, ""}, {"tapy", 3, ""}, {"front", 4, ""}});
    gone("tapx");
    gone("front");
    EXPECT_EQ(port_table_forget(&table_), 1U);
    EXPECT_EQ(number_of("tapx"), "none");
    EXPECT_EQ(number_of("tapy"), "5122 next free");
    EXPECT_EQ(number_of("front"), "5185 description");
    in_use_ = {5121};
    give({{"tapz", 5, ""}});
    EXPECT_EQ(number_of("tapz"), "5123 next free") << "a transaction of tapx is open";
}

// ---- Remembered ----

TEST_F(PortTable, IsWrittenAsOneLineAPort) {
    describe({{"front", 2, 1}});
    give({{"swp3", 2, ""}, {"tapx", 3, ""}, {"idx", 5130, ""}, {"q", 9, "p5"}, {"front", 4, ""}});
    gone("tapx", 1234567);
    EXPECT_EQ(port_table_text(table_), std::string(head) +
                                           "tapx 1/1 free 1234567\nswp3 1/3 name 0\nq 1/5 port-name 0\n"
                                           "idx 1/10 index 0\nfront 2/1 description 0\n");
}

TEST_F(PortTable, TheSameDevicesHaveTheSameNumbersAfterARestart) {
    give({{"beta", 2, ""}});
    give({{"alpha", 3, ""}, {"swp7", 4, ""}});
    restart();
    give({{"swp7", 14, ""}, {"alpha", 15, ""}, {"beta", 16, ""}, {"gamma", 17, ""}});
    EXPECT_EQ(number_of("beta"), "5121 next free");
    EXPECT_EQ(number_of("alpha"), "5122 next free");
    EXPECT_EQ(number_of("gamma"), "5123 next free");
    EXPECT_EQ(number_of("swp7"), "5127 name");
}

TEST_F(PortTable, WhatADescriptionSaysOutweighsWhatIsRemembered) {
    give({{"alpha", 2, ""}, {"beta", 3, ""}});
    const std::string text = port_table_text(table_);
    table_ = {};
    describe({{"beta", 1, 1}});
    EXPECT_THAT(port_table_read(&table_, text, 2000), IsEmpty());
    give({{"alpha", 2, ""}, {"beta", 3, ""}});
    EXPECT_EQ(number_of("beta"), "5121 description");
    EXPECT_EQ(number_of("alpha"), "5122 next free");
}

TEST_F(PortTable, WhatWasDescribedBeforeTheRestartIsNoGuess) {
    describe({{"alpha", 4, 4}});
    give({{"alpha", 2, ""}});
    restart();
    give({{"alpha", 2, ""}});
    EXPECT_EQ(number_of("alpha"), "5316 earlier");
}

TEST_F(PortTable, LinesThatSayNothingSensibleAreLeftOut) {
    EXPECT_THAT(
        port_table_read(&table_,
                        "# comment\n\nok 1/5 free 0\nonly\nx 1/0 free 0\nx 256/1 free 0\nx 1/6 because 0\n"
                        "x 1/6 free\nx 1/6 free -1\nx 1/6 free 12x\nx 1/6 free 99999999999999999999\n"
                        "twice 1/7 free 0\ntwice 1/8 free 0\nother 1/7 free 0\n /6 free 0\nend 1/9 name 5",
                        2000),
        ElementsAre("4: not a device, a port, a reason and a time", "5: not a device, a port, a reason and a time",
                    "6: not a device, a port, a reason and a time", "7: not a device, a port, a reason and a time",
                    "8: not a device, a port, a reason and a time", "9: not a device, a port, a reason and a time",
                    "10: not a device, a port, a reason and a time", "11: not a device, a port, a reason and a time",
                    "15: not a device, a port, a reason and a time"));
    EXPECT_EQ(port_table_text(table_), std::string(head) + "ok 1/5 free 2000\ntwice 1/7 free 2000\nend 1/9 name 5\n");
    EXPECT_FALSE(table_.changed);
}

TEST_F(PortTable, EveryPrefixOfAFileIsRead) {
    give({{"swp3", 2, ""}, {"tapx", 3, ""}});
    const std::string text = port_table_text(table_);
    for (std::size_t length = 0; length <= text.size(); ++length) {
        port_table read;
        (void)port_table_read(&read, std::string_view(text).substr(0, length), 1);
        EXPECT_LE(read.of_device.size(), 2U) << length;
    }
}

}  // namespace

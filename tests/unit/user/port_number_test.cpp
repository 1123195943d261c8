// SPDX-License-Identifier: Apache-2.0
// Port numbers: module and port, range, text.
#include "port_number.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

std::string text_of(std::uint32_t number) {
    char text[PORT_NUMBER_TEXT_SIZE];
    return port_number_text(number, text);
}

TEST(PortNumber, EveryPortOfEveryModuleHasANumberOfItsOwn) {
    std::uint32_t expected = PORT_NUMBER_FIRST;
    for (std::uint32_t module = 1; module <= PORT_NUMBER_MODULES; ++module) {
        for (std::uint32_t port = module == 1 ? 1 : 0; port < PORT_NUMBER_PORTS; ++port) {
            const std::uint32_t number = port_number_of(module, port);
            ASSERT_EQ(number, expected++) << module << '/' << port;
            ASSERT_TRUE(port_number_is_port(number));
            ASSERT_EQ(port_number_place(number).module, module);
            ASSERT_EQ(port_number_place(number).port, port);
        }
    }
    EXPECT_EQ(expected, PORT_NUMBER_LAST + 1U);
}

TEST(PortNumber, WhatIsNoPortHasNone) {
    EXPECT_EQ(port_number_of(0, 1), 0U);
    EXPECT_EQ(port_number_of(1, 0), 0U);  // the bare base
    EXPECT_EQ(port_number_of(1, 64), 0U);
    EXPECT_EQ(port_number_of(256, 1), 0U);
    for (const std::uint32_t number : {0U, 1U, 5120U, 21440U, 0x80000000U, 0xFFFFFFFFU})
        EXPECT_FALSE(port_number_is_port(number)) << number;
}

TEST(PortNumber, ModuleAndPortOfAnyNumberAreCutToBytes) {
    struct row {
        std::uint32_t number;
        std::uint8_t module;
        std::uint8_t port;
    };
    const std::vector<row> rows = {
        {0, 0, 0},              // unknown
        {5120, 1, 0},           //
        {5121, 1, 1},           //
        {5183, 1, 63},          //
        {5184, 2, 0},           //
        {5185, 2, 1},           //
        {5210, 2, 26},          //
        {1, 178, 193},          // (1 - 5120) / 64 = -79, + 1 = -78; remainder -63
        {21440, 0, 0},          // module 256
        {0x7FFFFFFF, 176, 63},  // (2147483647 - 5120) / 64 + 1 = 33554352
        {0x80000000, 0, 0},     // negative
        {0xFFFFFFFF, 0, 0},     // negative
    };
    for (const row &each : rows) {
        EXPECT_EQ(port_number_place(each.number).module, each.module) << each.number;
        EXPECT_EQ(port_number_place(each.number).port, each.port) << each.number;
    }
}

TEST(PortNumber, TextIsModuleAndPortOrTheNumberItself) {
    EXPECT_EQ(text_of(5121), "1/1");
    EXPECT_EQ(text_of(5184), "2/0");
    EXPECT_EQ(text_of(8000), "46/0");
    EXPECT_EQ(text_of(21439), "255/63");
    EXPECT_EQ(text_of(0), "-");
    EXPECT_EQ(text_of(9), "9");
    EXPECT_EQ(text_of(10), "10");
    EXPECT_EQ(text_of(5120), "5120");
    EXPECT_EQ(text_of(21440), "21440");
    EXPECT_EQ(text_of(4294967295U), "4294967295");
}

TEST(PortNumber, TextOfEveryPortIsReadBack) {
    for (std::uint32_t number = PORT_NUMBER_FIRST; number <= PORT_NUMBER_LAST; ++number)
        ASSERT_EQ(port_number_parse(text_of(number).c_str()), number);
}

TEST(PortNumber, OtherTextsNameNoPort) {
    for (const char *text : {"",
                             "/",
                             "1",
                             "1/",
                             "/1",
                             "0/1",
                             "1/0",
                             "1/64",
                             "256/1",
                             "1/1/1",
                             "1/1 ",
                             " 1/1",
                             "-1/1",
                             "1/+1",
                             "x/y",
                             "1/1x",
                             "1x/1",
                             "4294967297/1",
                             "1/4294967297",
                             "99999999999999999999/1"})
        EXPECT_EQ(port_number_parse(text), 0U) << text;
    EXPECT_EQ(port_number_parse("02/01"), 5185U);
}

}  // namespace

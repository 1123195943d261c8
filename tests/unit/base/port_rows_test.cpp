// SPDX-License-Identifier: Apache-2.0
// Rows by port: one each, found again, and row 0 for everything else.
#include "base/port_rows.h"

#include <gtest/gtest.h>

#include <memory>

namespace {

using namespace ravo::platform;

TEST(PortRows, AreGivenOneByOneAndKept) {
    const auto table = std::make_unique<port_rows>();
    EXPECT_EQ(port_row_known(*table, 5121), 0);
    EXPECT_EQ(port_row(*table, 5121, 100), 1);
    EXPECT_EQ(port_row(*table, PORT_NUMBER_LAST, 100), 2);
    EXPECT_EQ(port_row(*table, 5121, 100), 1);
    EXPECT_EQ(port_row_known(*table, PORT_NUMBER_LAST), 2);
    EXPECT_EQ(table->rows, 3);
}

TEST(PortRows, WhatIsNoPortHasRowZero) {
    const auto table = std::make_unique<port_rows>();
    for (const std::uint32_t number : {std::uint32_t{0}, std::uint32_t{PORT_NUMBER_LAST} + 1, UINT32_MAX}) {
        EXPECT_EQ(port_row(*table, number, 100), 0);
        EXPECT_EQ(port_row_known(*table, number), 0);
    }
    EXPECT_EQ(table->rows, 1);
}

TEST(PortRows, PastTheMostThereIsNoOther) {
    const auto table = std::make_unique<port_rows>();
    EXPECT_EQ(port_row(*table, 5121, 2), 1);
    EXPECT_EQ(port_row(*table, 5122, 2), 0);
    EXPECT_EQ(port_row(*table, 5121, 2), 1);
}

}  // namespace

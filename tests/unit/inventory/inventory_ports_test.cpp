// Port numbers by themselves: what a device gets, keeps and loses.
#include "inventory/inventory_ports.h"

#include <gtest/gtest.h>

namespace {

using ravo::platform::port_table;
using ravo::platform::port_table_describe;
using ravo::platform::port_table_number;

TEST(PortTable, KernelNumberInTheRangeOfPortsIsKept) {
    port_table table;
    EXPECT_EQ(port_table_number(&table, "swp1", 5121), 5121U);
    EXPECT_EQ(port_table_number(&table, "swp9", 5129), 5129U);
}

TEST(PortTable, OtherDevicesGetTheLowestFreeNumber) {
    port_table table;
    EXPECT_EQ(port_table_number(&table, "swp1", 5121), 5121U);
    EXPECT_EQ(port_table_number(&table, "eth0", 2), 5122U);
    EXPECT_EQ(port_table_number(&table, "eth1", 3), 5123U);
}

TEST(PortTable, KernelNumberFollowsARename) {
    port_table table;
    EXPECT_EQ(port_table_number(&table, "swp1", 5121), 5121U);
    EXPECT_EQ(port_table_number(&table, "front1", 5121), 5121U);
    EXPECT_EQ(port_table_number(&table, "swp1", 7), 5122U) << "another device of the old name";
}

TEST(PortTable, NumberOfANameIsKeptWhenTheDeviceComesBack) {
    port_table table;
    EXPECT_EQ(port_table_number(&table, "eth0", 2), 5121U);
    EXPECT_EQ(port_table_number(&table, "eth0", 9), 5121U);
    EXPECT_EQ(port_table_number(&table, "late", 5121), 5122U) << "a number that was given otherwise is not taken away";
}

TEST(PortTable, DescriptionTakesANumberOver) {
    port_table table;
    EXPECT_EQ(port_table_number(&table, "swp1", 5121), 5121U);
    port_table_describe(&table, {.ports = {{.device = "eth7", .module = 1, .port = 1}}, .interfaces = {}});
    EXPECT_EQ(port_table_number(&table, "eth7", 7), 5121U);
    EXPECT_EQ(port_table_number(&table, "swp1", 5121), 5122U);
    EXPECT_EQ(port_table_number(&table, "front1", 5121), 5123U) << "described numbers do not follow the kernel's";
}

}  // namespace

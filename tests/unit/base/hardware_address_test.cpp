// SPDX-License-Identifier: Apache-2.0
#include "base/hardware_address.h"

#include <gtest/gtest.h>

#include <optional>

namespace {

using ravo::platform::hardware_address;
using ravo::platform::mac_text;
using ravo::platform::read_mac;

TEST(HardwareAddress, IsReadInEveryForm) {
    const hardware_address wanted = {0xAB, 0xCD, 0xEF, 0x01, 0x23, 0x45};
    for (const char *text : {"ab:cd:ef:01:23:45", "AB-CD-EF-01-23-45", "abCD.ef01.2345"})
        EXPECT_EQ(read_mac(text), wanted) << text;
    EXPECT_EQ(mac_text(wanted), "ab:cd:ef:01:23:45");
}

TEST(HardwareAddress, NothingElseIsOne) {
    for (const char *bad : {"", "x", "02:00:00:00:00", "02:00:00:00:00:0g", "02:00-00:00:00:01", "020000000001",
                            "0200.0000.001", "02:00:00:00:00:01:", "0200:0000:0001", "02.00.00.00.00.01"})
        EXPECT_EQ(read_mac(bad), std::nullopt) << bad;
}

}  // namespace

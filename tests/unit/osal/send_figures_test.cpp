// SPDX-License-Identifier: Apache-2.0
// What could not be sent, counted by destination.
#include "osal/send_figures.h"

#include <gtest/gtest.h>

#include <cerrno>

namespace {

using namespace ravo::platform;

struct SendFigures : testing::Test {
    SendFigures() { send_figures_clear(); }
};

TEST_F(SendFigures, TellLackOfRoomFromOtherReasons) {
    send_count_server(7, EAGAIN);
    send_count_server(7, ENOBUFS);
    send_count_server(7, EHOSTUNREACH);
    EXPECT_EQ(send_figures_of_server(7).no_room, 2U);
    EXPECT_EQ(send_figures_of_server(7).failed, 1U);
}

TEST_F(SendFigures, KeepDestinationsApart) {
    send_count_server(7, EAGAIN);
    send_count_interface(7, ENODEV);
    send_count_interface(8, EAGAIN);
    EXPECT_EQ(send_figures_of_server(7).failed, 0U);
    EXPECT_EQ(send_figures_of_interface(7).no_room, 0U);
    EXPECT_EQ(send_figures_of_interface(7).failed, 1U);
    EXPECT_EQ(send_figures_of_interface(8).no_room, 1U);
    EXPECT_EQ(send_figures_of_interface(9).no_room, 0U);
}

TEST_F(SendFigures, AreListedInTheOrderInWhichTheyCameUp) {
    send_count_server(9, EAGAIN);
    send_count_server(3, EAGAIN);
    send_count_server(9, EAGAIN);
    const std::vector<send_row> rows = send_figures_servers();
    ASSERT_EQ(rows.size(), 2U);
    EXPECT_EQ(rows[0].destination, 9U);
    EXPECT_EQ(rows[0].figures.no_room, 2U);
    EXPECT_EQ(rows[1].destination, 3U);
    EXPECT_TRUE(send_figures_interfaces().empty());
}

TEST_F(SendFigures, AreForgottenWhenCleared) {
    send_count_server(9, EAGAIN);
    send_count_interface(9, EAGAIN);
    send_figures_clear();
    EXPECT_TRUE(send_figures_servers().empty());
    EXPECT_TRUE(send_figures_interfaces().empty());
    EXPECT_EQ(send_figures_of_server(9).no_room, 0U);
}

TEST_F(SendFigures, TakeABoundedNumberOfDestinations) {
    for (std::uint32_t server = 1; server <= 5000; ++server) send_count_server(server, EAGAIN);
    EXPECT_EQ(send_figures_servers().size(), 4096U);
    EXPECT_EQ(send_figures_of_server(4096).no_room, 1U);
    EXPECT_EQ(send_figures_of_server(4097).no_room, 0U);
}

}  // namespace

// SPDX-License-Identifier: Apache-2.0
// Closing the relay's sockets.
#include "ravo_if_state.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "packet_relay.h"

namespace {

using strings = std::vector<std::string>;
using trace_lines = std::vector<fake::line>;

class State : public testing::Test {
  protected:
    void SetUp() override {
        fake::reset();
        ravo_db_init();
        fake::forget();
    }
    void TearDown() override {
        ravo_if_close_all_fd();
        ravo_db_exit();
        EXPECT_EQ(fake::leftovers(), strings{});
    }
};

TEST_F(State, ClosingClosesEachOpenSocketAndDeletesTheReader) {
    EXPECT_EQ(RAVO_IF_Create_fd(), 0U);
    fake::forget();
    EXPECT_EQ(ravo_if_close_all_fd(), 0);
    EXPECT_EQ(fake::socket_calls, (strings{"close(100) = 0", "close(101) = 0", "close(102) = 0"}));
    EXPECT_EQ(fake::readers.size(), 0U);
    EXPECT_EQ(ravo_l2_sock_fd, -1);
    EXPECT_EQ(ravo_raw_sock_fd, -1);
    EXPECT_EQ(ravo_server_sock_fd, -1);
    EXPECT_EQ(fake::traces(), (trace_lines{{101, "ravo_if_close_all_fd (#): Close all socket successfully \n"}}));
}

// A process whose standard input is closed may well be given descriptor 0.
TEST_F(State, DescriptorZeroIsAnOpenSocket) {
    for (int (*create)() : {ravo_if_create_l2_fd, ravo_if_create_raw_socket, ravo_if_create_server_tx_socket}) {
        fake::count_descriptors_from(0);
        (void)create();
        fake::forget();
        (void)create();
        EXPECT_EQ(fake::socket_calls, strings{}) << "it is opened once";
        EXPECT_EQ(ravo_if_close_all_fd(), 0);
        EXPECT_EQ(fake::socket_calls, strings{"close(0) = 0"});
        EXPECT_EQ(fake::readers.size(), 0U);
    }
    fake::count_descriptors_from(0);
    EXPECT_EQ(ravo_if_create_listen_fd(), 0);
    fake::forget();
    EXPECT_EQ(ravo_if_create_listen_fd(), 0);
    EXPECT_EQ(fake::socket_calls, strings{});
    ravo_if_close_all_fd();
    fake::drop_reader("ravo");
    fake::drop_socket(0);
}

TEST_F(State, ClosingClosedSocketsOnlyTraces) {
    EXPECT_EQ(ravo_if_close_all_fd(), 0);
    EXPECT_EQ(fake::socket_calls, strings{});
    EXPECT_EQ(fake::traces(), (trace_lines{{101, "ravo_if_close_all_fd (#): Close all socket successfully \n"}}));
}

// deliberate: the listen socket is forgotten, neither closed nor its reader deleted.
TEST_F(State, ClosingForgetsTheListenSocket) {
    (void)ravo_if_create_listen_fd();
    fake::forget();
    ravo_if_close_all_fd();
    EXPECT_EQ(ravo_listen_sock_fd, -1);
    EXPECT_EQ(fake::socket_calls, strings{});
    EXPECT_EQ(fake::readers.size(), 1U);
    fake::drop_reader("ravo");
    fake::drop_socket(100);
}

// deliberate: both readers keep their handle in one place; the later one is the one that is deleted.
TEST_F(State, ClosingDeletesTheReaderRegisteredLast) {
    (void)ravo_if_create_l2_fd();
    (void)ravo_if_create_listen_fd();
    ravo_if_close_all_fd();
    ASSERT_EQ(fake::readers.size(), 1U);
    EXPECT_EQ(fake::readers[0].name, "ravo_r");
    fake::drop_reader("ravo_r");
    fake::drop_socket(101);
}

TEST_F(State, FailingCloseEndsTheProcess) {
    EXPECT_EQ(RAVO_IF_Create_fd(), 0U);
    fake::script(fake::op::close, {.error = EIO});
    EXPECT_EXIT(ravo_if_close_all_fd(), testing::ExitedWithCode(1), "close\\(\\): Input/output error");
    fake::clear_scripts();
}

}  // namespace

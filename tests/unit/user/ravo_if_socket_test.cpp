// SPDX-License-Identifier: Apache-2.0
// Opening the relay's sockets.
#include "ravo_if_socket.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "packet_relay.h"

namespace {

using strings = std::vector<std::string>;
using trace_lines = std::vector<fake::line>;

class Sockets : public testing::Test {
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

const strings created = {"socket(24, 3, 0) = 100", "socket(17, 3, 65535) = 101", "socket(2, 2, 17) = 102",
                         "setsockopt(102, 1, 2, 1) = 0", "bind(102, 0.0.0.0:68) = 0"};

TEST_F(Sockets, AreClosedAtFirst) {
    EXPECT_EQ(ravo_server_sock_fd, -1);
    EXPECT_EQ(ravo_raw_sock_fd, -1);
    EXPECT_EQ(ravo_listen_sock_fd, -1);
    EXPECT_EQ(ravo_l2_sock_fd, -1);
}

TEST_F(Sockets, CreateOpensChannelRawAndServerSocketInThisOrder) {
    EXPECT_EQ(RAVO_IF_Create_fd(), 0U);
    EXPECT_EQ(fake::socket_calls, created);
    EXPECT_EQ(ravo_l2_sock_fd, 100);
    EXPECT_EQ(ravo_raw_sock_fd, 101);
    EXPECT_EQ(ravo_server_sock_fd, 102);
    EXPECT_EQ(ravo_listen_sock_fd, -1) << "the listen socket is not opened";
    ASSERT_EQ(fake::readers.size(), 1U);
    EXPECT_EQ(fake::readers[0].name, "ravo_r");
    EXPECT_EQ(fake::readers[0].fd, 100);
    EXPECT_EQ(fake::readers[0].repeat, 1);
    EXPECT_EQ(fake::readers[0].handler, ravo_l2_listen_hdlr);
    EXPECT_EQ(fake::readers[0].arg, nullptr);
    const trace_lines expected = {{101, "RAVO_IF_Create_fd (#)++\n"},
                                  {101, "RAVO_IF_Create_fd (#): Socket create successfully\n"}};
    EXPECT_EQ(fake::traces(), expected);
}

TEST_F(Sockets, CreatingTwiceOpensEachSocketOnce) {
    EXPECT_EQ(RAVO_IF_Create_fd(), 0U);
    EXPECT_EQ(RAVO_IF_Create_fd(), 0U);
    EXPECT_EQ(fake::socket_calls, created);
    EXPECT_EQ(fake::readers.size(), 1U);
    const trace_lines expected = {{101, "RAVO_IF_Create_fd (#)++\n"},
                                  {101, "RAVO_IF_Create_fd (#): Socket create successfully\n"},
                                  {101, "RAVO_IF_Create_fd (#)++\n"},
                                  {101, "ravo_if_create_server_tx_socket (#): server_sock_fd=102 != 0\n"},
                                  {101, "RAVO_IF_Create_fd (#): Socket create successfully\n"}};
    EXPECT_EQ(fake::traces(), expected);
}

TEST_F(Sockets, ChannelThatCannotBeOpenedDoesNotStopTheOthers) {
    fake::script(fake::op::socket, {.error = EAFNOSUPPORT});
    EXPECT_EQ(RAVO_IF_Create_fd(), 0U);
    EXPECT_EQ(ravo_l2_sock_fd, -1);
    EXPECT_EQ(ravo_raw_sock_fd, 100);
    EXPECT_EQ(ravo_server_sock_fd, 101);
    EXPECT_EQ(fake::readers.size(), 0U);
}

// deliberate: the results of the three cases differ.
TEST_F(Sockets, ChannelResultsAreOneDescriptorAndZero) {
    fake::script(fake::op::socket, {});
    EXPECT_EQ(ravo_if_create_l2_fd(), 0);
    EXPECT_EQ(ravo_if_create_l2_fd(), 1);
    EXPECT_EQ(ravo_if_create_l2_fd(), 100);
}

TEST_F(Sockets, DescriptorZeroIsADescriptor) {
    fake::count_descriptors_from(0);
    EXPECT_EQ(ravo_if_create_l2_fd(), 1);
    EXPECT_EQ(ravo_if_create_l2_fd(), 0);
    ASSERT_EQ(fake::readers.size(), 1U);
    EXPECT_EQ(fake::readers[0].fd, 0);
    ravo_if_close_all_fd();
    EXPECT_EQ(fake::socket_calls, (strings{"socket(24, 3, 0) = 0", "close(0) = 0"}));
    for (int i = 0; i < 2; ++i) {  // the second time they are open
        fake::count_descriptors_from(0);
        EXPECT_EQ(RAVO_IF_Create_fd(), 0U);
    }
    EXPECT_EQ(ravo_raw_sock_fd, 1);
}

TEST_F(Sockets, RawSocketMayBeDescriptorZero) {
    fake::script(fake::op::socket, {.error = EAFNOSUPPORT});
    fake::count_descriptors_from(0);
    EXPECT_EQ(RAVO_IF_Create_fd(), 0U);
    EXPECT_EQ(RAVO_IF_Create_fd(), 0U);
    EXPECT_EQ(ravo_raw_sock_fd, 0);
    EXPECT_EQ(ravo_server_sock_fd, 1);
    ravo_if_close_all_fd();
}

TEST_F(Sockets, ServerSocketMayBeDescriptorZero) {
    fake::count_descriptors_from(0);
    EXPECT_EQ(ravo_if_create_server_tx_socket(), 0);
    EXPECT_EQ(ravo_if_create_server_tx_socket(), 0);
    EXPECT_EQ(RAVO_IF_Create_fd(), 0U);
    EXPECT_EQ(ravo_server_sock_fd, 0);
}

TEST_F(Sockets, ChannelReaderThatCannotBeRegisteredIsNotNoticed) {
    fake::script(fake::op::add_reader);
    EXPECT_EQ(ravo_if_create_l2_fd(), 1);
    EXPECT_EQ(ravo_l2_sock_fd, 100);
    EXPECT_EQ(fake::readers.size(), 0U);
}

TEST_F(Sockets, RawSocketIsOpenedOnce) {
    EXPECT_EQ(ravo_if_create_raw_socket(), 100);
    EXPECT_EQ(ravo_if_create_raw_socket(), 100);
    EXPECT_EQ(fake::socket_calls, strings{"socket(17, 3, 65535) = 100"});
}

TEST_F(Sockets, FailingSocketsEndTheProcess) {
    fake::script(fake::op::socket, {.error = EPERM});
    EXPECT_EXIT((void)ravo_if_create_raw_socket(), testing::ExitedWithCode(1), "socket\\(\\): Operation not permitted");
    EXPECT_EXIT((void)ravo_if_create_server_tx_socket(), testing::ExitedWithCode(1),
                "socket\\(\\): Operation not permitted");
    EXPECT_EXIT((void)ravo_if_create_listen_fd(), testing::ExitedWithCode(1), "socket\\(\\): Operation not permitted");
    fake::clear_scripts();
    fake::script(fake::op::bind, {.error = EADDRINUSE});
    EXPECT_EXIT((void)ravo_if_create_server_tx_socket(), testing::ExitedWithCode(1),
                "bind\\(\\): Address already in use");
}

TEST_F(Sockets, ListenSocketIsBoundToPort67WithItsOptions) {
    EXPECT_EQ(ravo_if_create_listen_fd(), 100);
    EXPECT_EQ(ravo_if_create_listen_fd(), 100);
    const strings expected = {"socket(2, 2, 17) = 100", "setsockopt(100, 0, 8, 1) = 0", "setsockopt(100, 1, 6, 1) = 0",
                              "setsockopt(100, 1, 2, 1) = 0", "bind(100, 0.0.0.0:67) = 0"};
    EXPECT_EQ(fake::socket_calls, expected);
    ASSERT_EQ(fake::readers.size(), 1U);
    EXPECT_EQ(fake::readers[0].name, "ravo");
    EXPECT_EQ(fake::readers[0].repeat, 1);
    EXPECT_EQ(fake::readers[0].handler, ravo_if_listen_hdlr);
    EXPECT_EQ(fake::traces(), (trace_lines{{101, "ravo_if_create_listen_fd (#) listen_fd=100"}}));
    fake::drop_reader("ravo");
    fake::drop_socket(100);
}

TEST_F(Sockets, ListenSocketIsKeptWhenItsReaderCannotBeRegistered) {
    fake::script(fake::op::add_reader);
    EXPECT_EQ(ravo_if_create_listen_fd(), -1);
    EXPECT_EQ(ravo_listen_sock_fd, 100);
    EXPECT_EQ(ravo_if_create_listen_fd(), 100);
    fake::drop_socket(100);
}

}  // namespace

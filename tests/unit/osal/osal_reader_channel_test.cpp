// SPDX-License-Identifier: Apache-2.0
// The reader of the layer-2 channel: its handler is called for messages, and for nothing else.

#include <event2/event.h>

#include <vector>

#include "base/loop.h"
#include "channel_box.h"
#include "channel_frames.h"
#include "osal.h"

namespace {

using channel_box::add_port;
using channel_box::far_end;
using channel_frames::frame_fields;
using channel_frames::octets;

using ReaderOfTheChannel = channel_box::BoxTest;

// What the handler got.
struct served {
    std::vector<ssize_t> results;
    void *handle = nullptr;
};

void take_message(int fd, void *arg) {
    auto *me = static_cast<served *>(arg);
    octets buffer(1024);
    me->results.push_back(osal_recvfrom(fd, buffer.data(), buffer.size(), MSG_TRUNC, nullptr, nullptr));
}

void take_one_message(int fd, void *arg) {
    take_message(fd, arg);
    OSAL_ZEBOS_Delete_Read_Socket_Thread(&static_cast<served *>(arg)->handle);
}

void close_channel(int fd, void *arg) {
    take_one_message(fd, arg);
    osal_close(fd);
}

// Runs the loop until the handler was called this often, and then until nothing is left to be done.
void serve(const served &me, std::size_t times) {
    while (me.results.size() < times && event_base_loop(ravo::platform::loop_base(), EVLOOP_ONCE) == 0) {
    }
    event_base_loop(ravo::platform::loop_base(), EVLOOP_NONBLOCK);
}

int open_channel() {
    add_port("swp1", "c1", 5121);
    channel_box::tap("swp1", 10, 5121);
    return osal_socket(OSAL_AF_CHANNEL, SOCK_RAW, 0);
}

// A dropped frame is none of the handler's business: a receive that fails would be told as a fault.
TEST_F(ReaderOfTheChannel, IsCalledWhenThereIsAMessageAndOnlyThen) {
    const int fd = open_channel();
    ASSERT_GE(fd, 0);
    served me;
    ASSERT_NE(OSAL_ZEBOS_Add_Read_Socket_Thread(&me.handle, "channel", take_message, fd, 1, &me), nullptr);
    const far_end c1("c1");
    for (int i = 0; i < 100; ++i) c1.send(frame_fields{.udp_checksum = 0xBEEF});
    for (int i = 0; i < 100; ++i) c1.send(frame_fields{});
    serve(me, 100);
    EXPECT_EQ(me.results, std::vector<ssize_t>(100, 324));
    OSAL_ZEBOS_Delete_Read_Socket_Thread(&me.handle);
    osal_close(fd);
}

TEST_F(ReaderOfTheChannel, DeletedInItsHandlerIsCalledNoMore) {
    const int fd = open_channel();
    ASSERT_GE(fd, 0);
    served me;
    ASSERT_NE(OSAL_ZEBOS_Add_Read_Socket_Thread(&me.handle, "channel", take_one_message, fd, 1, &me), nullptr);
    const far_end c1("c1");
    for (int i = 0; i < 3; ++i) c1.send(frame_fields{});
    serve(me, 1);
    EXPECT_EQ(me.results, std::vector<ssize_t>{324});
    EXPECT_EQ(me.handle, nullptr);
    osal_close(fd);
}

TEST_F(ReaderOfTheChannel, TheChannelMayBeClosedInIt) {
    const int fd = open_channel();
    ASSERT_GE(fd, 0);
    served me;
    ASSERT_NE(OSAL_ZEBOS_Add_Read_Socket_Thread(&me.handle, "channel", close_channel, fd, 1, &me), nullptr);
    const far_end c1("c1");
    for (int i = 0; i < 3; ++i) c1.send(frame_fields{});
    serve(me, 1);
    EXPECT_EQ(me.results, std::vector<ssize_t>{324});
}

}  // namespace

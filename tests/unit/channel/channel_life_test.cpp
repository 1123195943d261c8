// SPDX-License-Identifier: Apache-2.0
// The channel's life on a running box: ports that come and go, devices that go down, opening and closing, and the UDP
// port it holds.

#include "channel/channel.h"

#include <netinet/in.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <map>

#include "channel_fixture.h"
#include "channel_frames.h"

namespace {

using ChannelLife = channel_box::Channel;
using channel_box::add_port;
using channel_box::announce_change;
using channel_box::far_end;
using channel_box::inventory;
using channel_box::readable;
using channel_box::receive_now;
using channel_box::run;
using channel_box::tap;
using channel_box::wait_limit_ms;
using channel_frames::delivery_of;
using channel_frames::frame_fields;
using channel_frames::frame_of;
using channel_frames::hex;
using channel_frames::octets;
using ravo::platform::channel_close;
using ravo::platform::channel_look_out;
using ravo::platform::channel_open;
using ravo::platform::channel_owns;

TEST_P(ChannelLife, FollowsPortsThatComeAndGo) {
    const far_end c1("c1");
    for (unsigned i = 0; i < 100; ++i) c1.send(frame_fields{.identification = i});  // waits while the others change

    add_port("swp3", "c3", 5123);
    tap("swp3", 30, 5123);
    inventory.taps.erase(inventory.taps.begin() + 1);  // swp2
    announce_change();
    const far_end c2("c2");
    const far_end c3("c3");
    c2.send(frame_fields{});
    c3.send(frame_fields{});
    std::map<int, unsigned> by_vlan;
    for (unsigned i = 0; i < 101; ++i) ++by_vlan[receive().source[16]];
    expect_nothing_more();
    EXPECT_EQ(by_vlan, (std::map<int, unsigned>{{10, 100}, {30, 1}}));
    // What comes in on the port that went does not even reach the queue, where the kernel sees to that; else it counts
    // as long as something of its past may be in the queue.
    const std::string gone = GetParam() == channel_box::way_in::kernel ? "0" : "1";
    EXPECT_EQ(counted_since(),
              "delivered 101 truncated 0 fragment 0 ip 0 udp 0 vlan 0 port " + gone + " limit 0 lost 0");
    c2.send(frame_fields{});
    expect_silence(c3);
    EXPECT_EQ(counted_since(), "delivered 1 truncated 0 fragment 0 ip 0 udp 0 vlan 0 port 0 limit 0 lost 0");

    tap("swp2", 20, 5122);
    announce_change();
    c2.send(frame_fields{});
    EXPECT_EQ(receive().source[16], 20);
}

TEST_P(ChannelLife, WhatWasReadAheadFromAPortThatIsNoneAnyMoreIsDropped) {
    const far_end c1("c1");
    for (unsigned i = 0; i < 5; ++i) c1.send(frame_fields{});
    (void)receive();
    inventory.taps.erase(inventory.taps.begin());
    announce_change();
    expect_silence(far_end("c2"));
    EXPECT_EQ(counted_since(), "delivered 2 truncated 0 fragment 0 ip 0 udp 0 vlan 0 port 4 limit 0 lost 0");
}

TEST_P(ChannelLife, ADeviceThatWentDownWorksWhenItIsUpAgain) {
    run("ip link set swp1 down");
    expect_nothing_more();
    expect_silence(far_end("c2"));
    run("ip link set swp1 up");
    channel_box::wait_running("swp1");
    channel_box::wait_running("c1");
    expect_silence(far_end("c1"));
    EXPECT_TRUE(log().empty()) << log().front();
}

TEST_P(ChannelLife, ADeviceThatIsDownWhenItIsTappedWorksWhenItIsUp) {
    run("ip link add swp4 index 5124 type veth peer name c4");
    tap("swp4", 40, 5124);
    announce_change();
    run("ip link set swp4 up && ip link set c4 up");
    channel_box::wait_running("swp4");
    channel_box::wait_running("c4");
    expect_silence(far_end("c4"));
    EXPECT_TRUE(log().empty()) << log().front();
}

// The inventory may see nothing of it: before and after there is the same device with the same number.
TEST_P(ChannelLife, ADeviceThatWasRemovedAndMadeAgainIsListenedOnAgain) {
    run("ip link del swp1");
    add_port("swp1", "c1", 5121);
    const far_end c1("c1");
    expect_delivered(c1, {});
    EXPECT_TRUE(log().empty()) << log().front();
}

TEST_P(ChannelLife, ATapWhoseDeviceIsGoneIsNoError) {
    run("ip link del swp1");
    announce_change();
    expect_silence(far_end("c2"));
    EXPECT_TRUE(log().empty()) << log().front();
}

TEST_P(ChannelLife, OnlyOneAtATime) {
    EXPECT_EQ(channel_open(), -1);
    EXPECT_EQ(errno, EBUSY);
    EXPECT_TRUE(channel_owns(fd()));
    EXPECT_FALSE(channel_owns(fd() + 1));
    EXPECT_FALSE(channel_owns(-1));
}

TEST_P(ChannelLife, ClosedItListensNoMoreAndCanBeOpenedAgain) {
    EXPECT_EQ(channel_close(), 0);
    EXPECT_FALSE(channel_owns(fd()));
    EXPECT_EQ(receive_now().result, -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(inventory.listener, nullptr);
    EXPECT_EQ(channel_close(), 0);
    const far_end c1("c1");
    c1.send(frame_fields{});
    const int again = open();
    ASSERT_GE(again, 0);
    c1.send(frame_fields{.identification = 2});
    ASSERT_TRUE(readable(again, wait_limit_ms));
    EXPECT_EQ(hex(receive_now().message), hex(delivery_of({.identification = 2})));
    channel_box::expect_no_message(again);
}

// ---- UDP port 67 ----

constexpr std::uint32_t box_address = 0x0A010001;     // 10.1.0.1
constexpr std::uint32_t server_address = 0x0A010002;  // 10.1.0.2, at c1

octets hardware_address(const std::string &device) {
    octets address(6);
    ifreq request{};
    std::memcpy(request.ifr_name, device.c_str(), device.size());
    const int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
    EXPECT_EQ(::ioctl(fd, SIOCGIFHWADDR, &request), 0);
    ::close(fd);
    std::memcpy(address.data(), request.ifr_hwaddr.sa_data, 6);
    return address;
}

TEST_P(ChannelLife, ServersAreNeverToldThatThePortIsUnreachable) {
    run("ip addr add 10.1.0.1/24 dev swp1");
    run("ip neigh add 10.1.0.2 lladdr 02:00:00:00:00:0a dev swp1 nud permanent");
    const far_end c1("c1");
    const frame_fields reply{.destination = hardware_address("swp1"),
                             .source_ip = server_address,
                             .destination_ip = box_address,
                             .source_port = 67};
    const auto told_unreachable = [&] {
        // An echo answer marks the end: what the kernel had to say about the datagram before it is said by then.
        octets echo = {8, 0, 0, 0, 0, 1, 0, 1};
        const unsigned checksum = channel_frames::internet_checksum(echo);
        echo[2] = static_cast<std::uint8_t>(checksum >> 8);
        echo[3] = static_cast<std::uint8_t>(checksum);
        frame_fields request = reply;
        request.protocol = 1;
        request.total_length = 28;
        request.message = {};
        octets frame = frame_of(request);
        std::copy(echo.begin(), echo.end(), frame.begin() + 34);
        c1.send(reply);
        c1.send(frame);
        bool told = false;
        for (;;) {
            const octets answer = c1.receive(0x0800);
            if (answer.size() < 36) {
                ADD_FAILURE() << "no echo answer";
                return told;
            }
            if (answer[23] == 1 && answer[34] == 0) return told;
            told = told || (answer[23] == 1 && answer[34] == 3);
        }
    };
    EXPECT_FALSE(told_unreachable());
    EXPECT_EQ(hex(receive().message), hex(delivery_of(reply)));
    EXPECT_EQ(channel_close(), 0);
    EXPECT_TRUE(told_unreachable()) << "not even without the channel: this test shows nothing";
}

int bind_port_67(bool shared) {
    const int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
    const int one = 1;
    if (shared) {
        EXPECT_EQ(::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one), 0);
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(67);
    if (::bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0) return fd;
    ::close(fd);
    return -1;
}

TEST_P(ChannelLife, HoldsPort67WhileItIsOpen) {
    EXPECT_EQ(bind_port_67(/*shared=*/false), -1);
    EXPECT_EQ(errno, EADDRINUSE);
    const int listener = bind_port_67(/*shared=*/true);  // as the relay's own listener would
    EXPECT_GE(listener, 0);
    ::close(listener);
    EXPECT_EQ(channel_close(), 0);
    const int free = bind_port_67(/*shared=*/false);
    EXPECT_GE(free, 0);
    ::close(free);
}

TEST_P(ChannelLife, LeavesPort67ToAProgramThatHasIt) {
    EXPECT_EQ(channel_close(), 0);
    const int other = bind_port_67(/*shared=*/true);
    ASSERT_GE(other, 0);
    const int again = open();
    ASSERT_GE(again, 0);
    EXPECT_EQ(log(), std::vector<std::string>{
                         "UDP port 67 is in use by another program, which sees the clients' and servers' messages too; "
                         "stop it if it answers or relays them"});
    far_end("c1").send(frame_fields{});
    ASSERT_TRUE(readable(again, wait_limit_ms));
    EXPECT_EQ(hex(receive_now().message), hex(delivery_of({})));
    ::close(other);
}

// Where the relay itself refuses what is over the limits, frames are left to gather.
TEST_P(ChannelLife, LooksOutForFramesWhereTheKernelHoldsPortsToTheirLimits) {
    const bool looks = GetParam() == channel_box::way_in::kernel;
    EXPECT_FALSE(channel_look_out());
    far_end("c1").send(frame_fields{});
    ASSERT_TRUE(readable(fd(), wait_limit_ms));
    EXPECT_EQ(channel_look_out(), looks);
    EXPECT_EQ(hex(receive_now().message), hex(delivery_of({})));
    EXPECT_FALSE(channel_look_out()) << "the frame that was taken last waits no more";
    EXPECT_EQ(channel_close(), 0);
    EXPECT_FALSE(channel_look_out());
}

INSTANTIATE_TEST_SUITE_P(WaysIn, ChannelLife, testing::Values(channel_box::way_in::kernel, channel_box::way_in::daemon),
                         channel_box::name_of);

}  // namespace

// SPDX-License-Identifier: Apache-2.0
// The channel together with the inventory, on a box with a bridge per VLAN: the kernel's devices are all that says
// which ports there are, and every change of them is followed while messages flow.

#include <event2/event.h>

#include <algorithm>
#include <chrono>
#include <functional>

#include "base/loop.h"
#include "books/books.h"
#include "channel/channel.h"
#include "channel_frames.h"
#include "channel_net.h"
#include "inventory/inventory.h"
#include "osal.h"

namespace {

using channel_box::add_port;
using channel_box::far_end;
using channel_box::run;
using channel_frames::delivery_of;
using channel_frames::frame_fields;
using channel_frames::hex;
using channel_frames::message_of;
using channel_frames::octets;

struct delivery {
    octets message;
    std::uint32_t port = 0;
    std::uint16_t vlan = 0;
};

std::string text_of(const delivery &got) {
    return "port " + std::to_string(got.port) + " vlan " + std::to_string(got.vlan) + ": " + hex(got.message);
}

// swp1 and swp2 are members of VLAN 10's bridge, swp3 of VLAN 20's.
class ChannelInventory : public channel_box::NetTest {
  protected:
    void SetUp() override {
        NetTest::SetUp();
        run("ip link add vlan10 index 1034 type bridge && ip link set vlan10 up");
        run("ip link add vlan20 index 1044 type bridge && ip link set vlan20 up");
        for (const int port : {1, 2, 3}) {
            const std::string number = std::to_string(port);
            const std::string device = "swp" + number;
            add_port(device, "c" + number, 5120 + port);
            run("ip link set " + device + " master " + (port == 3 ? "vlan20" : "vlan10"));
        }
        ravo::platform::inventory_describe({});
        ASSERT_EQ(ravo::platform::inventory_open().text, "");
        fd_ = osal_socket(OSAL_AF_CHANNEL, SOCK_RAW, 0);
        ASSERT_GE(fd_, 0) << std::strerror(errno);
    }
    void TearDown() override {
        osal_close(fd_);
        ravo::platform::inventory_close();
        NetTest::TearDown();
    }

    // Runs the event loop until the condition holds.
    static bool wait_until(const std::function<bool()> &condition) {
        const auto limit = std::chrono::steady_clock::now() + std::chrono::milliseconds(channel_box::wait_limit_ms);
        while (!condition()) {
            if (std::chrono::steady_clock::now() > limit) return false;
            (void)event_base_loop(ravo::platform::loop_base(), EVLOOP_NONBLOCK);
        }
        return true;
    }

    static bool taps(const std::string &device) {
        const auto all = ravo::platform::inventory_taps();
        return std::any_of(all.begin(), all.end(), [&](const auto &tap) { return tap.name == device; });
    }

    bool receive_now(delivery *got) const {
        octets from(64);
        got->message.resize(2048);
        socklen_t length = 64;
        const ssize_t size = osal_recvfrom(fd_, got->message.data(), got->message.size(), MSG_TRUNC,
                                           reinterpret_cast<sockaddr *>(from.data()), &length);
        if (size < 0) return false;
        got->message.resize(static_cast<std::size_t>(size));
        std::memcpy(&got->port, &from[OSAL_CHANNEL_PORT], sizeof got->port);
        std::memcpy(&got->vlan, &from[OSAL_CHANNEL_VLAN], sizeof got->vlan);
        return true;
    }

    delivery receive() const {
        delivery got;
        EXPECT_TRUE(wait_until([&] { return receive_now(&got); })) << "no message arrived";
        return got;
    }

    // A message sent at a port's far end is delivered once, with this port and VLAN.
    void expect_delivered(const std::string &far, std::uint32_t port, std::uint16_t vlan) const {
        static unsigned identification = 0;
        const frame_fields fields{.identification = ++identification, .message = message_of(300)};
        far_end(far).send(fields);
        EXPECT_EQ(text_of(receive()), text_of({.message = delivery_of(fields), .port = port, .vlan = vlan}));
        delivery more;
        EXPECT_FALSE(receive_now(&more)) << text_of(more);
    }

  private:
    int fd_ = -1;
};

TEST_F(ChannelInventory, EachMessageOnceOnAStackOfPortBridgeAndInterface) {
    expect_delivered("c1", 5121, 10);
    expect_delivered("c2", 5122, 10);
    expect_delivered("c3", 5123, 20);
}

TEST_F(ChannelInventory, APortThatAppearsIsListenedOn) {
    add_port("swp4", "c4", 5124);
    run("ip link set swp4 master vlan20");
    ASSERT_TRUE(wait_until([] { return taps("swp4"); }));
    expect_delivered("c4", 5124, 20);
}

TEST_F(ChannelInventory, APortThatMovesToAnotherBridgeKeepsItsMessages) {
    const far_end c2("c2");
    for (unsigned i = 0; i < 50; ++i) c2.send(frame_fields{.identification = i});
    run("ip link set swp1 master vlan20");
    ravo::platform::ingress in;
    const auto moved = [&] {
        return ravo::platform::inventory_classify(5121, false, 0, &in) == ravo::platform::ingress_result::ok &&
               in.vlan == 20;
    };
    ASSERT_TRUE(wait_until(moved));
    for (unsigned i = 0; i < 50; ++i) {
        EXPECT_EQ(text_of(receive()),
                  text_of({.message = delivery_of({.identification = i}), .port = 5122, .vlan = 10}));
    }
    expect_delivered("c1", 5121, 20);
}

TEST_F(ChannelInventory, AnInterfaceThatIsDeletedAndMadeAgainIsServedAgain) {
    run("ip link del vlan20");
    ASSERT_TRUE(wait_until([] { return !taps("swp3"); }));
    expect_delivered("c1", 5121, 10);
    run("ip link add vlan20 index 1044 type bridge && ip link set vlan20 up && ip link set swp3 master vlan20");
    ASSERT_TRUE(wait_until([] { return taps("swp3"); }));
    expect_delivered("c3", 5123, 20);
}

TEST_F(ChannelInventory, APortThatIsDeletedAndMadeAgainIsListenedOnAgain) {
    run("ip link del swp1");
    ASSERT_TRUE(wait_until([] { return !taps("swp1"); }));
    expect_delivered("c2", 5122, 10);
    add_port("swp1", "c1", 5121);
    run("ip link set swp1 master vlan10");
    ASSERT_TRUE(wait_until([] { return taps("swp1"); }));
    expect_delivered("c1", 5121, 10);
}

// ---- What bridges refuse ----

// A frame as it counts with the books: one refused by the bridge is not delivered.
class BridgeThatRefuses : public ChannelInventory {
  protected:
    static std::uint64_t refused() {
        ravo::platform::books_close();
        return ravo::platform::books_total().by_outcome[OUTCOME_BRIDGE_REFUSED];
    }
    void expect_refused(const std::string &far, const frame_fields &fields = {}) {
        const std::uint64_t before = refused();
        far_end(far).send(fields);
        bool delivered = false;
        EXPECT_TRUE(wait_until([&] {
            delivery got;
            delivered = receive_now(&got);
            return delivered || refused() == before + 1;
        }));
        EXPECT_FALSE(delivered);
    }
    // Has changes of the ports read, all that were made before.
    static void changes_in() { (void)event_base_loop(ravo::platform::loop_base(), EVLOOP_NONBLOCK); }
};

// Without spanning tree the kernel makes a port forwarding at once that is told to block.
TEST_F(BridgeThatRefuses, WhatComesInOnAPortThatIsNotForwarding) {
    for (const char *state : {"0", "1", "2"}) {
        run(std::string("bridge link set dev swp1 state ") + state);
        changes_in();
        expect_refused("c1");
        expect_delivered("c2", 5122, 10);
    }
    run("bridge link set dev swp1 state 3");
    changes_in();
    expect_delivered("c1", 5121, 10);
    run("ip link set swp1 type bridge_slave state 2");
    changes_in();
    expect_refused("c1");
    run("ip link set swp1 nomaster && ip link set swp1 master vlan20");
    changes_in();
    expect_delivered("c1", 5121, 20);
}

TEST_F(BridgeThatRefuses, StationsThatAreUnknownAtALockedPort) {
    run("bridge link set dev swp1 learning off locked on");
    changes_in();
    expect_refused("c1");
    run("bridge fdb add 02:00:00:00:00:0a dev swp2 master static");
    expect_refused("c1");
    expect_delivered("c2", 5122, 10);
    run("bridge fdb replace 02:00:00:00:00:0a dev swp1 master static");
    expect_delivered("c1", 5121, 10);
    expect_refused("c1", {.source = {0x02, 0, 0, 0, 0, 0x0B}});
    run("bridge fdb del 02:00:00:00:00:0a dev swp1 master");
    expect_refused("c1");
    run("bridge link set dev swp1 locked off");
    changes_in();
    expect_delivered("c1", 5121, 10);
}

TEST_F(BridgeThatRefuses, WhatIsAddressedToAnotherMachine) {
    expect_refused("c1", {.destination = {0x02, 0, 0, 0, 0x77, 0x77}});
    run("ip link set vlan10 address 02:00:00:00:77:77");
    changes_in();
    const frame_fields fields{.destination = {0x02, 0, 0, 0, 0x77, 0x77}};
    far_end("c1").send(fields);
    EXPECT_EQ(text_of(receive()), text_of({.message = delivery_of(fields), .port = 5121, .vlan = 10}));
}

}  // namespace

// SPDX-License-Identifier: Apache-2.0
// The trap: a bridge forwards no DHCP broadcast from a trapped port and everything else, packet sockets still see it,
// and the filters come and go with what the channel hears, also after a crash and beside the filters of others.
#include "trap/trap.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "channel_net.h"
#include "trap/trap_filter.h"

namespace {

using namespace ravo::platform;
using channel_box::far_end;
using channel_box::ifindex;
using channel_box::octets;
using channel_box::run;
using channel_frames::frame_fields;
using channel_frames::frame_of;
using channel_frames::message_of;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

// What a command prints.
std::string output_of(const std::string &command) {
    std::string text;
    FILE *pipe = ::popen(command.c_str(), "r");
    if (pipe == nullptr) return "cannot run";
    char buffer[512];
    while (std::fgets(buffer, sizeof buffer, pipe) != nullptr) text += buffer;
    EXPECT_EQ(::pclose(pipe), 0) << command;
    return text;
}

bool has_qdisc(const std::string &device) {
    return output_of("tc qdisc show dev " + device).find("clsact") != std::string::npos;
}

// Two ports of a bridge: swp1 and swp2, with their far ends c1 and c2.
struct Trap : channel_box::NetTest {
    void SetUp() override {
        NetTest::SetUp();
        channel_box::add_port("swp1", "c1", 5121);
        channel_box::add_port("swp2", "c2", 5122);
        run("ip link add vlan10 type bridge stp_state 0 forward_delay 0");
        run("ip link set swp1 master vlan10");
        run("ip link set swp2 master vlan10");
        run("ip link set vlan10 up");
    }
    void TearDown() override {
        trap_release();
        trap_describe({});
        NetTest::TearDown();
    }

    std::vector<tap_device> ports() const { return {{ifindex("swp1"), "swp1"}, {ifindex("swp2"), "swp2"}}; }

    // Whether the bridge forwards the frame from c1 to c2. A frame that nothing stops is sent behind it.
    bool forwarded(const frame_fields &fields) const {
        const far_end from("c1"), to("c2");
        frame_fields sentinel{.destination_port = 9999, .message = message_of(64, 200)};
        from.send(fields);
        from.send(sentinel);
        const octets whole = frame_of(fields), last = frame_of(sentinel);
        bool seen = false;
        for (octets frame = to.receive(0x0800); !frame.empty(); frame = to.receive(0x0800)) {
            if (frame == last) return seen;
            seen = seen || frame == whole;
        }
        ADD_FAILURE() << "nothing was forwarded";
        return seen;
    }
};

switch_description all_ports() {
    switch_description out;
    out.channel.trap = true;
    return out;
}

// ---- What the filter stops ----

TEST_F(Trap, StopsClientsBroadcastsBehindThePacketSockets) {
    const far_end at_port("swp1");
    EXPECT_TRUE(forwarded({}));
    bool made = false;
    ASSERT_EQ(trap_filter_add(ifindex("swp1"), &made), 0);
    EXPECT_TRUE(made);
    EXPECT_FALSE(forwarded({}));
    EXPECT_FALSE(forwarded({.ip_options = octets(8, 1)}));
    for (int heard = 0; heard < 3; ++heard)
        EXPECT_NE(at_port.receive(0x0800), octets{}) << "each of them is heard, also " << heard;
}

TEST_F(Trap, StopsNothingElse) {
    bool made = false;
    ASSERT_EQ(trap_filter_add(ifindex("swp1"), &made), 0);
    EXPECT_TRUE(forwarded({.destination = {0x02, 0, 0, 0, 0, 0x77}})) << "to one station";
    EXPECT_TRUE(forwarded({.destination = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFE}}));
    EXPECT_TRUE(forwarded({.destination = {0xFF, 0xFF, 0xFF, 0xFE, 0xFF, 0xFF}}));
    EXPECT_TRUE(forwarded({.destination_port = 68}));
    EXPECT_TRUE(forwarded({.destination_port = 66}));
    EXPECT_TRUE(forwarded({.protocol = 6}));
    EXPECT_TRUE(forwarded({.fragment = 0x2000})) << "the channel takes no fragments either";
    EXPECT_TRUE(forwarded({.fragment = 0x0005}));
    const far_end from("c1"), to("c2");
    from.send(frame_fields{.ethertype = 0x0806});
    EXPECT_FALSE(to.receive(0x0806).empty());
}

TEST_F(Trap, StopsWhatComesInAndNotWhatGoesOut) {
    bool made = false;
    ASSERT_EQ(trap_filter_add(ifindex("swp2"), &made), 0);
    EXPECT_TRUE(forwarded({})) << "from c1, which is not trapped, out on swp2, which is";
}

// ---- Coming and going ----

TEST_F(Trap, RemovingLeavesNothingBehind) {
    const int device = ifindex("swp1");
    bool made = false;
    EXPECT_FALSE(trap_filter_exists(device));
    ASSERT_EQ(trap_filter_add(device, &made), 0);
    EXPECT_TRUE(trap_filter_exists(device));
    EXPECT_EQ(trap_filter_remove(device, made), 0);
    EXPECT_FALSE(trap_filter_exists(device));
    EXPECT_FALSE(has_qdisc("swp1"));
    EXPECT_TRUE(forwarded({}));
    EXPECT_EQ(trap_filter_remove(device, true), 0) << "again";
}

TEST_F(Trap, AddingAgainChangesNothing) {
    const int device = ifindex("swp1");
    bool made = false;
    ASSERT_EQ(trap_filter_add(device, &made), 0);
    const std::string before = output_of("tc filter show dev swp1 ingress");
    ASSERT_EQ(trap_filter_add(device, &made), 0);
    EXPECT_TRUE(made) << "it was made here before";
    EXPECT_EQ(output_of("tc filter show dev swp1 ingress"), before);
}

TEST_F(Trap, LeavesTheFiltersOfOthersAlone) {
    run("tc qdisc add dev swp1 clsact");
    run("tc filter add dev swp1 ingress pref 80 protocol all bpf bytecode '1,6 0 0 0,' classid 1:1");
    const std::string before = output_of("tc filter show dev swp1 ingress");
    bool made = false;
    ASSERT_EQ(trap_filter_add(ifindex("swp1"), &made), 0);
    EXPECT_FALSE(made);
    EXPECT_FALSE(forwarded({}));
    EXPECT_EQ(trap_filter_remove(ifindex("swp1"), true), 0);
    EXPECT_EQ(output_of("tc filter show dev swp1 ingress"), before);
    EXPECT_TRUE(has_qdisc("swp1"));
}

TEST_F(Trap, LeavesThePlaceOfOthersAlone) {
    run("tc qdisc add dev swp1 clsact");
    trap_describe(all_ports());
    trap_follow(ports());
    EXPECT_EQ(trap_count(), 2u);
    trap_release();
    EXPECT_TRUE(has_qdisc("swp1")) << "it was there before";
    EXPECT_FALSE(has_qdisc("swp2"));
}

// ---- Which devices ----

TEST_F(Trap, NothingIsTrappedUnlessAskedFor) {
    trap_describe({});
    trap_follow(ports());
    EXPECT_EQ(trap_count(), 0u);
    EXPECT_FALSE(has_qdisc("swp1"));
    EXPECT_TRUE(forwarded({}));
}

TEST_F(Trap, PortSpeaksForItself) {
    switch_description description = all_ports();
    description.ports = {{"swp1", 1, 1, false}, {"swp2", 1, 2, std::nullopt}};
    trap_describe(description);
    trap_follow(ports());
    EXPECT_FALSE(trap_filter_exists(ifindex("swp1")));
    EXPECT_TRUE(trap_filter_exists(ifindex("swp2")));
    description.channel.trap = false;
    description.ports = {{"swp1", 1, 1, true}};
    trap_describe(description);
    EXPECT_TRUE(trap_filter_exists(ifindex("swp1"))) << "a new description is followed at once";
    EXPECT_FALSE(trap_filter_exists(ifindex("swp2")));
}

TEST_F(Trap, NothingIsTrappedWhileTheRelayDoesNotListen) {
    trap_describe(all_ports());
    EXPECT_FALSE(trap_filter_exists(ifindex("swp1")));
    trap_follow(ports());
    EXPECT_TRUE(trap_filter_exists(ifindex("swp1")));
    trap_release();
    EXPECT_FALSE(trap_filter_exists(ifindex("swp1")));
    trap_describe(all_ports());
    EXPECT_FALSE(trap_filter_exists(ifindex("swp1")));
}

TEST_F(Trap, FollowsPortsThatComeAndGo) {
    trap_describe(all_ports());
    trap_follow({{ifindex("swp1"), "swp1"}});
    EXPECT_FALSE(trap_filter_exists(ifindex("swp2")));
    trap_follow(ports());
    EXPECT_TRUE(trap_filter_exists(ifindex("swp2")));
    trap_follow({{ifindex("swp2"), "swp2"}});
    EXPECT_FALSE(trap_filter_exists(ifindex("swp1"))) << "no port of the switch any more";
    EXPECT_FALSE(has_qdisc("swp1"));
    EXPECT_EQ(trap_count(), 1u);
}

TEST_F(Trap, DeviceMadeAgainIsTrappedAgain) {
    trap_describe(all_ports());
    trap_follow(ports());
    run("ip link del swp1");
    channel_box::add_port("swp1", "c1", 5121);
    EXPECT_FALSE(trap_filter_exists(5121));
    trap_follow(ports());
    EXPECT_TRUE(trap_filter_exists(5121));
    run("ip link del swp1");
    trap_follow({{ifindex("swp2"), "swp2"}});
    EXPECT_EQ(trap_count(), 1u);
    EXPECT_THAT(log(), IsEmpty()) << "a device that is gone is no failure";
}

TEST_F(Trap, DeviceThatIsGoneIsNoFailure) {
    trap_describe(all_ports());
    trap_follow({{4711, "swp9"}});
    EXPECT_EQ(trap_count(), 0u);
    EXPECT_THAT(log(), IsEmpty());
}

// ---- After a crash ----

TEST_F(Trap, WhatACrashLeftIsRemoved) {
    bool made = false;
    ASSERT_EQ(trap_filter_add(ifindex("swp1"), &made), 0);
    run("tc qdisc add dev swp2 clsact");
    trap_remove_stale();
    EXPECT_FALSE(trap_filter_exists(ifindex("swp1")));
    EXPECT_FALSE(has_qdisc("swp1"));
    EXPECT_TRUE(has_qdisc("swp2")) << "nothing of ours was there";
    EXPECT_THAT(log(), ElementsAre("device swp1 still had the trap of a relay that ended without removing it"));
    trap_remove_stale();
    EXPECT_EQ(log().size(), 1u);
}

TEST_F(Trap, CrashInThePlaceOfOthersLeavesThatPlace) {
    run("tc qdisc add dev swp1 clsact");
    bool own = false;
    ASSERT_EQ(trap_filter_add(ifindex("swp1"), &own), 0);
    EXPECT_FALSE(own);
    EXPECT_FALSE(trap_filter_has_own_qdisc(ifindex("swp1")));
    EXPECT_FALSE(forwarded({})) << "the mark does not change what the filter does";
    bool own_of_second = false;
    ASSERT_EQ(trap_filter_add(ifindex("swp2"), &own_of_second), 0);
    ASSERT_EQ(trap_filter_add(ifindex("swp2"), &own_of_second), 0);
    EXPECT_TRUE(trap_filter_has_own_qdisc(ifindex("swp2"))) << "also when put there again";
    trap_remove_stale();
    EXPECT_FALSE(trap_filter_exists(ifindex("swp1")));
    EXPECT_TRUE(has_qdisc("swp1"));
    EXPECT_FALSE(has_qdisc("swp2"));
}

// ---- Failure ----

TEST_F(Trap, FailureIsLoggedOnceAndTheOthersAreTrapped) {
    run("tc qdisc add dev swp1 clsact");
    run("tc filter add dev swp1 ingress pref 67 protocol all u32 match u32 0 0 classid 1:1");
    trap_describe(all_ports());
    trap_follow(ports());
    trap_follow(ports());
    EXPECT_EQ(trap_count(), 1u);
    EXPECT_TRUE(trap_filter_exists(ifindex("swp2")));
    EXPECT_THAT(log(), ElementsAre("cannot trap clients' broadcasts on device swp1: Invalid argument; they are "
                                   "forwarded by the bridge too"));
    trap_release();
    EXPECT_THAT(output_of("tc filter show dev swp1 ingress"), HasSubstr("u32"));
}

}  // namespace

// SPDX-License-Identifier: Apache-2.0
// What is sent in a turn leaves together at its end, in the order in which it was sent; what the kernel refuses is
// counted, taken back from the books and told to the relay.
#include "osal/send_batch.h"

#include <gmock/gmock.h>
#include <netinet/in.h>
#include <sys/wait.h>

#include <array>
#include <string>

#include "books/books.h"
#include "channel_box.h"
#include "channel_frames.h"
#include "log/log_subject.h"
#include "osal.h"
#include "osal/osal_events.h"
#include "osal/send_figures.h"
#include "vex_init.h"

namespace {

using channel_box::add_port;
using channel_box::far_end;
using channel_box::ifindex;
using channel_box::inventory;
using channel_box::run;
using channel_frames::frame_of;
using channel_frames::message_of;
using channel_frames::octets;
using testing::ElementsAre;
using testing::IsEmpty;
namespace platform = ravo::platform;

constexpr int nothing_comes_ms = 20;
constexpr std::uint32_t server = 0xC000020B, unreachable = 0xC6336401;  // 192.0.2.11, 198.51.100.1
constexpr int client_vlan = 1034, no_vlan = 1035;                       // the switch's numbers

std::vector<std::string> told;  // to the relay: "vlan 10: Network is unreachable"

void on_refused(int, const sockaddr *, int error) {
    told.push_back("vlan " + std::to_string(platform::log_subject_now().vlan) + ": " + std::strerror(error));
}

// The uplink and one port, and both sockets of the relay, which gather.
struct SendBatch : channel_box::BoxTest {
    void SetUp() override {
        BoxTest::SetUp();
        add_port("uplink", "far", 700);
        run("ip addr add 192.0.2.1/24 dev uplink");
        run("ip neigh add 192.0.2.11 lladdr 02:00:00:00:99:11 dev uplink");
        add_port("swp1", "c1", 701);
        inventory.devices[client_vlan] = ifindex("swp1");
        platform::books_clear_counters();
        platform::books_set_recorder(16);
        platform::send_figures_clear();
        told.clear();
        vex_print_threshold = platform::log_level_warning;
        udp = osal_socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
        const int one = 1;  // its lanes share the port
        ASSERT_EQ(osal_setsockopt(udp, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one), 0);
        sockaddr_in any{};
        any.sin_family = AF_INET;
        any.sin_port = htons(68);
        ASSERT_EQ(osal_bind(udp, reinterpret_cast<const sockaddr *>(&any), sizeof any), 0) << std::strerror(errno);
        raw = osal_socket(AF_PACKET, SOCK_RAW, 65535);
        osal_gather(udp, on_refused);
        osal_gather(raw, on_refused);
    }
    void TearDown() override {
        platform::batch_end();
        osal_close(udp);
        osal_close(raw);
        BoxTest::TearDown();
    }

    // The relay's part: one message in hand, and what becomes of it.
    void open(std::uint16_t vlan) { platform::books_open(vlan, 5121, bytes, bytes); }
    ssize_t ask(std::uint32_t whom) {
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_port = htons(67);
        to.sin_addr.s_addr = htonl(whom);
        const ssize_t sent =
            osal_sendto(udp, bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr *>(&to), sizeof to);
        if (sent > 0) outcome_server(to.sin_addr.s_addr);
        return sent;
    }
    void relay(std::uint16_t vlan, std::uint32_t whom) {
        open(vlan);
        outcome_record(ask(whom) > 0 ? OUTCOME_RELAYED : OUTCOME_SEND_FAILED);
        platform::books_close();
    }
    ssize_t send_frame(const octets &frame, int interface) {
        sockaddr_ll to{};
        to.sll_family = AF_PACKET;
        to.sll_ifindex = interface;
        iovec whole{const_cast<std::uint8_t *>(frame.data()), frame.size()};
        alignas(cmsghdr) std::array<std::uint8_t, CMSG_SPACE(8)> control{};
        const cmsghdr head{.cmsg_len = CMSG_LEN(8), .cmsg_level = 0, .cmsg_type = OSAL_CMSG_ORIGIN};
        std::memcpy(control.data(), &head, sizeof head);
        msghdr msg{};
        msg.msg_name = &to;
        msg.msg_namelen = sizeof to;
        msg.msg_iov = &whole;
        msg.msg_iovlen = 1;
        msg.msg_control = control.data();
        msg.msg_controllen = CMSG_LEN(8);
        return osal_sendmsg(raw, &msg, 0);
    }
    void deliver(std::uint16_t vlan, int interface = client_vlan) {
        open(vlan);
        const bool sent = send_frame(frame_of({.source_port = 67, .destination_port = 68}), interface) > 0;
        outcome_record(sent ? OUTCOME_DELIVERED : OUTCOME_SEND_FAILED);
        platform::books_close();
    }
    static bool comes(const far_end &at, int limit_ms = channel_box::wait_limit_ms) {
        return !at.receive(0x0800, limit_ms).empty();
    }
    // Outcomes in the recorder, oldest first.
    static std::vector<std::string> recorded() {
        std::vector<std::string> out;
        platform::books_each_recorded([&](const platform::book_entry &entry) {
            out.insert(out.begin(), std::string(platform::outcome_word(static_cast<relay_outcome>(entry.outcome))));
        });
        return out;
    }

    octets bytes = message_of(300);
    int udp = -1;
    int raw = -1;
};

TEST_F(SendBatch, WhatIsSentInATurnLeavesAtItsEnd) {
    const far_end servers("far"), clients("c1");
    platform::batch_begin();
    relay(10, server);
    deliver(10);
    EXPECT_FALSE(comes(servers, nothing_comes_ms));
    EXPECT_FALSE(comes(clients, nothing_comes_ms));
    EXPECT_THAT(recorded(), IsEmpty());
    platform::batch_end();
    EXPECT_TRUE(comes(servers));
    EXPECT_TRUE(comes(clients));
    EXPECT_THAT(recorded(), ElementsAre("relayed", "delivered"));
    EXPECT_THAT(told, IsEmpty());
}

TEST_F(SendBatch, OutsideOfATurnNothingWaits) {
    const far_end servers("far");
    relay(10, server);
    EXPECT_TRUE(comes(servers));
    EXPECT_THAT(recorded(), ElementsAre("relayed"));
}

TEST_F(SendBatch, CopiesKeepTheirOrder) {
    const far_end servers("far");
    platform::batch_begin();
    for (std::uint8_t i = 0; i < 2 * platform::send_batch_limit; ++i) {
        bytes = message_of(300, i);
        relay(10, server);
    }
    platform::batch_end();
    for (std::uint8_t i = 0; i < 2 * platform::send_batch_limit; ++i) {
        const octets frame = servers.receive(0x0800);
        ASSERT_EQ(frame.size(), 42U + 300) << int{i};
        EXPECT_EQ(frame[42], message_of(300, i)[0]);
    }
    EXPECT_EQ(platform::books_total().by_outcome[OUTCOME_RELAYED], 2 * platform::send_batch_limit);
}

TEST_F(SendBatch, ARefusedCopyIsCountedTakenBackAndTold) {
    const far_end servers("far"), clients("c1");
    platform::batch_begin();
    relay(10, server);
    relay(11, unreachable);
    open(12);
    EXPECT_GT(ask(unreachable), 0) << "nobody knows yet";
    EXPECT_GT(ask(server), 0);
    outcome_record(OUTCOME_RELAYED);
    platform::books_close();
    run("ip link set swp1 down");
    deliver(13);
    platform::batch_end();
    EXPECT_TRUE(comes(servers));
    EXPECT_TRUE(comes(servers));
    EXPECT_FALSE(comes(servers, nothing_comes_ms));
    EXPECT_THAT(recorded(), ElementsAre("relayed", "send-failed", "relayed", "send-failed"));
    EXPECT_THAT(told, ElementsAre("vlan 11: Network is unreachable", "vlan 12: Network is unreachable",
                                  "vlan 13: Network is down"));
    EXPECT_EQ(platform::send_figures_of_server(htonl(unreachable)).failed, 2U);
    EXPECT_EQ(platform::send_figures_of_interface(client_vlan).failed, 1U);
    EXPECT_EQ(platform::books_total().sent, 2U);
}

TEST_F(SendBatch, AFullSocketIsNoReasonToLoseWhatOthersSend) {
    constexpr std::uint32_t dead = 0xC000020C;  // does not answer ARP
    run("sysctl -qw net.ipv4.neigh.uplink.unres_qlen_bytes=100000000");
    while (ask(dead) > 0) {
    }
    ASSERT_EQ(errno, EAGAIN);
    const far_end servers("far");
    platform::send_figures_clear();
    platform::batch_begin();
    relay(10, dead);
    relay(11, server);
    platform::batch_end();
    EXPECT_TRUE(comes(servers));
    EXPECT_THAT(recorded(), ElementsAre("send-failed", "relayed"));
    EXPECT_EQ(platform::send_figures_of_server(htonl(dead)).no_room, 1U);
    EXPECT_THAT(told, ElementsAre("vlan 10: Resource temporarily unavailable"));
}

TEST_F(SendBatch, ALineOfTheLogSendsWhatWaits) {
    const far_end servers("far");
    platform::batch_begin();
    relay(10, unreachable);
    relay(11, server);
    EXPECT_THAT(told, IsEmpty());
    platform::log_line(platform::log_level_warning, "a line");
    EXPECT_THAT(told, ElementsAre("vlan 10: Network is unreachable")) << "what there is to say comes first";
    EXPECT_TRUE(comes(servers));
    platform::batch_end();
}

TEST_F(SendBatch, NothingWaitsWhileEachSendIsTraced) {
    const far_end servers("far");
    vex_print_threshold = platform::log_level_trace;
    platform::batch_begin();
    relay(10, server);
    EXPECT_TRUE(comes(servers));
    open(11);
    EXPECT_EQ(ask(unreachable), -1);
    EXPECT_EQ(errno, ENETUNREACH);
    platform::books_close();
    platform::batch_end();
    vex_print_threshold = platform::log_level_warning;
    EXPECT_THAT(told, IsEmpty());
}

TEST_F(SendBatch, WhatCannotWaitDoesNotOvertake) {
    const far_end clients("c1");
    platform::batch_begin();
    deliver(10);
    open(10);
    EXPECT_GT(send_frame(frame_of({.source_port = 68, .destination_port = 67}), client_vlan), 0) << "a local broadcast";
    EXPECT_TRUE(comes(clients)) << "the reply";
    EXPECT_TRUE(comes(clients));
    platform::books_close();
    deliver(10, no_vlan);
    EXPECT_EQ(platform::send_figures_of_interface(no_vlan).failed, 1U) << "known at once";
    platform::batch_end();
    EXPECT_THAT(told, IsEmpty());
}

TEST_F(SendBatch, AnEndWithoutATurnsEndSendsWhatWaits) {
    const far_end servers("far");
    const pid_t child = fork();
    if (child == 0) {
        platform::batch_begin();
        relay(10, server);
        platform::sends_hand_over();
        _exit(platform::books_total().received == 1 ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(comes(servers));
}

}  // namespace

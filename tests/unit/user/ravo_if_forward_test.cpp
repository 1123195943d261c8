// SPDX-License-Identifier: Apache-2.0
// Forwarding of requests: which servers a request goes to, what each of them gets, and what is said about it.
#include "ravo_if_forward.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "fake_platform.h"
#include "ravo_db_if.h"
#include "ravo_if_socket.h"
#include "ravo_if_state.h"

namespace {

using fake::address;
using fake::datagram;
using fake::line;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::uint32_t exact = 0;
constexpr std::uint32_t partial = 1;

constexpr int trace = 101;
constexpr int failure = 104;

// What a request brings to choose servers by; an empty text: it did not bring the option.
struct client {
    std::string vendor;
    fake::bytes client_id;
};

class Forwarding : public testing::Test {
  protected:
    void SetUp() override {
        fake::reset();
        std::strcpy(via.name, "vlan10");
        fd = ravo_if_create_server_tx_socket();
        for (std::size_t i = 0; i < message.size(); ++i) message[i] = static_cast<std::uint8_t>(i * 7 + 1);
        fake::forget();
    }

    void TearDown() override {
        ravo_if_close_all_fd();
        EXPECT_THAT(fake::leftovers(), IsEmpty());
    }

    void plain(int slot, const char *server) {
        via.server_db[slot] = address(server);
        ++via.server_count;
    }

    void by_vendor(int slot, const char *vendor, std::uint32_t rule, const char *server) {
        opt60_host &host = via.opt60_hosts[slot];
        host.used = 1;
        host.match_rule = rule;
        std::strcpy(host.vendor, vendor);
        host.server = address(server);
        ++via.opt60_count;
    }

    void by_client_id(int slot, const fake::bytes &id, const char *server) {
        opt61_host &host = via.opt61_hosts[slot];
        host.used = 1;
        std::copy(id.begin(), id.end(), host.client_id);
        host.client_id_len = static_cast<std::uint32_t>(id.size());
        host.server = address(server);
        ++via.opt61_count;
    }

    void send(const client &from) {
        fake::bytes id(129);
        std::copy(from.client_id.begin(), from.client_id.end(), id.begin());
        EXPECT_EQ(0, ravo_if_send_server_Unicast(&via, message.data(), static_cast<std::uint32_t>(message.size()),
                                                 id.data(), from.vendor.c_str(), from.vendor.empty() ? 0 : 1,
                                                 from.client_id.empty() ? 0 : 1, pkt_origin{1034, 5121}));
    }

    // One copy of the message to port 67 of a server.
    datagram copy_to(const std::string &server) const { return {fd, server + ":67", message, 0}; }

    line entry(int servers) const {
        return {trace, "ravo_if_send_server_Unicast (#): interface=vlan10, number of configured server=" +
                           std::to_string(servers) + "\n"};
    }
    static line empty_slot(int slot) {
        return {trace, "ravo_if_send_server_Unicast (#): server_db[" + std::to_string(slot) + "].s_addr==0\n"};
    }
    static line by_option(int sent60, int sent61) {
        return {trace, "ravo_if_send_server_Unicast (#):Packet already sent by option,60=" + std::to_string(sent60) +
                           ",61=" + std::to_string(sent61) + "\n"};
    }
    line send_error(int error) const {
        return {failure, "ravo_if_send_server_Unicast (#): sock_fd=" + std::to_string(fd) + ", sendmsg error " +
                             std::strerror(error) + "\n"};
    }
    line failed_host(const std::string &server, int result) const {
        return {failure, "ravo_if_send_server_Unicast (#): tx host " + server + ", fd=" + std::to_string(fd) +
                             ", res=" + std::to_string(result) + "\n"};
    }

    iface via{};
    int fd = -1;
    fake::bytes message = fake::bytes(301);
};

TEST_F(Forwarding, SendsFromTheSocketBoundToPort68) {
    EXPECT_EQ(fake::socket_of(AF_INET, "0.0.0.0:68"), fd);
    plain(0, "192.0.2.1");
    send({});
    EXPECT_THAT(fake::datagrams, ElementsAre(datagram{fd, "192.0.2.1:67", message, 0}));
}

TEST_F(Forwarding, SendsToEveryPlainServerAndTracesEmptySlots) {
    plain(0, "192.0.2.1");
    plain(2, "192.0.2.3");
    send({});
    EXPECT_THAT(fake::datagrams, ElementsAre(copy_to("192.0.2.1"), copy_to("192.0.2.3")));
    EXPECT_THAT(fake::traces(), ElementsAre(entry(2), empty_slot(1), empty_slot(3)));
    EXPECT_THAT(fake::outcome_servers, ElementsAre(address("192.0.2.1"), address("192.0.2.3")));
    EXPECT_THAT(fake::outcomes, ElementsAre(OUTCOME_RELAYED));
}

TEST_F(Forwarding, SendsToFourPlainServersInOrder) {
    plain(0, "192.0.2.4");
    plain(1, "192.0.2.3");
    plain(2, "192.0.2.2");
    plain(3, "192.0.2.1");
    send({});
    EXPECT_THAT(fake::datagrams,
                ElementsAre(copy_to("192.0.2.4"), copy_to("192.0.2.3"), copy_to("192.0.2.2"), copy_to("192.0.2.1")));
    EXPECT_THAT(fake::traces(), ElementsAre(entry(4)));
}

TEST_F(Forwarding, SendsNothingWithoutAnyServer) {
    send({.vendor = "abc", .client_id = {1, 2, 3, 4}});
    EXPECT_THAT(fake::datagrams, IsEmpty());
    EXPECT_THAT(fake::traces(), ElementsAre(entry(0), empty_slot(0), empty_slot(1), empty_slot(2), empty_slot(3)));
    EXPECT_THAT(fake::outcomes, ElementsAre(OUTCOME_NO_SERVER));
    EXPECT_THAT(fake::outcome_servers, IsEmpty());
}

TEST_F(Forwarding, PartialRuleFindsTheReceivedTextInTheConfiguredOne) {
    plain(0, "192.0.2.1");
    by_vendor(0, "xabcx", partial, "192.0.2.60");
    send({.vendor = "abc", .client_id = {}});
    EXPECT_THAT(fake::datagrams, ElementsAre(copy_to("192.0.2.60")));
    EXPECT_THAT(fake::traces(), ElementsAre(entry(1), by_option(1, 0)));
    EXPECT_THAT(fake::outcomes, ElementsAre(OUTCOME_RELAYED));
    EXPECT_THAT(fake::outcome_servers, ElementsAre(address("192.0.2.60")));
}

TEST_F(Forwarding, PartialRuleDoesNotFindTheConfiguredTextInTheReceivedOne) {
    plain(0, "192.0.2.1");
    by_vendor(0, "abc", partial, "192.0.2.60");
    send({.vendor = "xabcx", .client_id = {}});
    EXPECT_THAT(fake::datagrams, ElementsAre(copy_to("192.0.2.1")));
    EXPECT_THAT(fake::traces(), ElementsAre(entry(1), empty_slot(1), empty_slot(2), empty_slot(3)));
}

TEST_F(Forwarding, ExactRuleWantsTheWholeText) {
    plain(0, "192.0.2.1");
    by_vendor(0, "xabcx", exact, "192.0.2.60");
    send({.vendor = "abc", .client_id = {}});
    EXPECT_THAT(fake::datagrams, ElementsAre(copy_to("192.0.2.1")));

    fake::forget();
    send({.vendor = "xabcx", .client_id = {}});
    EXPECT_THAT(fake::datagrams, ElementsAre(copy_to("192.0.2.60")));
}

TEST_F(Forwarding, AnyOtherRuleNeverMatches) {
    plain(0, "192.0.2.1");
    by_vendor(0, "abc", 2, "192.0.2.60");
    send({.vendor = "abc", .client_id = {}});
    EXPECT_THAT(fake::datagrams, ElementsAre(copy_to("192.0.2.1")));
}

TEST_F(Forwarding, EveryMatchingVendorHostGetsACopy) {
    plain(0, "192.0.2.1");
    by_vendor(0, "abc", exact, "192.0.2.60");
    by_vendor(1, "other", exact, "192.0.2.61");
    by_vendor(3, "xxabc", partial, "192.0.2.63");
    send({.vendor = "abc", .client_id = {}});
    EXPECT_THAT(fake::datagrams, ElementsAre(copy_to("192.0.2.60"), copy_to("192.0.2.63")));
}

TEST_F(Forwarding, UnusedEntriesAreNotLookedAt) {
    plain(0, "192.0.2.1");
    by_vendor(0, "abc", exact, "192.0.2.60");
    via.opt60_hosts[0].used = 0;
    by_client_id(0, {1, 2, 3, 4}, "192.0.2.71");
    via.opt61_hosts[0].used = 0;
    send({.vendor = "abc", .client_id = {1, 2, 3, 4}});
    EXPECT_THAT(fake::datagrams, ElementsAre(copy_to("192.0.2.1")));
}

TEST_F(Forwarding, CountsOfZeroKeepTheOptionsOut) {
    plain(0, "192.0.2.1");
    by_vendor(0, "abc", exact, "192.0.2.60");
    by_client_id(0, {1, 2, 3, 4}, "192.0.2.71");
    via.opt60_count = 0;
    via.opt61_count = 0;
    send({.vendor = "abc", .client_id = {1, 2, 3, 4}});
    EXPECT_THAT(fake::datagrams, ElementsAre(copy_to("192.0.2.1")));
}

TEST_F(Forwarding, OptionsThatTheRequestDidNotBringChooseNothing) {
    plain(0, "192.0.2.1");
    by_vendor(0, "", exact, "192.0.2.60");           // would match the empty text
    by_client_id(0, {0, 0, 0, 0, 1}, "192.0.2.71");  // would match the zero-filled buffer
    send({});
    EXPECT_THAT(fake::datagrams, ElementsAre(copy_to("192.0.2.1")));
}

TEST_F(Forwarding, OnlyFoundFlagsOfOneCount) {
    plain(0, "192.0.2.1");
    by_vendor(0, "abc", exact, "192.0.2.60");
    const fake::bytes id(129);
    ravo_if_send_server_Unicast(&via, message.data(), static_cast<std::uint32_t>(message.size()), id.data(), "abc",
                                /*opt60_found=*/2, /*opt61_found=*/2, pkt_origin{});
    EXPECT_THAT(fake::datagrams, ElementsAre(copy_to("192.0.2.1")));

    fake::forget();
    by_client_id(0, {0, 0, 0, 0}, "192.0.2.71");
    ravo_if_send_server_Unicast(&via, message.data(), static_cast<std::uint32_t>(message.size()), id.data(), "abc",
                                /*opt60_found=*/0, /*opt61_found=*/2, pkt_origin{});
    EXPECT_THAT(fake::datagrams, ElementsAre(copy_to("192.0.2.1")));
}

TEST_F(Forwarding, ClientIdentifiersAreComparedInTheirFirstFourBytes) {
    plain(0, "192.0.2.1");
    by_client_id(0, {1, 2, 3, 4, 5}, "192.0.2.71");
    send({.vendor = "", .client_id = {1, 2, 3, 4, 9, 9}});
    EXPECT_THAT(fake::datagrams, ElementsAre(copy_to("192.0.2.71")));
    EXPECT_THAT(fake::traces(), ElementsAre(entry(1), by_option(0, 1)));

    fake::forget();
    send({.vendor = "", .client_id = {1, 2, 3, 5, 5}});
    EXPECT_THAT(fake::datagrams, ElementsAre(copy_to("192.0.2.1")));
}

TEST_F(Forwarding, EveryMatchingClientIdentifierHostGetsACopy) {
    by_client_id(0, {1, 2, 3, 4}, "192.0.2.71");
    by_client_id(1, {9, 9, 9, 9}, "192.0.2.72");
    by_client_id(3, {1, 2, 3, 4}, "192.0.2.74");
    send({.vendor = "", .client_id = {1, 2, 3, 4}});
    EXPECT_THAT(fake::datagrams, ElementsAre(copy_to("192.0.2.71"), copy_to("192.0.2.74")));
}

TEST_F(Forwarding, BothOptionsChooseAndThePlainListIsSkipped) {
    plain(0, "192.0.2.1");
    by_vendor(2, "abc", exact, "192.0.2.60");
    by_client_id(1, {1, 2, 3, 4}, "192.0.2.71");
    send({.vendor = "abc", .client_id = {1, 2, 3, 4}});
    EXPECT_THAT(fake::datagrams, ElementsAre(copy_to("192.0.2.60"), copy_to("192.0.2.71")));
    EXPECT_THAT(fake::traces(), ElementsAre(entry(1), by_option(1, 1)));
    EXPECT_THAT(fake::outcomes, ElementsAre(OUTCOME_RELAYED));
}

TEST_F(Forwarding, AFailedSendToAChosenServerStillSkipsThePlainList) {
    plain(0, "192.0.2.1");
    by_vendor(0, "abc", exact, "192.0.2.60");
    fake::script(fake::op::sendto, {.error = ENETUNREACH});
    send({.vendor = "abc", .client_id = {}});
    EXPECT_THAT(fake::datagrams, IsEmpty());
    EXPECT_THAT(fake::traces(),
                ElementsAre(entry(1), send_error(ENETUNREACH), failed_host("192.0.2.60", -1), by_option(1, 0)));
    EXPECT_THAT(fake::outcomes, ElementsAre(OUTCOME_SEND_FAILED));
    EXPECT_THAT(fake::outcome_servers, IsEmpty());
}

TEST_F(Forwarding, AFailedSendByClientIdentifierStillSkipsThePlainList) {
    plain(0, "192.0.2.1");
    by_client_id(0, {1, 2, 3, 4}, "192.0.2.71");
    fake::script(fake::op::sendto, {.error = EPERM});
    send({.vendor = "", .client_id = {1, 2, 3, 4}});
    EXPECT_THAT(fake::datagrams, IsEmpty());
    EXPECT_THAT(fake::traces(),
                ElementsAre(entry(1), send_error(EPERM), failed_host("192.0.2.71", -1), by_option(0, 1)));
}

TEST_F(Forwarding, AFailedSendGoesOnWithTheNextServer) {
    plain(0, "192.0.2.1");
    plain(1, "192.0.2.2");
    fake::script(fake::op::sendto, {.error = EHOSTUNREACH});
    send({});
    EXPECT_THAT(fake::datagrams, ElementsAre(copy_to("192.0.2.2")));
    EXPECT_THAT(fake::traces(), ElementsAre(entry(2), send_error(EHOSTUNREACH), failed_host("192.0.2.1", -1),
                                            empty_slot(2), empty_slot(3)));
    EXPECT_THAT(fake::outcomes, ElementsAre(OUTCOME_RELAYED));
    EXPECT_THAT(fake::outcome_servers, ElementsAre(address("192.0.2.2")));
}

TEST_F(Forwarding, ASendThatTakesNoByteCountsAsFailed) {
    plain(0, "192.0.2.1");
    message.clear();  // the socket then takes 0 bytes
    send({});
    // Taking nothing is no error of its own: the line shows the one that was left behind.
    EXPECT_THAT(fake::traces(), ElementsAre(entry(1), send_error(EDOM), failed_host("192.0.2.1", 0), empty_slot(1),
                                            empty_slot(2), empty_slot(3)));
    EXPECT_THAT(fake::outcomes, ElementsAre(OUTCOME_SEND_FAILED));
}

TEST_F(Forwarding, ASendThatTakesAByteCountsAsDone) {
    plain(0, "192.0.2.1");
    fake::script(fake::op::sendto, {.result = 1});
    send({});
    EXPECT_THAT(fake::traces(failure), IsEmpty());
    EXPECT_THAT(fake::outcomes, ElementsAre(OUTCOME_RELAYED));
}

TEST_F(Forwarding, ClosedSocketIsAFailedSend) {
    plain(3, "192.0.2.1");
    ravo_if_close_all_fd();
    fake::forget();
    fd = -1;
    send({});
    EXPECT_THAT(fake::traces(), ElementsAre(entry(1), empty_slot(0), empty_slot(1), empty_slot(2), send_error(EBADF),
                                            failed_host("192.0.2.1", -1)));
    EXPECT_THAT(fake::outcomes, ElementsAre(OUTCOME_SEND_FAILED));
}

TEST_F(Forwarding, WhatIsRefusedAfterwardsIsTracedAsWhatFailsAtOnce) {
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(67);
    to.sin_addr.s_addr = address("192.0.2.1");
    ASSERT_TRUE(fake::refuse(fd, reinterpret_cast<const sockaddr *>(&to), ENETUNREACH));
    EXPECT_THAT(fake::traces(), ElementsAre(send_error(ENETUNREACH), failed_host("192.0.2.1", -1)));
    EXPECT_THAT(fake::outcomes, IsEmpty()) << "that is the platform's part";
}

TEST_F(Forwarding, FilteredTracesChangeNothing) {
    fake::print_from(104);
    plain(0, "192.0.2.1");
    send({});
    EXPECT_THAT(fake::datagrams, ElementsAre(copy_to("192.0.2.1")));
    EXPECT_THAT(fake::traces(), IsEmpty());
}

}  // namespace

// SPDX-License-Identifier: Apache-2.0
// Which entries of a bridge's table let a station through at a locked port. The kernel's own answers are tried in
// channel_inventory_test.cpp.
#include "inventory/inventory_stations.h"

#include <gtest/gtest.h>
#include <libmnl/libmnl.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

namespace ravo::platform {
namespace {

struct entry {
    std::uint16_t type = RTM_NEWNEIGH;
    unsigned char family = AF_BRIDGE;
    int member = 5;
    std::uint16_t state = NUD_REACHABLE;
    std::uint32_t extended = 0;
    std::uint32_t cut = 0;  // bytes
};

bool admits(const entry &e) {
    alignas(nlmsghdr) char room[256] = {};
    nlmsghdr *message = mnl_nlmsg_put_header(room);
    message->nlmsg_type = e.type;
    auto *header = static_cast<ndmsg *>(mnl_nlmsg_put_extra_header(message, sizeof(ndmsg)));
    header->ndm_family = e.family;
    header->ndm_ifindex = e.member;
    header->ndm_state = e.state;
    mnl_attr_put_u32(message, NDA_FLAGS_EXT, e.extended);
    message->nlmsg_len -= e.cut;
    return stations_entry_admits(message, 5);
}

TEST(Stations, AnEntryAtThePortAdmits) {
    EXPECT_TRUE(admits({}));
    EXPECT_TRUE(admits({.state = NUD_NOARP})) << "a static one";
    EXPECT_TRUE(admits({.extended = 1}));
}

TEST(Stations, OtherEntriesDoNot) {
    EXPECT_FALSE(admits({.type = RTM_DELNEIGH}));
    EXPECT_FALSE(admits({.type = NLMSG_ERROR}));
    EXPECT_FALSE(admits({.family = AF_INET}));
    EXPECT_FALSE(admits({.member = 6})) << "at another port";
    EXPECT_FALSE(admits({.state = NUD_PERMANENT})) << "the box itself";
    EXPECT_FALSE(admits({.extended = 2})) << "locked in turn";
    EXPECT_FALSE(admits({.extended = 3}));
    EXPECT_FALSE(admits({.cut = 9})) << "no whole header";
}

}  // namespace
}  // namespace ravo::platform

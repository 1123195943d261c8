// SPDX-License-Identifier: Apache-2.0
// The server tables of an interface: plain servers, and whether there is one.
#include "ravo_if_server.h"

#include "packet_relay.h"
#include "relay_fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

using RavoServer = Relay;
using trace_lines = std::vector<fake::line>;

std::uint32_t ip(const char *text) {
    return fake::address(text);
}

// An entry for a vendor class.
// ---- Plain servers ----

TEST_F(RavoServer, AServerGoesIntoTheFirstEmptySlot) {
    iface record = vlan_record(10);
    EXPECT_EQ(RAVO_IF_Add_Server_Host(&record, "10.0.0.1"), 0u);
    EXPECT_EQ(describe(record), describe(vlan_record(10, {"10.0.0.1"})));
    EXPECT_THAT(fake::traces(),
                ElementsAre(fake::line{101,
                                       "RAVO_IF_Add_Server_Host (#): Add server 10.0.0.1 to interface vlan10 and "
                                       "ifindex=1034\n"},
                            fake::line{101, "ravo_if_find_server_host_by_ip (#): Find server ip 10.0.0.1, ret=-1\n"},
                            fake::line{101, "ravo_if_find_first_unused_server_host (#): array index =0"},
                            fake::line{101, "RAVO_IF_Add_Server_Host (#): interface vlan10 find available index 0\n"}));
}

TEST_F(RavoServer, FourServersFitAndAFifthIsRefused) {
    iface record = vlan_record(10);
    for (const char *server : {"10.0.0.1", "10.0.0.2", "10.0.0.3", "10.0.0.4"})
        EXPECT_EQ(RAVO_IF_Add_Server_Host(&record, server), RAVO_OK);
    const iface full = record;
    EXPECT_EQ(RAVO_IF_Add_Server_Host(&record, "10.0.0.5"), RAVO_ERR_SERVER_FULL);
    EXPECT_EQ(describe(record), describe(full));
    EXPECT_EQ(slots_of(record), "10.0.0.1 10.0.0.2 10.0.0.3 10.0.0.4");
    EXPECT_EQ(record.server_count, 4u);
}

TEST_F(RavoServer, AnExistingServerIsReportedBeforeTheFullTable) {
    iface record = vlan_record(10, {"10.0.0.1", "10.0.0.2", "10.0.0.3", "10.0.0.4"});
    const iface before = record;
    EXPECT_EQ(RAVO_IF_Add_Server_Host(&record, "10.0.0.3"), RAVO_ERR_SERVER_EXISTS);
    EXPECT_EQ(describe(record), describe(before));
    EXPECT_EQ(fake::traces().back(),
              (fake::line{101, "ravo_if_find_server_host_by_ip (#): Find server ip 10.0.0.3, ret=2\n"}));
}

TEST_F(RavoServer, TheFirstServerIsNotAddedAgain) {
    iface record = vlan_record(10, {"10.0.0.1"});
    EXPECT_EQ(RAVO_IF_Add_Server_Host(&record, "10.0.0.1"), RAVO_ERR_SERVER_EXISTS);
    EXPECT_EQ(slots_of(record), "10.0.0.1 0.0.0.0 0.0.0.0 0.0.0.0");
    EXPECT_EQ(record.server_count, 1u);
}

TEST_F(RavoServer, AHoleIsFilledFirst) {
    iface record = vlan_record(10, {"10.0.0.1", "0.0.0.0", "10.0.0.3"});
    record.server_count = 2;
    EXPECT_EQ(RAVO_IF_Add_Server_Host(&record, "10.0.0.9"), RAVO_OK);
    EXPECT_EQ(slots_of(record), "10.0.0.1 10.0.0.9 10.0.0.3 0.0.0.0");
    EXPECT_EQ(record.server_count, 3u);
}

TEST_F(RavoServer, WithoutAnAddressNothingIsAdded) {
    iface record = vlan_record(10);
    const iface before = record;
    EXPECT_EQ(RAVO_IF_Add_Server_Host(&record, nullptr), RAVO_OK);
    EXPECT_EQ(RAVO_IF_Add_Option60_Server_Host(&record, "phone", 0, nullptr), RAVO_OK);
    EXPECT_EQ(RAVO_IF_Add_Option61_Server_Host(&record, "0102", nullptr), RAVO_OK);
    EXPECT_EQ(RAVO_IF_Add_Server_Host(nullptr, nullptr), RAVO_OK);
    EXPECT_EQ(describe(record), describe(before));
}

TEST_F(RavoServer, AnInvalidAddressOrNoRecordIsAnAddressError) {
    iface record = vlan_record(10);
    const iface before = record;
    for (const char *text : {"", "10.0.0.256", "10.0.0.1.2", "server", "10.0.0.x"}) {
        EXPECT_EQ(RAVO_IF_Add_Server_Host(&record, text), RAVO_ERR_SERVER_IP) << text;
        EXPECT_EQ(RAVO_IF_Add_Option60_Server_Host(&record, "phone", 0, text), RAVO_ERR_SERVER_IP) << text;
        EXPECT_EQ(RAVO_IF_Add_Option61_Server_Host(&record, "0102", text), RAVO_ERR_SERVER_IP) << text;
    }
    EXPECT_EQ(RAVO_IF_Add_Server_Host(nullptr, "10.0.0.1"), RAVO_ERR_SERVER_IP);
    EXPECT_EQ(fake::traces(101).back(),
              "RAVO_IF_Add_Server_Host (#): Add server 10.0.0.1 to interface (null) and ifindex=0\n");
    EXPECT_EQ(RAVO_IF_Add_Option60_Server_Host(nullptr, "phone", 0, "10.0.0.1"), RAVO_ERR_SERVER_IP);
    EXPECT_EQ(RAVO_IF_Add_Option61_Server_Host(nullptr, "0102", "10.0.0.1"), RAVO_ERR_SERVER_IP);
    EXPECT_EQ(describe(record), describe(before));
}

TEST_F(RavoServer, FindsPlainServersAndEmptySlots) {
    const iface record = vlan_record(10, {"10.0.0.1", "10.0.0.2"});
    EXPECT_EQ(ravo_if_find_server_host_by_ip(&record, ip("10.0.0.2")), 1);
    EXPECT_EQ(ravo_if_find_server_host_by_ip(&record, ip("10.0.0.9")), -1);
    EXPECT_EQ(ravo_if_find_first_unused_server_host(&record), 2);
    const iface full = vlan_record(10, {"10.0.0.1", "10.0.0.2", "10.0.0.3", "10.0.0.4"});
    EXPECT_EQ(ravo_if_find_first_unused_server_host(&full), -1);
    EXPECT_THAT(fake::traces(),
                ElementsAre(fake::line{101, "ravo_if_find_server_host_by_ip (#): Find server ip 10.0.0.2, ret=1\n"},
                            fake::line{101, "ravo_if_find_server_host_by_ip (#): Find server ip 10.0.0.9, ret=-1\n"},
                            fake::line{101, "ravo_if_find_first_unused_server_host (#): array index =2"},
                            fake::line{101, "ravo_if_find_first_unused_server_host (#): array index =-1"}));
}

TEST_F(RavoServer, DeletingTheFirstOfThreeMovesTheOthersUp) {
    iface record = vlan_record(10, {"10.0.0.1", "10.0.0.2", "10.0.0.3"});
    EXPECT_EQ(ravo_if_del_server_host(&record, "10.0.0.1"), 0u);
    EXPECT_EQ(describe(record), describe(vlan_record(10, {"10.0.0.2", "10.0.0.3"})));
}

TEST_F(RavoServer, DeletingPacksInOnePass) {
    // Two holes in a row are more than one pass closes.
    iface record = vlan_record(10, {"10.0.0.1", "0.0.0.0", "0.0.0.0", "10.0.0.4"});
    record.server_count = 2;
    EXPECT_EQ(ravo_if_del_server_host(&record, "10.0.0.1"), 0u);
    EXPECT_EQ(slots_of(record), "0.0.0.0 0.0.0.0 10.0.0.4 0.0.0.0");
    EXPECT_EQ(record.server_count, 1u);
}

TEST_F(RavoServer, DeletingOneServerIsZeroWhateverRemains) {
    iface record = vlan_record(10, {"10.0.0.1", "10.0.0.2"});
    record.opt60_count = 3;
    record.opt61_count = 2;
    EXPECT_EQ(ravo_if_del_server_host(&record, "10.0.0.2"), 0u);
}

TEST_F(RavoServer, DeletingAnUnknownOrInvalidServerIsNoServer) {
    iface record = vlan_record(10, {"10.0.0.1"});
    const iface before = record;
    for (const char *text : {"10.0.0.2", "10.0.0.256", "", "all"})
        EXPECT_EQ(ravo_if_del_server_host(&record, text), RAVO_ERR_NO_SERVER) << text;
    EXPECT_EQ(describe(record), describe(before));
}

TEST_F(RavoServer, DeletingTracesItsSearch) {
    iface record = vlan_record(10, {"10.0.0.1"});
    EXPECT_EQ(ravo_if_del_server_host(&record, "10.0.0.1"), 0u);
    EXPECT_EQ(ravo_if_del_server_host(&record, "10.0.0.1"), RAVO_ERR_NO_SERVER);
    EXPECT_EQ(fake::traces(),
              (trace_lines{{101, "ravo_if_find_server_host_by_ip (#): Find server ip 10.0.0.1, ret=0\n"},
                           {101, "ravo_if_find_server_host_by_ip (#): Find server ip 10.0.0.1, ret=-1\n"}}));
}

// deliberate: an empty slot is nobody's server, and taking it away would count a configured one off.
TEST_F(RavoServer, DeletingAServerLeavesWhatFollowsTheTable) {
    iface record = vlan_record(10, {"10.0.0.1", "10.0.0.2", "10.0.0.3", "10.0.0.4"});
    record.opt60_count = record.opt61_count = 2;
    auto *behind = reinterpret_cast<std::uint8_t *>(&record) + offsetof(iface, server_db) + sizeof record.server_db;
    const std::size_t size = sizeof record - offsetof(iface, server_db) - sizeof record.server_db;
    const std::vector<std::uint8_t> before(behind, behind + size);
    EXPECT_EQ(ravo_if_del_server_host(&record, "10.0.0.1"), RAVO_OK);
    EXPECT_EQ(record.server_db[3], 0U);
    EXPECT_EQ(std::vector<std::uint8_t>(behind, behind + size), before);
}

TEST_F(RavoServer, DeletingAddressZeroTakesNoEmptySlotForAServer) {
    for (const std::vector<std::string> &servers :
         {std::vector<std::string>{}, {"10.0.0.1"}, {"10.0.0.1", "10.0.0.2"}}) {
        iface record = vlan_record(10, servers);
        const iface before = record;
        EXPECT_EQ(ravo_if_del_server_host(&record, "0.0.0.0"), RAVO_ERR_NO_SERVER);
        EXPECT_EQ(describe(record), describe(before));
    }
}

TEST_F(RavoServer, DeletingAllServersReturnsTheOptionCounts) {
    const struct {
        std::uint32_t opt60;
        std::uint32_t opt61;
        std::uint32_t expected;
    } rows[] = {{0, 0, 0}, {3, 0, 3}, {0, 2, 2}, {3, 2, 3}};
    for (const auto &row : rows) {
        iface record = vlan_record(10, {"10.0.0.1", "10.0.0.2", "10.0.0.3", "10.0.0.4"});
        record.opt60_count = row.opt60;
        record.opt61_count = row.opt61;
        iface expected = vlan_record(10);
        expected.opt60_count = row.opt60;
        expected.opt61_count = row.opt61;
        EXPECT_EQ(ravo_if_del_server_host(&record, nullptr), row.expected);
        EXPECT_EQ(describe(record), describe(expected));
    }
}

// ---- ravo_if_get_server ----

class GetServer : public packet::relay_test {};

TEST_F(GetServer, FindsAServerInAnySlot) {
    for (std::size_t slot = 0; slot < 4; ++slot) {
        iface stored = packet::record({.servers = {}});
        stored.server_db[slot] = fake::address("198.51.100.9");
        ASSERT_EQ(ravo_db_if_add(&stored), 1);
        fake::forget();
        EXPECT_EQ(ravo_if_get_server(&stored), 1) << slot;
        EXPECT_EQ(fake::traces(), (trace_lines{{104, "ravo_if_get_server # \n"}}));
    }
}

TEST_F(GetServer, LooksAtTheStoredRecordNotAtTheOneGiven) {
    packet::store({.servers = {}});
    const iface given = packet::record({.servers = {"198.51.100.1"}});
    EXPECT_EQ(ravo_if_get_server(&given), 0);
    EXPECT_EQ(fake::traces(), trace_lines{});
}

TEST_F(GetServer, UnknownInterfaceHasNone) {
    const iface given = packet::record();
    EXPECT_EQ(ravo_if_get_server(&given), 0);
}

TEST_F(GetServer, InterfaceIsFoundByItsNumber) {
    packet::store({.vlan = 200});
    iface given = packet::record({.vlan = 100});
    given.ifindex = 1224;
    EXPECT_EQ(ravo_if_get_server(&given), 1);
}

}  // namespace

// SPDX-License-Identifier: Apache-2.0
// The server tables of an interface: servers by vendor class and by client identifier.
#include "ravo_if_server.h"
#include "relay_fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

using RavoServerOption = Relay;

std::uint32_t ip(const char *text) {
    return fake::address(text);
}

// An entry for a vendor class.
opt60_host vendor_host(const char *vendor, std::uint32_t rule, const char *server) {
    opt60_host host{};
    host.used = 1;
    host.match_rule = rule;
    std::strcpy(host.vendor, vendor);
    host.server = ip(server);
    return host;
}

// An entry for a client identifier.
opt61_host client_host(std::initializer_list<std::uint8_t> id, const char *server) {
    opt61_host host{};
    host.used = 1;
    std::copy(id.begin(), id.end(), host.client_id);
    host.client_id_len = static_cast<std::uint32_t>(id.size());
    host.server = ip(server);
    return host;
}

// ---- Servers by vendor class ----

TEST_F(RavoServerOption, AVendorHostIsAddedWithItsRule) {
    for (const std::uint32_t rule : {0u, 1u}) {
        fake::forget();
        iface record = vlan_record(10);
        EXPECT_EQ(RAVO_IF_Add_Option60_Server_Host(&record, "phone", rule, "10.0.0.1"), 0u);
        iface expected = vlan_record(10);
        expected.opt60_hosts[0] = vendor_host("phone", rule, "10.0.0.1");
        expected.opt60_count = 1;
        EXPECT_EQ(describe(record), describe(expected));
        const std::vector<std::string> traces = fake::traces(101);
        ASSERT_EQ(traces.size(), 4u);
        EXPECT_EQ(traces[0],
                  "RAVO_IF_Add_Option60_Server_Host (#): Add server 10.0.0.1,vendor string phone,match rule " +
                      std::to_string(rule) + " to interface vlan10 and ifindex=1034 for option60\n");
        EXPECT_EQ(traces[1], "ravo_if_find_option60_server_host_by_ip (#): Find server ip 10.0.0.1, ret=-1\n");
        EXPECT_EQ(traces[2], "ravo_if_option60_find_first_unused_server_host (#): array index =0");
        EXPECT_EQ(traces[3], "RAVO_IF_Add_Option60_Server_Host (#): interface vlan10 find available index 0\n");
    }
}

TEST_F(RavoServerOption, AVendorHostIsADuplicateByTextRuleAndServerTogether) {
    iface record = vlan_record(10);
    EXPECT_EQ(RAVO_IF_Add_Option60_Server_Host(&record, "phone", 0, "10.0.0.1"), RAVO_OK);
    EXPECT_EQ(RAVO_IF_Add_Option60_Server_Host(&record, "phone", 0, "10.0.0.1"), RAVO_ERR_SERVER_EXISTS);
    EXPECT_EQ(RAVO_IF_Add_Option60_Server_Host(&record, "phone", 1, "10.0.0.1"), RAVO_OK);
    EXPECT_EQ(RAVO_IF_Add_Option60_Server_Host(&record, "phones", 0, "10.0.0.1"), RAVO_OK);
    EXPECT_EQ(RAVO_IF_Add_Option60_Server_Host(&record, "phone", 0, "10.0.0.2"), RAVO_OK);
    EXPECT_EQ(RAVO_IF_Add_Option60_Server_Host(&record, "phones", 0, "10.0.0.1"), RAVO_ERR_SERVER_EXISTS);
    EXPECT_EQ(RAVO_IF_Add_Option60_Server_Host(&record, "fifth", 0, "10.0.0.2"), RAVO_ERR_SERVER_FULL);
    EXPECT_EQ(record.opt60_count, 4u);
}

TEST_F(RavoServerOption, AVendorHostWithoutATextHasAnEmptyOne) {
    iface record = vlan_record(10);
    EXPECT_EQ(RAVO_IF_Add_Option60_Server_Host(&record, nullptr, 0, "10.0.0.1"), RAVO_OK);
    iface expected = vlan_record(10);
    expected.opt60_hosts[0] = vendor_host("", 0, "10.0.0.1");
    expected.opt60_count = 1;
    EXPECT_EQ(describe(record), describe(expected));
    EXPECT_EQ(RAVO_IF_Add_Option60_Server_Host(&record, nullptr, 0, "10.0.0.1"), RAVO_ERR_SERVER_EXISTS);
}

TEST_F(RavoServerOption, FindsVendorHosts) {
    iface record = vlan_record(10);
    record.opt60_hosts[1] = vendor_host("phone", 1, "10.0.0.1");
    EXPECT_EQ(ravo_if_find_option60_server_host_by_ip(&record, "phone", 1, ip("10.0.0.1")), 1);
    EXPECT_EQ(ravo_if_find_option60_server_host_by_ip(&record, "phone", 0, ip("10.0.0.1")), -1);
    EXPECT_EQ(ravo_if_find_option60_server_host_by_ip(&record, "pho", 1, ip("10.0.0.1")), -1);
    EXPECT_EQ(ravo_if_find_option60_server_host_by_ip(&record, "phone", 1, ip("10.0.0.2")), -1);
    record.opt60_hosts[1].used = 0;
    EXPECT_EQ(ravo_if_find_option60_server_host_by_ip(&record, "phone", 1, ip("10.0.0.1")), -1);
    EXPECT_EQ(ravo_if_option60_find_first_unused_server_host(&record), 0);
    for (opt60_host &host : record.opt60_hosts) host.used = 1;
    EXPECT_EQ(ravo_if_option60_find_first_unused_server_host(&record), -1);
    EXPECT_EQ(fake::traces(101).front(),
              "ravo_if_find_option60_server_host_by_ip (#): Find server ip 10.0.0.1, ret=1\n");
}

// A record with four vendor hosts.
iface with_vendor_hosts() {
    iface record = vlan_record(10);
    record.opt60_hosts[0] = vendor_host("phone", 0, "10.0.0.1");
    record.opt60_hosts[1] = vendor_host("phone", 1, "10.0.0.2");
    record.opt60_hosts[2] = vendor_host("camera", 1, "10.0.0.1");
    record.opt60_hosts[3] = vendor_host("camera", 0, "10.0.0.2");
    record.opt60_count = 4;
    return record;
}

// The used entries as their indices: "023".
std::string used60(const iface &record) {
    std::string text;
    for (int i = 0; i < RAVO_SERVERS; ++i)
        if (record.opt60_hosts[i].used != 0) text += std::to_string(i);
    return text;
}

TEST_F(RavoServerOption, VendorHostsAreDeletedByAllGivenCriteria) {
    const struct {
        const char *vendor;
        const char *rule;
        const char *address;
        const char *left;
    } rows[] = {
        {"phone", nullptr, nullptr, "23"},
        {nullptr, "exact-match", nullptr, "12"},
        {nullptr, "partial-match", nullptr, "03"},
        {nullptr, "anything else", nullptr, "03"},
        {nullptr, nullptr, "10.0.0.1", "13"},
        {"phone", "exact-match", nullptr, "123"},
        {"camera", nullptr, "10.0.0.1", "013"},
        {nullptr, "partial-match", "10.0.0.2", "023"},
        {"camera", "exact-match", "10.0.0.2", "012"},
        {"camera", "exact-match", "10.0.0.1", "0123"},
        {"cam", nullptr, nullptr, "0123"},
        {nullptr, nullptr, nullptr, ""},
    };
    for (const auto &row : rows) {
        iface record = with_vendor_hosts();
        const std::uint32_t left = ravo_if_del_option60_server_host(&record, row.vendor, row.rule, row.address);
        EXPECT_EQ(used60(record), row.left);
        EXPECT_EQ(record.opt60_count, std::strlen(row.left)) << row.left;
        EXPECT_EQ(left, std::strlen(row.left)) << row.left;
        const opt60_host empty{};
        for (const opt60_host &host : record.opt60_hosts)
            if (host.used == 0) {
                EXPECT_EQ(std::memcmp(&host, &empty, sizeof host), 0) << row.left;
            }
    }
}

TEST_F(RavoServerOption, AnInvalidAddressDeletesNoVendorHost) {
    iface record = with_vendor_hosts();
    const iface before = record;
    EXPECT_EQ(ravo_if_del_option60_server_host(&record, "phone", nullptr, "10.0.0.256"), RAVO_ERR_NO_SERVER);
    EXPECT_EQ(ravo_if_del_option60_server_host(&record, nullptr, nullptr, "x"), RAVO_ERR_NO_SERVER);
    EXPECT_EQ(describe(record), describe(before));
}

TEST_F(RavoServerOption, DeletingVendorHostsReturnsTheFirstCountThatIsNotZero) {
    const struct {
        std::uint32_t servers;
        std::uint32_t opt61;
        const char *vendor;
        std::uint32_t expected;
    } rows[] = {
        {1, 2, "phone", 1}, {0, 3, "phone", 3}, {0, 0, "phone", 2},
        {1, 2, nullptr, 1}, {0, 3, nullptr, 3}, {0, 0, nullptr, 0},
    };
    for (const auto &row : rows) {
        iface record = with_vendor_hosts();
        record.server_count = row.servers;
        record.opt61_count = row.opt61;
        EXPECT_EQ(ravo_if_del_option60_server_host(&record, row.vendor, nullptr, nullptr), row.expected);
    }
}

TEST_F(RavoServerOption, DeletingAllVendorHostsBesideOnePlainServerReturnsOne) {
    iface record = with_vendor_hosts();
    record.server_db[0] = ip("10.0.0.9");
    record.server_count = 1;
    EXPECT_EQ(ravo_if_del_option60_server_host(&record, nullptr, nullptr, nullptr), 1u);
    EXPECT_EQ(describe(record), describe(vlan_record(10, {"10.0.0.9"})));
}

// ---- Servers by client identifier ----

TEST_F(RavoServerOption, AClientHostIsAddedWithItsBytes) {
    iface record = vlan_record(10);
    EXPECT_EQ(RAVO_IF_Add_Option61_Server_Host(&record, "0a0b", "10.0.0.1"), 0u);
    iface expected = vlan_record(10);
    expected.opt61_hosts[0] = client_host({0x0a, 0x0b}, "10.0.0.1");
    expected.opt61_count = 1;
    EXPECT_EQ(describe(record), describe(expected));
    EXPECT_THAT(
        fake::traces(),
        ElementsAre(
            fake::line{101,
                       "RAVO_IF_Add_Option61_Server_Host (#): Add server 10.0.0.1,client-id 0a0b to interface "
                       "vlan10 and ifindex=1034 for option60\n"},
            fake::line{101, "ravo_if_find_option61_server_host_by_ip (#): Find server ip 10.0.0.1, ret=-1\n"},
            fake::line{101, "ravo_if_option61_find_first_unused_server_host (#): array index =0"},
            fake::line{101, "RAVO_IF_Add_Option61_Server_Host (#): interface vlan10 find available index 0\n"}));
}

TEST_F(RavoServerOption, AnOddNumberOfDigitsGivesTheFirstAByteOfItsOwn) {
    const struct {
        std::string digits;
        std::string bytes;
    } rows[] = {
        {"abc", "0abc"},
        {"ABC", "0abc"},
        {"0a0b", "0a0b"},
        {"f", "0f"},
        {"00", "00"},
        {"12345", "012345"},
        {std::string(256, 'e'), std::string(256, 'e')},
        {std::string(258, '7'), std::string(258, '7')},
        {std::string(257, '9'), "0" + std::string(257, '9')},
    };
    for (const auto &row : rows) {
        iface record = vlan_record(10);
        EXPECT_EQ(RAVO_IF_Add_Option61_Server_Host(&record, row.digits.c_str(), "10.0.0.1"), RAVO_OK);
        const opt61_host &host = record.opt61_hosts[0];
        EXPECT_EQ(host.client_id_len, row.bytes.size() / 2) << row.digits;
        std::string whole = row.bytes;
        whole.resize(2 * sizeof host.client_id, '0');
        EXPECT_EQ(hex_of(host.client_id, sizeof host.client_id), whole) << row.digits;
    }
}

TEST_F(RavoServerOption, MoreDigitsThanFitAreLeftOut) {
    iface record = vlan_record(10);
    EXPECT_EQ(RAVO_IF_Add_Option61_Server_Host(&record, std::string(600, 'a').c_str(), "10.0.0.1"), RAVO_OK);
    EXPECT_EQ(record.opt61_hosts[0].client_id_len, 129u);
    EXPECT_EQ(record.opt61_hosts[1].used, 0u);
}

TEST_F(RavoServerOption, NothingIsWrittenBehindThePlaceForTheBytes) {
    for (const char *digits : {"01020304", "0102030405", "102030405", "010203040506"}) {
        std::uint8_t place[5] = {0, 0, 0, 0, 0xA5};
        (void)ravo_client_id_bytes(digits, place, 4);
        EXPECT_EQ(place[3], 4) << digits;
        EXPECT_EQ(place[4], 0xA5) << digits;
    }
}

TEST_F(RavoServerOption, IdentifiersThatDifferAfterTheFourthByteAreTheSameHost) {
    iface record = vlan_record(10);
    EXPECT_EQ(RAVO_IF_Add_Option61_Server_Host(&record, "01020304AA", "10.0.0.1"), RAVO_OK);
    EXPECT_EQ(RAVO_IF_Add_Option61_Server_Host(&record, "01020304BB", "10.0.0.1"), RAVO_ERR_SERVER_EXISTS);
    EXPECT_EQ(RAVO_IF_Add_Option61_Server_Host(&record, "01020305AA", "10.0.0.1"), RAVO_OK);
    EXPECT_EQ(RAVO_IF_Add_Option61_Server_Host(&record, "01020304BB", "10.0.0.2"), RAVO_OK);
    EXPECT_EQ(record.opt61_count, 3u);
}

TEST_F(RavoServerOption, WithoutDigitsTheIdentifierHasNoBytes) {
    iface record = vlan_record(10);
    EXPECT_EQ(RAVO_IF_Add_Option61_Server_Host(&record, nullptr, "10.0.0.1"), RAVO_OK);
    EXPECT_EQ(record.opt61_hosts[0].client_id_len, 0u);
    EXPECT_EQ(record.opt61_hosts[0].used, 1u);
}

TEST_F(RavoServerOption, EveryDigitHasItsValue) {
    std::uint8_t place[11] = {};
    EXPECT_EQ(ravo_client_id_bytes("0123456789ABCDEFabcdef", place, sizeof place), 11u);
    const std::uint8_t values[11] = {0x01, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF, 0xAB, 0xCD, 0xEF};
    EXPECT_EQ(std::memcmp(place, values, sizeof values), 0);
}

TEST_F(RavoServerOption, WhatIsNoDigitCountsAsZero) {
    for (const char *digits : {"g", "z", "~", "`", "/", ":", "@", "[", " "}) {
        std::uint8_t place[1] = {0xA5};
        EXPECT_EQ(ravo_client_id_bytes(digits, place, 1), 1u) << digits;
        EXPECT_EQ(place[0], 0) << digits;
    }
}

TEST_F(RavoServerOption, ALongVendorClassIsCutBeforeItsEnd) {
    iface record = vlan_record(10);
    const std::string vendor(2 * sizeof opt60_host::vendor, 'v');
    EXPECT_EQ(RAVO_IF_Add_Option60_Server_Host(&record, vendor.c_str(), 0, "10.0.0.1"), RAVO_OK);
    EXPECT_EQ(std::string_view(record.opt60_hosts[0].vendor, sizeof opt60_host::vendor),
              std::string(sizeof opt60_host::vendor - 1, 'v') + '\0');
    EXPECT_EQ(record.opt60_hosts[0].server, fake::address("10.0.0.1"));
}

TEST_F(RavoServerOption, AFifthClientHostIsRefused) {
    iface record = vlan_record(10);
    for (const char *digits : {"01", "02", "03", "04"})
        EXPECT_EQ(RAVO_IF_Add_Option61_Server_Host(&record, digits, "10.0.0.1"), RAVO_OK);
    EXPECT_EQ(RAVO_IF_Add_Option61_Server_Host(&record, "05", "10.0.0.1"), RAVO_ERR_SERVER_FULL);
    EXPECT_EQ(RAVO_IF_Add_Option61_Server_Host(&record, "04", "10.0.0.1"), RAVO_ERR_SERVER_EXISTS);
    EXPECT_EQ(record.opt61_count, 4u);
}

TEST_F(RavoServerOption, FindsClientHosts) {
    iface record = vlan_record(10);
    record.opt61_hosts[2] = client_host({1, 2, 3, 4, 5}, "10.0.0.1");
    const std::uint8_t same[] = {1, 2, 3, 4, 99};
    const std::uint8_t other[] = {1, 2, 3, 5, 5};
    EXPECT_EQ(ravo_if_find_option61_server_host_by_ip(&record, same, ip("10.0.0.1")), 2);
    EXPECT_EQ(ravo_if_find_option61_server_host_by_ip(&record, other, ip("10.0.0.1")), -1);
    EXPECT_EQ(ravo_if_find_option61_server_host_by_ip(&record, same, ip("10.0.0.2")), -1);
    record.opt61_hosts[2].used = 0;
    EXPECT_EQ(ravo_if_find_option61_server_host_by_ip(&record, same, ip("10.0.0.1")), -1);
    EXPECT_EQ(ravo_if_option61_find_first_unused_server_host(&record), 0);
    for (opt61_host &host : record.opt61_hosts) host.used = 1;
    EXPECT_EQ(ravo_if_option61_find_first_unused_server_host(&record), -1);
    EXPECT_EQ(fake::traces(101).front(),
              "ravo_if_find_option61_server_host_by_ip (#): Find server ip 10.0.0.1, ret=2\n");
}

iface with_client_hosts() {
    iface record = vlan_record(10);
    record.opt61_hosts[0] = client_host({1, 2, 3, 4, 5}, "10.0.0.1");
    record.opt61_hosts[1] = client_host({1, 2, 3, 4, 6}, "10.0.0.2");
    record.opt61_hosts[2] = client_host({9}, "10.0.0.1");
    record.opt61_count = 3;
    return record;
}

std::string used61(const iface &record) {
    std::string text;
    for (int i = 0; i < RAVO_SERVERS; ++i)
        if (record.opt61_hosts[i].used != 0) text += std::to_string(i);
    return text;
}

TEST_F(RavoServerOption, ClientHostsAreDeletedByAllGivenCriteria) {
    const std::uint8_t four[] = {1, 2, 3, 4, 77};
    const std::uint8_t nine[] = {9, 0, 0, 0};
    const std::uint8_t none[] = {9, 9, 9, 9};
    const struct {
        const std::uint8_t *client_id;
        const char *address;
        const char *left;
    } rows[] = {
        {four, nullptr, "2"},     {nine, nullptr, "01"},     {none, nullptr, "012"}, {nullptr, "10.0.0.1", "1"},
        {four, "10.0.0.2", "02"}, {nine, "10.0.0.2", "012"}, {nullptr, nullptr, ""},
    };
    for (const auto &row : rows) {
        iface record = with_client_hosts();
        const std::uint32_t left = ravo_if_del_option61_server_host(&record, row.client_id, row.address);
        EXPECT_EQ(used61(record), row.left);
        EXPECT_EQ(record.opt61_count, std::strlen(row.left));
        EXPECT_EQ(left, std::strlen(row.left));
        for (const opt61_host &host : record.opt61_hosts)
            if (host.used == 0) {
                EXPECT_EQ(hex_of(host.client_id, sizeof host.client_id), std::string(258, '0'));
                EXPECT_EQ(host.client_id_len, 0u);
                EXPECT_EQ(host.server, 0u);
            }
    }
}

TEST_F(RavoServerOption, AnInvalidAddressDeletesNoClientHost) {
    iface record = with_client_hosts();
    const iface before = record;
    EXPECT_EQ(ravo_if_del_option61_server_host(&record, nullptr, "10.0.0.256"), RAVO_ERR_NO_SERVER);
    EXPECT_EQ(describe(record), describe(before));
}

TEST_F(RavoServerOption, DeletingClientHostsReturnsTheFirstCountThatIsNotZero) {
    const std::uint8_t nine[] = {9, 0, 0, 0};
    const struct {
        std::uint32_t servers;
        std::uint32_t opt60;
        const std::uint8_t *client_id;
        std::uint32_t expected;
    } rows[] = {
        {4, 3, nine, 4}, {0, 3, nine, 2}, {0, 0, nine, 2}, {4, 3, nullptr, 4}, {0, 3, nullptr, 3}, {0, 0, nullptr, 0},
    };
    for (const auto &row : rows) {
        iface record = with_client_hosts();
        record.server_count = row.servers;
        record.opt60_count = row.opt60;
        EXPECT_EQ(ravo_if_del_option61_server_host(&record, row.client_id, nullptr), row.expected);
    }
}

TEST_F(RavoServerOption, TheLastClientHostGivenByItsBytesLeavesTheVendorCount) {
    iface record = vlan_record(10);
    record.opt61_hosts[0] = client_host({9}, "10.0.0.1");
    record.opt61_count = 1;
    record.opt60_count = 2;
    const std::uint8_t nine[] = {9, 0, 0, 0};
    EXPECT_EQ(ravo_if_del_option61_server_host(&record, nine, nullptr), 2u);
}

}  // namespace

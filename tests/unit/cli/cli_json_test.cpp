// SPDX-License-Identifier: Apache-2.0
// Show commands as JSON: whole documents from known data.
#include "cli/json.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>

#include "cli_box.h"
#include "relay_access.h"

namespace {

using cli_box::calls;
using cli_box::invalid_at;
using cli_box::shell;

relay_settings settings;
std::vector<relay_interface> interfaces;
std::vector<relay_transaction> transactions;

void get_settings(relay_settings *out) {
    *out = settings;
}

template <typename record>
int first_of(const std::vector<record> &all, record *out) {
    if (all.empty()) return 0;
    *out = all.front();
    return 1;
}

int interface_first(relay_interface *out) {
    return first_of(interfaces, out);
}

int interface_next(relay_interface *inout) {
    for (std::size_t i = 0; i + 1 < interfaces.size(); ++i) {
        if (std::strcmp(interfaces[i].name, inout->name) != 0) continue;
        *inout = interfaces[i + 1];
        return 1;
    }
    return 0;
}

int transaction_first(relay_transaction *out) {
    return first_of(transactions, out);
}

int transaction_next(relay_transaction *inout) {
    for (std::size_t i = 0; i + 1 < transactions.size(); ++i) {
        if (transactions[i].xid != inout->xid) continue;
        *inout = transactions[i + 1];
        return 1;
    }
    return 0;
}

constexpr relay_access fake_relay = {.settings = get_settings,
                                     .interface_get = nullptr,
                                     .interface_first = interface_first,
                                     .interface_next = interface_next,
                                     .interface_make = nullptr,
                                     .transaction_first = transaction_first,
                                     .transaction_next = transaction_next,
                                     .local_relay_set = nullptr,
                                     .local_relay_vlans = nullptr,
                                     .interface_local_relay_set = nullptr,
                                     .transaction_add = nullptr,
                                     .interface_at = nullptr};

class Json : public testing::Test {
  protected:
    void SetUp() override {
        relay_access_register(&fake_relay);
        settings = {};
        settings.policy = 1;
        settings.check = 1;
        settings.hops = 4;
        settings.server_socket = settings.raw_socket = settings.listen_socket = -1;
        interfaces.clear();
        transactions.clear();
    }
    void TearDown() override { relay_access_register(nullptr); }

    static void add_interfaces() {
        relay_interface vlan10{};
        std::strcpy(vlan10.name, "vlan10");
        vlan10.ifindex = 1034;
        vlan10.address = inet_addr("10.1.0.1");
        const std::uint8_t mac[] = {2, 0, 0, 0, 0, 0xAB};
        std::memcpy(vlan10.mac, mac, sizeof mac);
        vlan10.mac_length = sizeof mac;
        vlan10.trusted = 1;
        vlan10.servers[0] = inet_addr("10.9.0.1");
        vlan10.servers[2] = inet_addr("10.9.0.2");
        relay_interface vlan20{};
        std::strcpy(vlan20.name, "vlan20");
        vlan20.ifindex = 1044;
        vlan20.local_relay = 1;
        vlan20.option60[1].used = 1;
        vlan20.option60[1].match_rule = 1;
        std::strcpy(vlan20.option60[1].vendor, "a\"\\\xe4\t");
        vlan20.option60[1].server = inet_addr("10.9.0.3");
        vlan20.option61[0].used = 1;
        vlan20.option61[0].client_id[0] = 0x0A;
        vlan20.option61[0].client_id[1] = 0xBC;
        vlan20.option61[0].client_id_length = 2;
        vlan20.option61[0].server = inet_addr("10.9.0.4");
        interfaces = {vlan10, vlan20};
    }
    shell shell_;
};

TEST_F(Json, Summary) {
    settings.relay_enable = 1;
    settings.policy = 3;
    settings.local_relay_vlan[1] = 30;
    settings.local_relay_vlan[4] = 10;
    add_interfaces();
    EXPECT_EQ(shell_.print("show ip dhcp relay | json"), R"({
  "relay": true,
  "hops": 4,
  "information_option": false,
  "policy": "keep",
  "check": true,
  "trust_all": false,
  "local_relay": false,
  "local_relay_vlans": [
    30,
    10
  ],
  "interfaces": [
    {
      "name": "vlan10",
      "ifindex": 1034,
      "servers": [
        "10.9.0.1",
        "10.9.0.2"
      ]
    }
  ],
  "trusted_sources": [
    "vlan10"
  ]
}
)");
    EXPECT_TRUE(calls.empty());
}

TEST_F(Json, Detail) {
    for (std::uint32_t i = 0; i < 8; ++i) settings.received[i] = i + 4294967280u;
    settings.raw_socket = 12;
    add_interfaces();
    interfaces.erase(interfaces.begin());
    EXPECT_EQ(shell_.print("show ip dhcp relay detail | json"), R"({
  "relay": false,
  "hops": 4,
  "information_option": false,
  "policy": "replace",
  "check": true,
  "trust_all": false,
  "local_relay": false,
  "local_relay_vlans": [],
  "sockets": {
    "server": -1,
    "raw": 12,
    "listen": -1
  },
  "received": {
    "discover": 4294967280,
    "offer": 4294967281,
    "request": 4294967282,
    "ack": 4294967283,
    "decline": 4294967284,
    "nak": 4294967285,
    "inform": 4294967286,
    "release": 4294967287
  },
  "interfaces": [
    {
      "name": "vlan20",
      "ifindex": 1044,
      "trusted": false,
      "local_relay": true,
      "servers": []
    }
  ]
}
)");
    add_interfaces();
    EXPECT_THAT(shell_.print("show ip dhcp relay detail | json"),
                testing::HasSubstr("\"mac\": \"02:00:00:00:00:ab\","));
}

TEST_F(Json, TrustedSources) {
    EXPECT_EQ(shell_.print("show ip dhcp relay information trusted-sources | json"),
              "{\n  \"trusted_sources\": [],\n  \"total\": 0\n}\n");
    add_interfaces();
    EXPECT_EQ(shell_.print("show ip dhcp relay information trusted-sources | json"),
              "{\n  \"trusted_sources\": [\n    \"vlan10\"\n  ],\n  \"total\": 1\n}\n");
}

TEST_F(Json, Options) {
    add_interfaces();
    EXPECT_EQ(shell_.print("show ip dhcp relay option | json"), R"({
  "interfaces": [
    {
      "name": "vlan20",
      "option60": [
        {
          "vendor": "a\"\\\u00e4\u0009",
          "match": "partial-match",
          "server": "10.9.0.3"
        }
      ],
      "option61": [
        {
          "client_id": "0ABC",
          "server": "10.9.0.4"
        }
      ]
    }
  ]
}
)");
    interfaces[1].option60[1].used = 0;
    EXPECT_EQ(shell_.print("show ip dhcp relay option 60 | json"), "{\n  \"interfaces\": []\n}\n");
}

TEST_F(Json, Transactions) {
    transactions = {{0x1F, 1, 2}, {0xFFFFFFFF, 0, 0}};
    shell_.configure();
    EXPECT_EQ(shell_.print("show ip dhcp relay xid-port-mapping | json"), R"({
  "transactions": [
    {
      "xid": "1F",
      "xid_bytes": "1f000000",
      "module": 1,
      "port": 2
    },
    {
      "xid": "FFFFFFFF",
      "xid_bytes": "ffffffff",
      "module": 0,
      "port": 0
    }
  ],
  "total": 2
}
)");
}

TEST(JsonRows, StandInOneLineWithAllTheyHold) {
    ravo::cli::json_writer out;
    ravo::cli::json_open(out, "", '{');
    ravo::cli::json_open(out, "rows", '[');
    for (int i = 0; i < 2; ++i) {
        ravo::cli::json_open_row(out, "", '{');
        ravo::cli::json_number(out, "n", i);
        ravo::cli::json_open(out, "of", '[');
        ravo::cli::json_string(out, "", "a");
        ravo::cli::json_open_row(out, "", '{');
        ravo::cli::json_close(out, '}');
        ravo::cli::json_close(out, ']');
        ravo::cli::json_bool(out, "last", i == 1);
        ravo::cli::json_close(out, '}');
    }
    ravo::cli::json_close(out, ']');
    ravo::cli::json_number(out, "total", 2);
    ravo::cli::json_close(out, '}');
    EXPECT_EQ(out.text, R"({
  "rows": [
    {"n": 0, "of": ["a", {}], "last": false},
    {"n": 1, "of": ["a", {}], "last": true}
  ],
  "total": 2
}
)");
}

TEST(JsonRows, AWholeDocumentCanBeOne) {
    ravo::cli::json_writer out;
    ravo::cli::json_open_row(out, "", '{');
    ravo::cli::json_number(out, "n", 1);
    ravo::cli::json_number(out, "m", 2);
    ravo::cli::json_close(out, '}');
    EXPECT_EQ(out.text, "{\"n\": 1, \"m\": 2}\n");
}

TEST_F(Json, WorksBehindDo) {
    shell_.configure("vlan10");
    EXPECT_EQ(shell_.print("do show ip dhcp relay option 61 | json"), "{\n  \"interfaces\": []\n}\n");
    EXPECT_TRUE(calls.empty());
}

TEST_F(Json, OtherCommandsHaveNone) {
    EXPECT_EQ(shell_.print("show privilege | json"), "% No JSON for this command\n");
    EXPECT_EQ(shell_.print("configure terminal | json"), "% No JSON for this command\n");
    EXPECT_EQ(shell_.run("configure terminal | json"), 1);
    EXPECT_EQ(ravo::cli::session_mode(*shell_.session), CLI_MODE_EXEC);
    EXPECT_EQ(shell_.run("show privilege | json"), 1);
    EXPECT_EQ(shell_.print("show ip dhcp relay | json  x"), invalid_at(27));
    relay_access_register(nullptr);
    EXPECT_EQ(shell_.print("show ip dhcp relay | json"), "% Not available: no relay runs here\n");
    EXPECT_EQ(shell_.run("show ip dhcp relay | json"), 1);
    EXPECT_TRUE(calls.empty());
}

}  // namespace

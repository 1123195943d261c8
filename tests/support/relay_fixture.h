// SPDX-License-Identifier: Apache-2.0
// The fixtures of the relay's tests: a relay on the fake platform, started afresh for every test, and at the end asked
// whether it gave everything back.
#ifndef RELAY_FIXTURE_H
#define RELAY_FIXTURE_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "addr_text.h"
#include "fake_platform.h"
#include "ravo_cli.h"
#include "ravo_db.h"
#include "ravo_db_if.h"
#include "ravo_db_xid.h"
#include "ravo_if_state.h"
#include "ravo_life.h"

// The relay before its start-up: no database exists.
class UnstartedRelay : public testing::Test {
  protected:
    void SetUp() override {
        fake::reset();
        trust_all = 0;
        debug_flag = 0;
        ravo_rx_counters = {};
    }

    void TearDown() override {
        fake::clear_scripts();
        ravo_if_close_all_fd();
        ravo_db_exit();
        EXPECT_THAT(fake::leftovers(), testing::IsEmpty());
    }
};

// The relay after its start-up: default settings, empty databases, nothing recorded.
class Relay : public UnstartedRelay {
  protected:
    void SetUp() override {
        UnstartedRelay::SetUp();
        ravo_db_init();
        fake::forget();
    }
};

// An empty record with a name.
inline iface record_named(const std::string &name) {
    iface record{};
    std::strncpy(record.name, name.c_str(), sizeof record.name - 1);
    return record;
}

// A copy of the stored record with this name, if there is one.
inline std::optional<iface> stored_record(const std::string &name) {
    iface record = record_named(name);
    if (ravo_db_if_get(&record) == 0) return std::nullopt;
    return record;
}

// The names of all stored records, in the order of the database.
inline std::vector<std::string> stored_names() {
    std::vector<std::string> names;
    iface record;
    for (int found = ravo_db_if_get_first(&record); found != 0; found = ravo_db_if_get_next(&record))
        names.emplace_back(record.name);
    return names;
}

inline ravo_agent settings_now() {
    ravo_agent agent{};
    ravo_db_agent_get(&agent);
    return agent;
}

// Changes one global setting.
inline void set_setting(std::uint32_t ravo_agent::*setting, std::uint32_t value) {
    ravo_agent agent = settings_now();
    agent.*setting = value;
    ravo_db_agent_set(&agent);
}

// A record of vlanN with these plain servers, counted and packed.
inline iface vlan_record(int vlan, const std::vector<std::string> &servers = {}) {
    iface record = record_named("vlan" + std::to_string(vlan));
    record.in_use = 1;
    record.ifindex = static_cast<std::uint32_t>(1024 + vlan);
    for (std::size_t i = 0; i < servers.size(); ++i) record.server_db[i] = fake::address(servers[i].c_str());
    record.server_count = static_cast<std::uint32_t>(servers.size());
    return record;
}

// The four plain slots: "10.0.0.1 10.0.0.2 0.0.0.0 0.0.0.0".
inline std::string slots_of(const iface &record) {
    std::string text;
    for (const std::uint32_t server : record.server_db)
        text += (text.empty() ? "" : " ") + std::string(ravo_addr_text(server).text);
    return text;
}

inline std::string hex_of(const std::uint8_t *bytes, std::size_t size) {
    static const char digits[] = "0123456789abcdef";
    std::string text;
    for (std::size_t i = 0; i < size; ++i) {
        text += digits[bytes[i] >> 4];
        text += digits[bytes[i] & 15];
    }
    return text;
}

// Every field of a record as text, so that two records compare whole and a difference can be read.
inline std::string describe(const iface &record) {
    std::string text = std::string(record.name) + " aid=" + record.aid + " in_use=" + std::to_string(record.in_use) +
                       " ifindex=" + std::to_string(record.ifindex) + " ip=" + ravo_addr_text(record.if_ip).text +
                       " mac=" + hex_of(record.if_mac, sizeof record.if_mac) + "/" + std::to_string(record.if_maclen) +
                       " reserved=" + std::to_string(record.reserved) + " trusted=" + std::to_string(record.trusted) +
                       " local=" + std::to_string(record.local_relay_state) +
                       " servers=" + std::to_string(record.server_count) + ":" + slots_of(record) +
                       " opt60=" + std::to_string(record.opt60_count) + ":";
    for (const opt60_host &host : record.opt60_hosts)
        text += "[" + std::to_string(host.used) + " " + std::to_string(host.match_rule) + " " + host.vendor + " " +
                ravo_addr_text(host.server).text + "]";
    text += " opt61=" + std::to_string(record.opt61_count) + ":";
    for (const opt61_host &host : record.opt61_hosts)
        text += "[" + std::to_string(host.used) + " " + hex_of(host.client_id, sizeof host.client_id) + " " +
                std::to_string(host.client_id_len) + " " + ravo_addr_text(host.server).text + "]";
    return text;
}

#endif

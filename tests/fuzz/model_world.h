// SPDX-License-Identifier: Apache-2.0
// A relay with its tables filled, drawn from eight bytes, beside the model of it (relay_model.h): three VLANs, servers,
// hosts by vendor class and client identifier, trust, local relay, and all settings.
#ifndef FUZZ_MODEL_WORLD_H
#define FUZZ_MODEL_WORLD_H

#include <arpa/inet.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "ravo_db.h"
#include "ravo_db_if.h"
#include "ravo_db_xid.h"
#include "ravo_life.h"
#include "relay_model.h"

namespace model_world {

using relay_model::bytes;

inline constexpr std::size_t choice_size = 8;
inline constexpr std::uint16_t vlans[] = {10, 100, 300};

inline const bytes &other_relay() {
    static const bytes address = {10, 9, 9, 9};
    return address;
}

inline std::uint32_t word_of(const bytes &address) {
    std::uint32_t word;
    std::memcpy(&word, address.data(), sizeof word);
    return word;
}

inline bytes server(unsigned number) {
    return {198, 51, 100, static_cast<std::uint8_t>(1 + number % 4)};
}

inline std::vector<relay_model::vendor_host> vendor_hosts(unsigned choice) {
    static const char *const texts[] = {"abc", "xabcx", "MSFT 5.0", "a"};
    std::vector<relay_model::vendor_host> hosts;
    for (unsigned i = 0; i < choice % 5; ++i)
        hosts.push_back({texts[(choice + i) % 4], ((choice >> i) & 1) != 0, server(i)});
    return hosts;
}

inline std::vector<relay_model::client_host> client_hosts(unsigned choice) {
    static const std::vector<bytes> known = {{1, 0xAA, 0xBB, 0xCC, 0xDD}, {0}, {255, 1, 2}, bytes(128, 1)};
    std::vector<relay_model::client_host> hosts;
    for (unsigned i = 0; i < choice % 5; ++i) hosts.push_back({known[i % 4], server(choice + i)});
    return hosts;
}

// what: bit 0 trusted, bit 1 local relay, bits 2 and 3 servers, bit 4 no hardware address, bit 5 no address.
inline relay_model::interface interface_of(unsigned number, std::uint8_t what, std::uint8_t hosts) {
    relay_model::interface out;
    out.vlan = vlans[number];
    if (number != 2 || (what & 32) == 0)
        out.address = {10, 0, static_cast<std::uint8_t>(out.vlan >> 8), static_cast<std::uint8_t>(out.vlan)};
    out.mac = {0, 0, 0x5E, 0, 0x53, static_cast<std::uint8_t>(number + 1)};
    out.trusted = (what & 1) != 0;
    out.local_relay = (what & 2) != 0;
    out.has_mac = (what & 16) == 0;
    for (unsigned i = 0; i < (what >> 2 & 3U); ++i) out.servers.push_back(server(i + number));
    out.by_vendor = vendor_hosts(hosts & 15U);
    out.by_client = client_hosts(hosts >> 4);
    return out;
}

inline relay_model::settings settings_of(std::uint8_t bits, std::uint8_t policy, std::uint8_t hops) {
    return {.relay = (bits & 7) != 7,
            .option = (bits & 8) == 0,
            .check = (bits & 16) == 0,
            .on_others = static_cast<relay_model::policy>(policy % 4),
            .hops = hops % 18};
}

inline iface record_of(const relay_model::interface &from) {
    iface out{};
    (void)std::snprintf(out.name, sizeof out.name, "vlan%u", from.vlan);
    out.in_use = 1;
    out.ifindex = 1024U + from.vlan;
    out.if_ip = word_of(from.address);
    std::memcpy(out.if_mac, from.mac.data(), from.mac.size());
    out.if_maclen = from.has_mac ? 6 : 0;
    out.trusted = from.trusted ? 1 : 0;
    out.local_relay_state = from.local_relay ? 1 : 0;
    for (const bytes &address : from.servers) out.server_db[out.server_count++] = word_of(address);
    for (const relay_model::vendor_host &host : from.by_vendor) {
        opt60_host &slot = out.opt60_hosts[out.opt60_count++];
        slot.used = 1;
        slot.match_rule = host.exact ? 0 : 1;
        (void)std::snprintf(slot.vendor, sizeof slot.vendor, "%s", host.text.c_str());
        slot.server = word_of(host.server);
    }
    for (const relay_model::client_host &host : from.by_client) {
        opt61_host &slot = out.opt61_hosts[out.opt61_count++];
        slot.used = 1;
        std::memcpy(slot.client_id, host.identifier.data(), host.identifier.size());
        slot.client_id_len = static_cast<std::uint32_t>(host.identifier.size());
        slot.server = word_of(host.server);
    }
    return out;
}

// Gives the relay the model's settings.
inline void configure(const relay_model::settings &with) {
    ravo_agent agent{};
    ravo_db_agent_get(&agent);
    agent.relay_enable = with.relay ? 1 : 0;
    agent.option_state = with.option ? 1 : 0;
    agent.check = with.check ? 1 : 0;
    agent.policy = static_cast<std::uint32_t>(with.on_others);
    agent.hops = static_cast<std::uint32_t>(with.hops);
    ravo_db_agent_set(&agent);
}

// Begins anew: a model, and the relay's databases with the same in them. choice: choice_size bytes.
inline relay_model::model begin(const std::uint8_t *choice) {
    relay_model::model model;
    model.with = settings_of(choice[0], choice[1], choice[2]);
    for (unsigned i = 0; i < 3; ++i) model.interfaces.push_back(interface_of(i, choice[3 + i], choice[6]));
    ravo_db_init();
    for (const relay_model::interface &each : model.interfaces) {
        const iface record = record_of(each);
        if (ravo_db_if_add(&record) != 1) std::abort();
    }
    configure(model.with);
    return model;
}

inline std::size_t open_transactions() {
    std::size_t count = 0;
    xid_entry entry{};
    for (int found = ravo_db_xid_get_first(&entry); found != 0; found = ravo_db_xid_get_next(&entry)) ++count;
    return count;
}

// ---- Messages, from a few bytes each ----

inline bytes xid_of(std::uint8_t choice) {
    return {0x12, 0x34, 0, static_cast<std::uint8_t>(choice % 8)};
}

inline std::uint32_t port_of(std::uint8_t choice) {
    static const std::uint32_t odd[] = {0, 0x80000001U, 5120, 1, 70000};
    return choice >= 251 ? odd[choice - 251] : 5121U + choice % 90U;
}

// A request. data: type, bits, options. Bits 0 and 1: relay address; 2: broadcast flag; 3 to 5: hops; 6: no END;
// 7: padded to 300 bytes.
inline bytes request_of(const bytes &xid, const bytes &data, const bytes &own_address) {
    bytes message(240);
    const std::uint8_t bits = data.size() > 1 ? data[1] : std::uint8_t{0};
    const bytes client = {2, 0xC1, 0x1E, 0, 0, xid[3]};
    message[0] = message[1] = 1;
    message[2] = 6;
    message[3] = bits >> 3 & 7U;
    message[10] = (bits & 4) != 0 ? 0x80 : 0;
    std::copy(xid.begin(), xid.end(), message.begin() + 4);
    const bytes giaddr = (bits & 3) == 1 ? own_address : (bits & 3) == 2 ? other_relay() : bytes(4);
    std::copy(giaddr.begin(), giaddr.end(), message.begin() + 24);
    std::copy(client.begin(), client.end(), message.begin() + 28);
    const bytes cookie = {99, 130, 83, 99};
    std::copy(cookie.begin(), cookie.end(), message.begin() + 236);
    message.insert(message.end(), {53, 1, data.empty() ? std::uint8_t{1} : data[0]});
    if (data.size() > 2) message.insert(message.end(), data.begin() + 2, data.end());
    if ((bits & 64) == 0) message.push_back(255);
    if ((bits & 128) != 0 && message.size() < 300) message.resize(300);
    return message;
}

// What a server leaves of option 82 that does not know it.
inline bytes without_agent(const bytes &message) {
    naive::held held(message);
    const std::size_t length = naive::fill(held, naive::change::remove, {});
    return held.part(0, naive::first_option + length);
}

// The answer to what a server got. type: bit 4: without option 82. changes: place (two bytes) and value of bytes that
// are changed.
inline bytes reply_of(bytes message, std::uint8_t type, const bytes &changes) {
    if ((type & 16) != 0) message = without_agent(message);
    message[0] = 2;
    message[3] = 0;
    if (type % 4 != 0) std::copy_n(bytes{10, 0, 0, 50}.begin(), 4, message.begin() + 16);
    if (message.size() > 242 && message[240] == 53 && message[241] == 1) message[242] = type % 2 == 0 ? 2 : 5;
    for (std::size_t i = 0; i + 3 <= changes.size(); i += 3) {
        const std::size_t at = static_cast<std::size_t>(changes[i] << 8 | changes[i + 1]) % (message.size() + 1);
        if (at == message.size())
            message.push_back(changes[i + 2]);
        else
            message[at] = changes[i + 2];
    }
    return message;
}

}  // namespace model_world

#endif

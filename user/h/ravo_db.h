// SPDX-License-Identifier: Apache-2.0
// Relay settings, and the result codes of what changes them.
//
// All global settings are in one record that is only ever copied whole, in and out. Every change reports to the
// platform whether the relay service runs.
#ifndef RAVO_DB_H
#define RAVO_DB_H

#include <cstddef>
#include <cstdint>

inline constexpr std::uint32_t RAVO_POLICY_REPLACE = 1;
inline constexpr std::uint32_t RAVO_POLICY_DROP = 2;
inline constexpr std::uint32_t RAVO_POLICY_KEEP = 3;

inline constexpr int RAVO_LOCAL_RELAY_VLANS = 4096;

// The relay settings.
struct ravo_agent {
    std::uint32_t relay_enable;        // 1: relay service on, 0: off
    std::uint32_t option_state;        // 1: insert option 82 into client requests
    std::uint32_t policy;              // RAVO_POLICY_...: for requests of other relays that carry option 82
    std::uint32_t local_relay_enable;  // 1: local relay on
    std::uint16_t local_relay_vlan[RAVO_LOCAL_RELAY_VLANS];  // VLAN ids, 0: empty slot
    std::uint32_t check;                                     // 1: check option 82 of replies
    std::uint32_t hops;                                      // largest hop count that is still relayed, 1 to 16
};

static_assert(offsetof(ravo_agent, relay_enable) == 0 && offsetof(ravo_agent, option_state) == 4);
static_assert(offsetof(ravo_agent, policy) == 8 && offsetof(ravo_agent, local_relay_enable) == 12);
static_assert(offsetof(ravo_agent, local_relay_vlan) == 16 && offsetof(ravo_agent, check) == 8208);
static_assert(offsetof(ravo_agent, hops) == 8212 && sizeof(ravo_agent) == 8216);

// 1 after "ip dhcp relay information trust-all"; printed by the show commands, it decides about no message.
extern std::uint32_t trust_all;

// Result codes of configuration operations.
inline constexpr std::uint32_t RAVO_OK = 0;
inline constexpr std::uint32_t RAVO_ERR_NO_IF = 2;
inline constexpr std::uint32_t RAVO_ERR_NO_IP = 3;
inline constexpr std::uint32_t RAVO_ERR_SERVER_NOT_FOUND = 5;
inline constexpr std::uint32_t RAVO_ERR_SERVER_IP = 6;
inline constexpr std::uint32_t RAVO_ERR_SERVER_EXISTS = 7;
inline constexpr std::uint32_t RAVO_ERR_SERVER_FULL = 8;
inline constexpr std::uint32_t RAVO_ERR_NO_SERVER = 9;
inline constexpr std::uint32_t RAVO_ERR_IF_NOT_FOUND = 10;
inline constexpr std::uint32_t RAVO_ERR_NO_MEMORY = 14;
inline constexpr std::uint32_t RAVO_ERR_SAME_CONFIG = 15;
inline constexpr std::uint32_t RAVO_ERR_SOCKET = 16;

// Puts the settings to their defaults and pushes the service status. Returns 0.
std::uint32_t ravo_db_agent_reset();

// Copies the settings to *out. Returns 0.
std::uint32_t ravo_db_agent_get(ravo_agent *out);

// The settings as they are, for reading while one message is handled: nothing changes them meanwhile.
[[nodiscard]] const ravo_agent &ravo_db_agent_view();

// Copies *in over the settings, unchecked, and pushes the service status. Returns 0 (RAVO_OK).
std::uint32_t ravo_db_agent_set(const ravo_agent *in);

// Tells the platform's status service that the relay runs (relay_enable exactly 1) or not (any other value).
void ravo_db_status_push(std::uint32_t relay_enable);

#endif

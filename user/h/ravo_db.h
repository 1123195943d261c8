// Relay settings and result codes.
//
// All global settings stand in one record that is only ever copied whole, in and out. Every change tells the platform
// whether the relay service runs.
#ifndef RAVO_DB_H
#define RAVO_DB_H

#include <cstdint>

struct cli;

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

// Copies *in over the settings, unchecked, and pushes the service status. Returns 0 (RAVO_OK).
std::uint32_t ravo_db_agent_set(const ravo_agent *in);

// Tells the platform's status service that the relay runs (relay_enable exactly 1) or not (any other value).
void ravo_db_status_push(std::uint32_t relay_enable);

// Tells whether plain lines are to be printed in this context: bit 2 of the view flags clear, or show_all 1.
bool ravo_cli_prints(const struct cli *cli);

// Shows a result code to the user. Returns 0 for code 0 (prints nothing), 1 for any other.
int ravo_show_result(struct cli *cli, std::uint32_t code);

#endif

// SPDX-License-Identifier: Apache-2.0
// A picture of the relay as the daemon described it, in parts that are fetched and grow old on their own. All rows are
// in the order of their SNMP index.
#ifndef FRONT_SNMP_PICTURE_H
#define FRONT_SNMP_PICTURE_H

#include <array>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "link.h"

namespace ravo::snmp {

inline constexpr std::size_t most_transactions = 10000;

// Parts, each shown by one command of the daemon.
enum class part { settings, interfaces, addresses, trusted, statistics, servers, transactions };
inline constexpr std::size_t parts = 7;

// Columns of the settings, as the daemon's keyed view numbers them: 1 relay, 2 hops, 3 check, 4 option, 5 policy, 6
// trust of all, 7 servers, 9 trusted interfaces.
inline constexpr std::size_t setting_columns = 10;

struct interface_row {
    std::uint32_t ifindex = 0;
    std::uint32_t address = 0;  // the first byte highest, 0: none
    std::array<std::uint8_t, 6> mac{};
    bool local_relay = false;
};

struct address_row {
    std::uint32_t ifindex = 0;
    std::uint32_t address = 0;  // the first byte highest
    bool operator==(const address_row &other) const = default;
    bool operator<(const address_row &other) const {
        return ifindex != other.ifindex ? ifindex < other.ifindex : address < other.address;
    }
};

struct outcome_row {
    std::uint32_t ifindex = 0;
    std::uint32_t word = 0;  // its place in outcome_words
    std::uint64_t messages = 0;
};

struct type_row {
    std::uint32_t ifindex = 0;
    std::uint32_t type = 0;  // as RavoMessageType numbers them
    std::uint64_t messages = 0;
};

struct server_row {
    std::uint32_t ifindex = 0;
    std::uint32_t address = 0;
    std::uint64_t requests = 0;
    std::uint64_t replies = 0;
    std::uint32_t median_us = 0;
    std::uint32_t p99_us = 0;
    std::uint32_t silent_seconds = 0;
};

struct transaction_row {
    std::uint32_t xid = 0;
    std::uint32_t module = 0;
    std::uint32_t port = 0;
};

struct picture {
    std::array<std::int64_t, setting_columns> settings{};
    std::array<bool, setting_columns> has_setting{};
    std::string version;
    std::array<std::uint32_t, 8> received{};  // DISCOVER, OFFER, REQUEST, ACK, DECLINE, NAK, INFORM, RELEASE
    std::vector<interface_row> interfaces;
    std::vector<address_row> addresses;
    std::vector<std::uint32_t> trusted;
    std::vector<std::string> outcome_words;  // in order of length, then of bytes
    std::vector<outcome_row> outcomes;
    std::vector<type_row> types;
    std::vector<server_row> servers;
    std::vector<transaction_row> transactions;
    std::uint32_t transactions_total = 0;
};

// The command that shows a part, and the view it is asked in.
std::string_view command_of(part wanted);
std::uint8_t view_of(part wanted);

// Puts what the daemon answered to a part's command into the picture. Returns false for an answer that cannot be read;
// the part is then as it was.
bool take_part(picture *p, part which, const client::reply &answer);

// The number of an interface by its name ("vlan10"): 1024 plus the VLAN id; 0 for another name.
std::uint32_t interface_number(std::string_view name);

}  // namespace ravo::snmp

#endif

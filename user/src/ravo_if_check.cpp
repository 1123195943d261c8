// SPDX-License-Identifier: Apache-2.0
// The check of replies: a reply whose option 82 (RFC 3046) does not name the interface and the port of its transaction
// is not delivered. The expected bytes are those that the relay wrote into the request.
#include "ravo_if_check.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

#include "dhcp.h"
#include "outcome.h"
#include "ravo_db_xid.h"
#include "ravo_if_option.h"
#include "trace.h"

namespace {

constexpr const char *procedure = "ravo_option_check_reply";  // whose steps these are
constexpr std::size_t scratch_size = 16;                      // an expected sub-option with the zeros behind it

// Compares a sub-option's value with the expected one, which goes on with zeros; the comparison ends with the buffer of
// the message, so that a length byte that claims more than is there cannot lead it out.
bool value_matches(const std::uint8_t *suboption, const std::uint8_t (&expected)[scratch_size],
                   const std::uint8_t *message) {
    const std::uint8_t *value = suboption + 2;
    const std::uint8_t *limit = message + message_buffer::size;
    const std::size_t room = value < limit ? static_cast<std::size_t>(limit - value) : 0;
    const std::size_t length = std::min<std::size_t>(suboption[1], room);
    const std::size_t known = std::min<std::size_t>(length, sizeof expected - 2);
    if (std::memcmp(value, expected + 2, known) != 0) return false;
    return std::all_of(value + known, value + length, [](std::uint8_t byte) { return byte == 0; });
}

// Refuses a reply.
bool drop(relay_outcome outcome) {
    outcome_record(outcome);
    return false;
}

bool drop_unknown(const std::uint8_t *message) {
    const std::uint8_t *mac = message + offsetof(dhcp_header, chaddr);
    ravo_trace_as(procedure, ravo::level_warning,
                  "%s (%d): Can't find option 82 circuit id DB for client "
                  "%02X:%02X:%02X:%02X:%02X:%02X,xid=%X drop\n",
                  mac[0], mac[1], mac[2], mac[3], mac[4], mac[5], dhcp_xid(message));
    return drop(OUTCOME_UNKNOWN_TRANSACTION);
}

// A circuit id must be that of the transaction, which is finished then.
bool circuit_id_passes(const iface *iface, const std::uint8_t *suboption, const std::uint8_t *message) {
    const std::uint16_t vlan = ravo_vlan_id_of(iface);
    const xid_entry *entry = ravo_db_xid_view(dhcp_xid(message));
    if (entry == nullptr) return drop_unknown(message);
    // deliberate: the low byte of the VLAN id comes first, as the relay wrote it into the request.
    const auto low = static_cast<std::uint8_t>(vlan & 0xFF);
    const auto high = static_cast<std::uint8_t>(vlan >> 8);
    const auto module = static_cast<std::uint8_t>(entry->module);
    const auto port = static_cast<std::uint8_t>(entry->port);
    const std::uint8_t expected[scratch_size] = {suboptCIRCUIT_ID, 6, 0, 4, low, high, module, port};
    if (!value_matches(suboption, expected, message)) {
        ravo_trace_as(procedure, ravo::level_trace, "%s (%d): option 82 circuit id content not matched, drop\n");
        return drop(OUTCOME_CIRCUIT_ID);
    }
    ravo_db_xid_finish(entry);
    return true;
}

bool remote_id_passes(const iface *iface, const std::uint8_t *suboption, const std::uint8_t *message) {
    std::uint8_t expected[scratch_size] = {suboptREMOTE_ID, 8, 0, 6};
    std::memcpy(expected + 4, iface->if_mac, RAVO_MAC_SIZE);
    if (value_matches(suboption, expected, message)) return true;
    ravo_trace_as(procedure, ravo::level_trace, "%s (%d): option 82 remote id content not matched, drop\n");
    return drop(OUTCOME_REMOTE_ID);
}

}  // namespace

int ravo_option_check_reply(const iface *iface, const std::uint8_t *op82, const std::uint8_t *header) {
    ravo_trace(ravo::level_trace, "%s (%d): rx_if=%s\n", iface->name);
    if (op82 == nullptr) {
        ravo_trace(ravo::level_trace, "%s (%d): op82_data is null\n");
        (void)drop(OUTCOME_NO_OPTION82);
        return 0;
    }
    if (op82[0] == suboptCIRCUIT_ID && !circuit_id_passes(iface, op82, header)) return 0;
    const std::uint8_t *second = op82 + op82[1] + 2;
    if (second[0] == suboptREMOTE_ID && !remote_id_passes(iface, second, header)) return 0;
    ravo_trace(ravo::level_trace, "%s (%d): op82_data is valide\n");
    return 1;
}

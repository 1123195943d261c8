// SPDX-License-Identifier: Apache-2.0
// Relay agent information option (option 82, RFC 3046), and detection of options 60 and 61.
#ifndef RAVO_IF_OPTION_H
#define RAVO_IF_OPTION_H

#include <cstdint>

#include "dhcp.h"
#include "ravo_db_if.h"

inline constexpr std::uint32_t RAVO_AGENT_OPTION_SIZE = 20;  // option 82 as the relay writes it
inline constexpr std::uint32_t RAVO_OPTIONS_LIMIT = 311;     // room of the option area for adding it
inline constexpr std::uint32_t RAVO_CLIENT_ID_SIZE = 128;    // bytes of option 61 that are looked at
inline constexpr std::uint32_t RAVO_VENDOR_CLASS_SIZE = 64;  // bytes of option 60 that are looked at

// What fillOptions does with option 82.
inline constexpr int RAVO_FILL_NONE = 0;     // leave the options as they are
inline constexpr int RAVO_FILL_REMOVE = 1;   // remove it if present
inline constexpr int RAVO_FILL_ADD = 2;      // add it if absent, keep it if present
inline constexpr int RAVO_FILL_REPLACE = 3;  // replace it if present, add it if absent

// VLAN id of an interface record: the number of the interface named record->name, less 1024, cut to 16 bits.
[[nodiscard]] std::uint16_t ravo_vlan_id_of(const iface *record);

// Writes option 82 and an end option at opt. len: bytes from the first option through the end option; reserved: not
// read; port: ingress port's interface number. Returns the new length; len unchanged when there is no room.
[[nodiscard]] std::uint32_t addAgentOption(const iface *iface, std::uint8_t *opt, std::uint32_t len,
                                           std::uint32_t reserved, std::uint32_t port);
// Removes option 82. Returns the new length.
[[nodiscard]] std::uint32_t removeAgentOption(std::uint8_t *relay_opt, std::uint8_t *end_opt, std::uint32_t len);
// Writes option 82 over the old one; what followed the old one is cut off. Returns the new length.
[[nodiscard]] std::uint32_t replaceAgentOption(const iface *iface, std::uint8_t *relay_opt, std::uint8_t *end_opt,
                                               std::uint32_t len, std::uint32_t reserved, std::uint32_t port);
// Applies a RAVO_FILL_... mode to the options. Returns the new length from the first option through the end option.
[[nodiscard]] std::uint32_t fillOptions(const iface *iface, std::uint8_t *option_ptr, int mode, std::uint32_t reserved,
                                        std::uint32_t port);

// The same for a message whose options were noted.
[[nodiscard]] std::uint32_t ravo_fill_noted(const iface *iface, std::uint8_t *option_ptr, const dhcp_notes &notes,
                                            int mode, std::uint32_t reserved, std::uint32_t port);

// Finds option 82. options: first option behind the cookie; *relay_out: its first sub-option, set only when that is a
// circuit id; *type_out: the message type when option 53 comes before. Returns 0 when option 82 was met, else 1.
[[nodiscard]] int ravo_find_agent_option(std::uint8_t *options, std::uint8_t **relay_out, std::uint8_t *type_out);

// The same for options that were noted.
[[nodiscard]] int ravo_find_noted_agent_option(std::uint8_t *options, const dhcp_notes &notes, std::uint8_t **relay_out,
                                               std::uint8_t *type_out);

// Copies option 61 (at most 128 bytes) and option 60 (at most 64) out of the options and sets the flags of those found.
// The buffers are zero-filled by the caller and at least one byte longer. Returns 0.
int ravo_find_option60_61(const std::uint8_t *options, std::uint8_t *client_id_out, char *vendor_out,
                          std::uint32_t *found60, std::uint32_t *found61);

#endif

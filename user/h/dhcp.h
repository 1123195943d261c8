// SPDX-License-Identifier: Apache-2.0
// The DHCP message (RFC 2131 section 2) and its options (RFC 2132).
//
// The option walkers have no bound of their own: they run over a message_buffer, whose spare room ends every walk.
#ifndef RAVO_DHCP_H
#define RAVO_DHCP_H

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "trace.h"

inline constexpr std::uint8_t opBOOTREQUEST = 1;
inline constexpr std::uint8_t opBOOTREPLY = 2;

// Options, RFC 2132 and RFC 3046.
inline constexpr std::uint8_t optPAD = 0;
inline constexpr std::uint8_t optMESSAGE_TYPE = 53;
inline constexpr std::uint8_t optVENDOR_CLASS = 60;
inline constexpr std::uint8_t optCLIENT_ID = 61;
inline constexpr std::uint8_t optAGENT = 82;
inline constexpr std::uint8_t optEND = 255;

// Message types, RFC 2132 section 9.6.
inline constexpr std::uint8_t dhcpDISCOVER = 1;
inline constexpr std::uint8_t dhcpOFFER = 2;
inline constexpr std::uint8_t dhcpREQUEST = 3;
inline constexpr std::uint8_t dhcpDECLINE = 4;
inline constexpr std::uint8_t dhcpACK = 5;
inline constexpr std::uint8_t dhcpNAK = 6;
inline constexpr std::uint8_t dhcpRELEASE = 7;
inline constexpr std::uint8_t dhcpINFORM = 8;

inline constexpr std::size_t DHCP_HEADER_SIZE = 236;  // the fixed header, up to the magic cookie
inline constexpr std::size_t DHCP_COOKIE_SIZE = 4;
inline constexpr std::uint8_t DHCP_COOKIE[DHCP_COOKIE_SIZE] = {99, 130, 83, 99};

inline constexpr std::uint8_t suboptCIRCUIT_ID = 1;  // RFC 3046 section 3.1
inline constexpr std::uint8_t suboptREMOTE_ID = 2;   // RFC 3046 section 3.2

// The fixed header, network byte order.
struct dhcp_header {
    std::uint8_t op;
    std::uint8_t htype;
    std::uint8_t hlen;
    std::uint8_t hops;
    std::uint32_t xid;
    std::uint16_t secs;
    std::uint16_t flags;
    std::uint32_t ciaddr;
    std::uint32_t yiaddr;
    std::uint32_t siaddr;
    std::uint32_t giaddr;
    std::uint8_t chaddr[16];
    std::uint8_t sname[64];
    std::uint8_t file[128];
};

static_assert(sizeof(dhcp_header) == DHCP_HEADER_SIZE);
static_assert(offsetof(dhcp_header, op) == 0 && offsetof(dhcp_header, htype) == 1);
static_assert(offsetof(dhcp_header, hlen) == 2 && offsetof(dhcp_header, hops) == 3);
static_assert(offsetof(dhcp_header, xid) == 4 && offsetof(dhcp_header, secs) == 8);
static_assert(offsetof(dhcp_header, flags) == 10 && offsetof(dhcp_header, ciaddr) == 12);
static_assert(offsetof(dhcp_header, yiaddr) == 16 && offsetof(dhcp_header, siaddr) == 20);
static_assert(offsetof(dhcp_header, giaddr) == 24 && offsetof(dhcp_header, chaddr) == 28);
static_assert(offsetof(dhcp_header, sname) == 44 && offsetof(dhcp_header, file) == 108);

// A message as the relay holds it: 1024 bytes, zero behind the message, and spare room full of END options in which
// every walk, dump or comparison that a length byte leads astray ends harmlessly.
struct message_buffer {
    static constexpr std::size_t size = 1024;
    static constexpr std::size_t spare_size = 1024;
    alignas(8) std::uint8_t bytes[size + spare_size];

    message_buffer() { clear(); }
    void clear() {
        std::memset(bytes, 0, size);
        std::memset(bytes + size, optEND, spare_size);
    }
    std::uint8_t *data() { return bytes; }
    const std::uint8_t *data() const { return bytes; }
};

// Reads a 32-bit field of a message at an offset of dhcp_header, as it is: network byte order.
[[nodiscard]] inline std::uint32_t dhcp_load32(const std::uint8_t *message, std::size_t offset) {
    std::uint32_t value;
    std::memcpy(&value, message + offset, sizeof value);
    return value;
}
[[nodiscard]] inline std::uint32_t dhcp_xid(const std::uint8_t *message) {
    return dhcp_load32(message, offsetof(dhcp_header, xid));
}
[[nodiscard]] inline std::uint32_t dhcp_giaddr(const std::uint8_t *message) {
    return dhcp_load32(message, offsetof(dhcp_header, giaddr));
}
[[nodiscard]] inline std::uint16_t dhcp_flags(const std::uint8_t *message) {
    std::uint16_t value;
    std::memcpy(&value, message + offsetof(dhcp_header, flags), sizeof value);
    return value;
}
[[nodiscard]] inline std::uint8_t dhcp_op(const std::uint8_t *message) {
    return message[offsetof(dhcp_header, op)];
}

// Returns 1 when flags, hops and op of the message are acceptable, else 0 with a trace of the reason.
[[nodiscard]] int isValidHeader(const std::uint8_t *message);

// Returns 1 when the option area is well formed, else 0. options: the magic cookie; options_len: bytes from there to
// the end of the message, 0 for a message without an option area (valid); a negative length is invalid.
[[nodiscard]] int isValidOptions(const std::uint8_t *options, std::int32_t options_len);

// Returns the bytes that an option occupies: 1 for pad and end, else its length byte + 2.
[[nodiscard]] inline std::size_t DHCP_optionSize(const std::uint8_t *option) {
    return *option == optPAD || *option == optEND ? 1 : static_cast<std::size_t>(option[1]) + 2;
}

// Returns the position behind an option.
[[nodiscard]] inline std::uint8_t *DHCP_nextOption(std::uint8_t *option) {
    return option + DHCP_optionSize(option);
}
[[nodiscard]] inline const std::uint8_t *DHCP_nextOption(const std::uint8_t *option) {
    return option + DHCP_optionSize(option);
}

// Removes an option by moving the rest of the chain, up to and including the end option at end_opt, over it.
inline void DHCP_eraseOption(std::uint8_t *opt, std::uint8_t *end_opt) {
    ravo_assert(opt <= end_opt, "opt <= end_opt", "user/h/dhcp");
    std::uint8_t *next = DHCP_nextOption(opt);
    if (next <= end_opt) std::memmove(opt, next, static_cast<std::size_t>(end_opt - next) + 1);
}

// What one walk over a message's options finds. Positions are counted from the first option behind the cookie; -1:
// there is none. What is behind the end option is walked, but not noted.
struct dhcp_notes {
    std::int32_t type;               // value of the first option 53, -1 for none
    std::int32_t type_before_agent;  // value of the last option 53 before the first option 82, -1 for none
    std::int32_t agent;              // position of the first option 82
    std::int32_t last_agent;         // position of the last option 82 that begins with a circuit id
    std::int32_t end;                // position of the end option
    bool identified;                 // an option 60 or 61 is before it
};

// Walks the options of a message_buffer from the first one through the end option, which at the latest is in its
// spare room.
[[nodiscard]] dhcp_notes dhcp_note_options(const std::uint8_t *first_option);

// isValidOptions, and what the walk noted where the answer is 1; where that is for want of an option area, nothing.
[[nodiscard]] int dhcp_note_valid_options(const std::uint8_t *options, std::int32_t options_len, dhcp_notes *notes);

// Finds the message type (option 53). options: the first option behind the cookie. Returns 0 and the type in *type_out,
// or 1 when the end option comes first.
[[nodiscard]] int DHCP_getMessageType(const std::uint8_t *options, std::uint8_t *type_out);

#endif

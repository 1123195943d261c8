// SPDX-License-Identifier: Apache-2.0
// Words for what the books of messages hold: ports, hardware addresses, times, option 82, a message in a line.
#ifndef PLATFORM_LINUX_COMMANDS_BOOKS_TEXT_H
#define PLATFORM_LINUX_COMMANDS_BOOKS_TEXT_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "base/hardware_address.h"
#include "base/time_text.h"
#include "books/books.h"

namespace ravo::cli {

using platform::hardware_address;
using platform::mac_text;
using platform::read_mac;

// "2/1" for a port's interface number: module and port. Any other number as it is; "-" for 0.
std::string port_name(std::uint32_t port_ifindex);
// The interface number of a port named so, or of the port that a device of this name is; none for what is no port.
std::optional<std::uint32_t> read_port_name(std::string_view text);

// "vlan10" for a VLAN interface's number; any other number as it is.
std::string interface_name(std::uint32_t switch_ifindex);

using platform::time_text;
using platform::time_text_utc;

// "1.234" milliseconds.
std::string milliseconds_text(std::int32_t microseconds);

// A transaction id, in host byte order, as the relay has it in its log and in its map: the number that the bytes of the
// message are on this machine, in hexadecimal digits.
std::string xid_text(std::uint32_t xid);

// Option 82 as this relay writes it.
struct relay_information {
    std::uint16_t vlan;
    std::uint8_t module;
    std::uint8_t port;
    hardware_address mac;
};
// Takes an entry's option 82 apart; none when it is absent or has another form.
std::optional<relay_information> read_relay_information(const platform::book_entry &entry);
// The bytes that were kept of an entry's option 82.
std::span<const std::uint8_t> option82_kept(const platform::book_entry &entry);
// The value of a sub-option of an entry's option 82; none when it is not there or was not kept whole.
std::optional<std::span<const std::uint8_t>> option82_value(const platform::book_entry &entry, std::uint8_t suboption);
std::string hex_text(std::span<const std::uint8_t> bytes);  // "0a1b"

// The VLAN of an entry: of its interface, else of its client, else of the tag it came with; 0 when none is known.
std::uint16_t vlan_of(const platform::book_entry &entry);

// "DISCOVER", "ACK", ...; a DHCP message without a type "request", "reply" or, when it is neither, "message"; "-" for
// what is no DHCP message.
std::string message_name(const platform::book_entry &entry);

// What is said of an argument that is no port or no hardware address: one line with its line end.
std::string bad_port_line(std::string_view text);
std::string bad_mac_line(std::string_view text);

// One message in one line, without its line end.
std::string entry_line(const platform::book_entry &entry);

}  // namespace ravo::cli

#endif

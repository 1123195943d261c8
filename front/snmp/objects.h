// SPDX-License-Identifier: Apache-2.0
// The objects of RAVO-DHCP-RELAY-MIB over a picture of the relay: what is at an identifier, and what comes next.
//
// Identifiers here begin below the module's own: {1, 1, 1, 0} is ravoRelayEnabled.0. They come from whoever may ask the
// master agent, so any of them may be anything.
#ifndef FRONT_SNMP_OBJECTS_H
#define FRONT_SNMP_OBJECTS_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "picture.h"

namespace ravo::snmp {

using oid_text = std::vector<unsigned long>;  // an identifier, or a piece of one

enum class kind { integer, gauge, counter32, counter64, text, address };

struct value {
    snmp::kind kind = snmp::kind::integer;
    std::int64_t number = 0;  // of integer, gauge and counters; of an address its four bytes, the first one highest
    std::string text;         // bytes
};

struct instance {
    oid_text name;
    snmp::value value;
};

// Makes sure that a part of the picture is there and fresh. Returns false when it cannot be had.
using part_loader = bool (*)(void *context, part wanted);
struct source {
    const picture *relay;
    part_loader load;
    void *context;
};

// unavailable: the part of the picture that it is in cannot be had now.
enum class found { yes, no, unavailable };

// What is at this identifier. *out is set for yes alone.
found find_exact(const source &from, const oid_text &name, value *out);
// The first instance behind this identifier. *out is set for yes alone.
found find_next(const source &from, const oid_text &name, instance *out);

// What a manager may write.
enum class writable { nothing, save, address_row, trust_row };
struct write_target {
    writable what = writable::nothing;
    std::uint32_t ifindex = 0;
    std::uint32_t address = 0;  // the first byte highest
};
// What an identifier of a write stands for; nothing for what may not be written.
write_target find_target(const oid_text &name);

// The name of the VLAN interface with this number, empty for a number that is none.
std::string interface_name(std::uint32_t ifindex);

// Dotted text of an address whose first byte is the highest.
std::string address_text(std::uint32_t address);

}  // namespace ravo::snmp

#endif

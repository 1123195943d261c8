// SPDX-License-Identifier: Apache-2.0
// Where the picture comes from: the daemon, which is asked when a part is wanted that is not there or too old. Asking
// waits for the answer, but never longer than a master agent waits for ours.
#ifndef FRONT_SNMP_RELAY_SOURCE_H
#define FRONT_SNMP_RELAY_SOURCE_H

#include <array>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "link.h"
#include "objects.h"
#include "picture.h"

namespace ravo::snmp {

struct relay_source;
struct relay_source_delete {
    void operator()(relay_source *s) const;
};
using relay_source_ptr = std::unique_ptr<relay_source, relay_source_delete>;

relay_source_ptr relay_source_make(const std::string &socket);

// The picture and its loader, as objects.h takes them. Valid while the source lives.
source source_of(relay_source &s);

// Asks for a part now, whatever is there. Returns false when it cannot be had.
bool refresh(relay_source &s, part wanted);

// Runs these lines in a session of their own that begins in privileged execution mode, until one fails. Returns the
// answer to the last one that ran. All parts of the picture are fetched anew after that.
client::reply change(relay_source &s, const std::vector<std::string> &lines);

// Descriptors that become readable when the daemon ends: -1 for none.
std::array<int, 2> descriptors_of(const relay_source &s);
// Handles what came there.
void attend(relay_source &s);

}  // namespace ravo::snmp

#endif

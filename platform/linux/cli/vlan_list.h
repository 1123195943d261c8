// SPDX-License-Identifier: Apache-2.0
// Lists of VLANs as they are typed: "10,20-30".
#ifndef PLATFORM_LINUX_CLI_VLAN_LIST_H
#define PLATFORM_LINUX_CLI_VLAN_LIST_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "fault.h"

namespace ravo::cli {

// Reads a list of VLAN ids from 1 to 4094 and ranges of them. *out: the ids in the order of the list, each once.
// The fault, if any: what is wrong, naming the item; *out is then unchanged.
fault read_vlan_list(std::string_view text, std::vector<std::uint16_t> *out);

// The text of a list of VLAN ids in ascending order, as ranges where they follow each other; empty for none.
std::string vlan_list_text(const std::vector<std::uint16_t> &vlans);

}  // namespace ravo::cli

#endif

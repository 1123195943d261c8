// SPDX-License-Identifier: Apache-2.0
// Interface naming: the fixed relation between interface names and the switch's interface numbers.
//
// A VLAN interface's number is 1024 + VLAN id (1 to 4094), a front-panel port's as port_number.h has it, whatever
// numbers the system underneath uses.
#ifndef PLATFORM_IF_UTL_H
#define PLATFORM_IF_UTL_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

// A VLAN interface's number: this + VLAN id.
#define IF_UTL_VLAN_BASE 1024

// Room for an interface name with its NUL.
#define IF_UTL_NAME_SIZE 21

// Returns the number of the interface with this name, 0 for an unknown name. A name "vlanN" with N from 1 to
// 4094 always has its number 1024 + N, whether or not such an interface exists at the moment.
uint32_t if_utl_ifname_to_ifindex(const char *name);

// Writes the name of the interface with this number, NUL-terminated, into name (IF_UTL_NAME_SIZE bytes).
// Returns 1; 0 for a number that names nothing, and then writes an empty name.
int if_utl_ifindex_to_ifname(uint32_t ifindex, char *name);

#ifdef __cplusplus
}
#endif

#endif

// SPDX-License-Identifier: Apache-2.0
// Interfaces, their names and their events.
#ifndef FAKE_INTERFACE_H
#define FAKE_INTERFACE_H

#include <cstdint>
#include <string>
#include <vector>

#include "nsm.h"

namespace fake {

struct address_setup {
    std::string address;  // "192.0.2.1"
    std::uint8_t flags = 0;
    std::uint8_t prefix_length = 24;
};

struct interface_setup {
    std::string name;           // "vlan10"
    std::uint32_t ifindex = 0;  // 0: the number of the name
    std::uint16_t hw_type = NSM_IF_TYPE_VLAN;
    std::vector<std::uint8_t> mac = {0x00, 0x00, 0x5e, 0x00, 0x53, 0x01};
    std::vector<address_setup> addresses = {};
};

// Makes an interface, or gives the one of this name other values. It lives until the reset.
struct interface *add_interface(const interface_setup &setup);

// The VLAN interface vlanN with its addresses.
struct interface *add_vlan(int vlan, const std::vector<address_setup> &addresses = {});

// The address object of an interface, or NULL.
struct connected *connected_of(const struct interface *ifp, const char *address);

// Gives a name its number, and back. Names "vlanN" need none.
void add_name(const std::string &name, std::uint32_t ifindex);

// What was asked of the interface service, in order: "nsm_client_create", "nsm_client_set_version 1",
// "ifc_add_hook 0", "if_add_hook 2", "nsm_client_start".
extern std::vector<std::string> nsm_calls;

// The installed hooks by event, NULL when none.
if_hook installed_if_hook(int event);
ifc_hook installed_ifc_hook(int event);

void reset_interfaces();

}  // namespace fake

#endif

// SPDX-License-Identifier: Apache-2.0
// Records the interface service's hooks as lines of text, with what the daemon sees of the object at that moment.
#ifndef TESTS_INTERFACE_EVENTS_H
#define TESTS_INTERFACE_EVENTS_H

#include <arpa/inet.h>

#include <string>
#include <utility>
#include <vector>

#include "nsm.h"

namespace interface_events {

inline std::vector<std::string> &lines() {
    static std::vector<std::string> recorded;
    return recorded;
}

// The events since the last call.
inline std::vector<std::string> take() {
    return std::exchange(lines(), {});
}

inline std::string text_of(const connected &address) {
    char text[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &address.address, text, sizeof text);
    return std::string(text) + "/" + std::to_string(address.prefix_length) +
           (address.flags == 0 ? "" : ":" + std::to_string(address.flags));
}

// "vlan10 1034 type 7 mac 020000000001 [10.0.0.1/24 10.0.0.2/24:1]"
inline std::string text_of(const interface &ifp) {
    static const char digits[] = "0123456789abcdef";
    std::string text =
        std::string(ifp.name) + " " + std::to_string(ifp.ifindex) + " type " + std::to_string(ifp.hw_type) + " mac ";
    for (std::uint32_t at = 0; at < ifp.hw_addr_len; ++at) {
        text += digits[ifp.hw_addr[at] >> 4];
        text += digits[ifp.hw_addr[at] & 15];
    }
    text += " [";
    for (const connected *address = ifp.ifc_ipv4; address != nullptr; address = address->next) {
        text += (address == ifp.ifc_ipv4 ? "" : " ") + text_of(*address);
        if (address->ifp != &ifp) text += "(strange interface)";
    }
    return text + "]";
}

inline int on_up(interface *ifp) {
    lines().push_back("up " + text_of(*ifp));
    return 0;
}

inline int on_delete(interface *ifp) {
    lines().push_back("delete " + std::string(ifp->name));
    return 0;
}

inline int on_address_add(connected *ifc) {
    lines().push_back("add " + text_of(*ifc) + " to " + ifc->ifp->name);
    return 0;
}

inline int on_address_delete(connected *ifc) {
    lines().push_back("remove " + text_of(*ifc) + " from " + text_of(*ifc->ifp));
    return 0;
}

// Connects as the daemon does.
inline void connect() {
    nsm_client *client = nsm_client_create(nullptr);
    nsm_client_set_version(client, 1);
    nsm_client_set_protocol(client, 13);
    nsm_client_set_service(client, 0);
    ifc_add_hook(NSM_IFC_ADDRESS_DELETE, on_address_delete);
    ifc_add_hook(NSM_IFC_ADDRESS_ADD, on_address_add);
    if_add_hook(NSM_IF_UP, on_up);
    if_add_hook(NSM_IF_DELETE, on_delete);
    nsm_client_start(client);
}

}  // namespace interface_events

#endif

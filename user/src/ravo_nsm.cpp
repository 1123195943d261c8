// SPDX-License-Identifier: Apache-2.0
// Following the switch's interfaces.
//
// The platform reports interfaces that come up or go away and addresses that come or go. Each VLAN interface that
// comes up gets a record in the interface database, or its record is refreshed, so that commands and the packet path
// always find its current number and addresses. A record goes with its interface; it also goes with its primary address
// unless plain servers are configured on it.
#include "ravo_nsm.h"

#include <arpa/inet.h>

#include "addr_text.h"
#include "ravo_db_if.h"
#include "trace.h"

namespace {

constexpr std::uint32_t client_version = 1;
constexpr std::uint32_t client_protocol = 13;
constexpr std::uint32_t client_service = 0;

bool handled(const struct interface *ifp) {
    return ifp->hw_type == NSM_IF_TYPE_VLAN;
}

// deliberate: two traces have the format of a hexadecimal number where others have dotted text. What is there is
// the address as a number, 192.0.2.1 as C0000201. The place of a text in memory would fit the format too, but it would
// show nobody which address is meant, and show everybody who reads the log where the process keeps its data.
unsigned traced_number(const connected &ifc) {
    return ntohl(ifc.address);
}

}  // namespace

int ravo_nsm_init(struct nsm_globals *globals) {
    nsm_client *client = nsm_client_create(globals);
    if (client == nullptr) return -1;
    nsm_client_set_version(client, client_version);
    nsm_client_set_protocol(client, client_protocol);
    nsm_client_set_service(client, client_service);
    ifc_add_hook(NSM_IFC_ADDRESS_DELETE, ravo_nsm_if_addr_delete);
    ifc_add_hook(NSM_IFC_ADDRESS_ADD, ravo_nsm_addr_add_callback);
    if_add_hook(NSM_IF_UP, ravo_nsm_if_up);
    if_add_hook(NSM_IF_DELETE, ravo_nsm_if_del);
    return nsm_client_start(client);
}

int ravo_nsm_if_up(struct interface *ifp) {
    ravo_trace(ravo::level_trace, "%s (%d) interface %s up or add address\n", ifp->name);
    if (!handled(ifp)) return 0;
    iface record = ravo_db_if_named(ifp->name);
    (void)ravo_db_if_get_or_new(&record);
    RAVO_IF_Fill_Info(&record, ifp);
    (void)ravo_db_if_add(&record);  // without memory the interface is not served; its next event tries again
    return 0;
}

int ravo_nsm_addr_add_callback(struct connected *ifc) {
    ravo_trace(ravo::level_trace, "%s (%d):++\n");
    ravo_nsm_if_up(ifc->ifp);
    ravo_trace(ravo::level_trace, "%s (%d):--\n");
    return 0;
}

int ravo_nsm_if_addr_delete(struct connected *ifc) {
    if (!handled(ifc->ifp)) return 0;
    if ((ifc->flags & NSM_IFA_SECONDARY) != 0)
        ravo_trace(ravo::level_failure, "%s (%d): secondary ip %X, inf %s\n", traced_number(*ifc), ifc->ifp->name);
    if ((ifc->flags & (NSM_IFA_SECONDARY | NSM_IFA_OTHER)) != 0) return 0;
    ravo_nsm_if_down(ifc);
    return 0;
}

int ravo_nsm_if_down(struct connected *ifc) {
    const char *name = ifc->ifp->name;
    ravo_trace(ravo::level_trace, "%s (%d) address %s for interface %s is about to be deleted\n",
               ravo_addr_text(ifc->address).text, name);
    iface record = ravo_db_if_named(name);
    if (ravo_db_if_get(&record) == 0) {
        ravo_trace(ravo::level_trace, "%s (%d): interface %s not found in interface DB\n", name);
        return 0;
    }
    if (record.if_ip != ifc->address) {
        ravo_trace(ravo::level_trace, "%s (%d):do not del %X for inf %s\n", traced_number(*ifc), name);
        return 0;
    }
    // deliberate: only plain servers keep a record; servers by option 60 or 61 go with it.
    if (record.server_count > 0) {
        record.if_ip = 0;
        (void)ravo_db_if_add(&record);  // the record is stored already, so nothing can fail
        return 0;
    }
    if (ravo_db_if_delete(name) == 0)
        ravo_trace(ravo::level_trace, "%s (%d) Delete interface %s failed in interface DB\n", name);
    return 0;
}

int ravo_nsm_if_del(struct interface *ifp) {
    ravo_trace(ravo::level_trace, "%s (%d): Delete interface %s\n", ifp->name);
    if (!handled(ifp)) return 0;
    iface record = ravo_db_if_named(ifp->name);
    if (ravo_db_if_get(&record) == 0) {
        ravo_trace(ravo::level_failure, "%s (%d): Get interface %s from DB failed!\n", ifp->name);
        return 0;
    }
    if (ravo_db_if_delete(ifp->name) == 0)
        ravo_trace(ravo::level_failure, "%s (%d): Delete interface %s from DB failed!\n", ifp->name);
    return 0;
}

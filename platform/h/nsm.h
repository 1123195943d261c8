// SPDX-License-Identifier: Apache-2.0
// Interfaces and their events.
//
// The platform provides interface objects, kept up to date with the system, and calls the daemon's hooks when an
// interface comes up or goes away or an address comes or goes. Objects belong to the platform. A pointer to one
// stays valid for the life of the process once the object was selected by a command; otherwise until its delete
// hook returned. The daemon reads objects, it never writes them.
#ifndef PLATFORM_NSM_H
#define PLATFORM_NSM_H

#include <stdint.h>

#include "if_utl.h"

#ifdef __cplusplus
extern "C" {
#endif

// Hardware type of the interfaces the relay serves: VLAN interfaces.
#define NSM_IF_TYPE_VLAN 7

// Flags of a connected address. Addresses with either flag are not primary addresses.
#define NSM_IFA_SECONDARY 1
#define NSM_IFA_OTHER 4

struct interface;

// An IPv4 address of an interface.
struct connected {
    struct connected *next;  // next address of the same interface, NULL at the end
    struct interface *ifp;   // the interface it belongs to
    uint32_t address;        // IPv4 address, network byte order
    uint8_t prefix_length;   // 0 to 32
    uint8_t flags;           // NSM_IFA_...
};

// An interface of the switch.
struct interface {
    char name[IF_UTL_NAME_SIZE];  // NUL-terminated; first member
    uint32_t ifindex;             // the switch's interface number
    uint16_t hw_type;             // NSM_IF_TYPE_VLAN, or another number for interfaces the relay ignores
    uint8_t hw_addr[16];          // hardware address, the first hw_addr_len bytes are valid
    uint32_t hw_addr_len;         // 6 for every VLAN interface that comes up
    struct connected *ifc_ipv4;   // IPv4 addresses, NULL when it has none
};

// ---- Client set-up: called by the daemon from its interface set-up callback ----

struct nsm_globals;
struct nsm_client;

// Interface events with the numbers that the hooks are installed for.
enum nsm_event {
    NSM_IFC_ADDRESS_ADD = 0,     // ifc hook: an address was added
    NSM_IFC_ADDRESS_DELETE = 1,  // ifc hook: an address is about to be deleted; it is still in the list
    NSM_IF_UP = 2,               // if hook: an interface is up
    NSM_IF_DELETE = 6,           // if hook: an interface is about to be deleted
};

typedef int (*if_hook)(struct interface *ifp);
typedef int (*ifc_hook)(struct connected *ifc);

// Creates the daemon's client of the interface service. Returns NULL when memory is used up. The platform owns it.
struct nsm_client *nsm_client_create(struct nsm_globals *globals);

// Settings of the client: protocol version 1, protocol number 13, service bits 0.
void nsm_client_set_version(struct nsm_client *client, uint32_t version);
void nsm_client_set_protocol(struct nsm_client *client, uint32_t protocol);
void nsm_client_set_service(struct nsm_client *client, uint32_t service);

// Starts the client. From then on hooks are called on the event thread: first, after the daemon's start-up
// callback returned, for everything that exists already. Returns 0, or -1 when the service cannot be reached.
int nsm_client_start(struct nsm_client *client);

// Installs a hook for an event. One hook an event; a later one replaces it. The hook's result is not used.
void if_add_hook(int event, if_hook hook);
void ifc_add_hook(int event, ifc_hook hook);

// ---- Look-up of interface objects ----

// Returns the interface object with this name, made when there is none yet: it then has its name, number and
// type, no hardware address and no addresses. "vlan10", "vlan010" and "10" name the same object, vlan10. Returns
// NULL for a name that cannot be an interface of the switch.
struct interface *ifg_get_by_name(const char *name);

// Returns the object of the interface with this number, or NULL when the switch has no such interface now: one that a
// command only named is not meant.
struct interface *ifg_lookup_by_index(uint32_t ifindex);

// Walks the interface list of the router context, in order of interface number: the first object, and the one
// after ifp; NULL at the end.
struct interface *ifg_first(void);
struct interface *ifg_next(const struct interface *ifp);

#ifdef __cplusplus
}
#endif

#endif

// SPDX-License-Identifier: Apache-2.0
// Interface objects and their events.
//
// There is one object for each VLAN that ever had an interface or was selected by a command; it is never freed, so that
// a pointer to it stays good whatever happens to the device. The inventory feeds the state of a device after each
// change; what differs from the object becomes events: it is compared and not reported change by change, so that lost
// or repeated netlink messages can neither be missed nor be reported twice.
#include "nsm.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "interfaces/nsm_feed.h"
#include "inventory/inventory.h"
#include "inventory/inventory_names.h"
#include "log/log.h"

// The client is the process's own: there is nothing to connect to.
struct nsm_client {
    std::uint32_t version;
    std::uint32_t protocol;
    std::uint32_t service;
    bool started;
};

namespace ravo::platform {

namespace {

struct address_object {
    connected pub{};
    std::uint32_t peer = 0;  // as in address_record
};

using address_ptr = std::unique_ptr<address_object>;

struct interface_object {
    struct interface pub {};
    std::vector<address_ptr> addresses;  // what pub.ifc_ipv4 chains, in the same order
    int kernel_ifindex = 0;              // 0: no device
    bool up = false;
    bool selected = false;  // by a command before there was a device: in the list all the same
};

std::array<std::unique_ptr<interface_object>, last_vlan + 1> objects;
nsm_client client{};
bool delivered = false;
if_hook up_hook = nullptr;
if_hook delete_hook = nullptr;
ifc_hook address_add_hook = nullptr;
ifc_hook address_delete_hook = nullptr;
nsm_witness witness;

bool telling() {
    return client.started && delivered;
}

// Calls a hook with its argument, between the witness's two looks.
template <typename hook_type, typename argument_type>
void tell_witnessed(hook_type hook, argument_type *argument, const struct interface &ifp) {
    if (!telling() || hook == nullptr) return;
    const std::uint16_t vlan = vlan_of_number(ifp.ifindex);
    if (witness.before) witness.before(vlan);
    hook(argument);
    if (witness.after) witness.after(vlan);
}

void tell(if_hook hook, interface_object &object) {
    tell_witnessed(hook, &object.pub, object.pub);
}

void tell(ifc_hook hook, connected &address) {
    tell_witnessed(hook, &address, *address.ifp);
}

interface_object &object_of(std::uint16_t vlan) {
    std::unique_ptr<interface_object> &slot = objects[vlan];
    if (slot) return *slot;
    slot = std::make_unique<interface_object>();
    std::snprintf(slot->pub.name, sizeof slot->pub.name, "vlan%u", static_cast<unsigned>(vlan));
    slot->pub.ifindex = vlan_number_base + vlan;
    slot->pub.hw_type = NSM_IF_TYPE_VLAN;
    return *slot;
}

// The switch has such an interface now.
bool exists(const interface_object *object) {
    return object != nullptr && object->kernel_ifindex != 0;
}

bool is_listed(const interface_object *object) {
    return exists(object) || (object != nullptr && object->selected);
}

struct interface *first_listed(std::uint32_t vlan) {
    for (; vlan <= last_vlan; ++vlan)
        if (is_listed(objects[vlan].get())) return &objects[vlan]->pub;
    return nullptr;
}

bool is_primary(const connected &address) {
    return (address.flags & (NSM_IFA_SECONDARY | NSM_IFA_OTHER)) == 0;
}

void chain_addresses(interface_object *object) {
    connected **end = &object->pub.ifc_ipv4;
    for (const address_ptr &address : object->addresses) {
        *end = &address->pub;
        end = &address->pub.next;
    }
    *end = nullptr;
}

bool is_same(const address_ptr &held, const address_record &wanted) {
    return held && held->pub.address == wanted.address && held->pub.prefix_length == wanted.prefix_length &&
           held->peer == wanted.peer;
}

// Finds an address, first where it is expected: the two lists mostly run in step. Returns the list's size for none.
std::size_t find_address(const std::vector<address_ptr> &list, const address_record &wanted, std::size_t expected) {
    if (expected < list.size() && is_same(list[expected], wanted)) return expected;
    const auto found =
        std::find_if(list.begin(), list.end(), [&](const address_ptr &held) { return is_same(held, wanted); });
    return static_cast<std::size_t>(found - list.begin());
}

// Takes away the addresses that are gone; each is in the list while its hook runs. Returns whether a primary one went.
bool drop_addresses(interface_object *object, const std::vector<address_record> &now) {
    std::vector<address_ptr> &list = object->addresses;
    std::vector<bool> stays(list.size());
    std::size_t expected = 0;
    for (const address_record &address : now) {
        const std::size_t at = find_address(list, address, expected);
        if (at == list.size()) continue;
        stays[at] = true;
        expected = at + 1;
    }
    bool lost_primary = false;
    for (std::size_t at = list.size(); at-- > 0;) {  // secondary addresses are last in the list and go first
        if (stays[at]) continue;
        lost_primary = lost_primary || is_primary(list[at]->pub);
        tell(address_delete_hook, list[at]->pub);
        list.erase(list.begin() + static_cast<std::ptrdiff_t>(at));
        chain_addresses(object);
    }
    return lost_primary;
}

address_ptr new_address(interface_object *object, const address_record &address) {
    auto made = std::make_unique<address_object>();
    made->pub.ifp = &object->pub;
    made->pub.address = address.address;
    made->pub.prefix_length = address.prefix_length;
    made->peer = address.peer;
    return made;
}

// Puts the list in its new order with its new addresses. Returns those that are new or became primary or secondary.
std::vector<connected *> take_addresses(interface_object *object, const std::vector<address_record> &now) {
    std::vector<connected *> fresh;
    std::vector<address_ptr> list;
    list.reserve(now.size());
    std::size_t expected = 0;
    for (const address_record &address : now) {
        const std::size_t at = find_address(object->addresses, address, expected);
        const bool known = at < object->addresses.size();
        if (known) expected = at + 1;
        address_ptr entry = known ? std::move(object->addresses[at]) : new_address(object, address);
        const std::uint8_t flags = address.secondary ? NSM_IFA_SECONDARY : 0;
        if (!known || entry->pub.flags != flags) fresh.push_back(&entry->pub);
        entry->pub.flags = flags;
        list.push_back(std::move(entry));
    }
    object->addresses = std::move(list);
    chain_addresses(object);
    return fresh;
}

void unbind(interface_object *object) {
    if (object->kernel_ifindex == 0) return;
    object->kernel_ifindex = 0;
    tell(delete_hook, *object);
    object->up = false;
    object->selected = false;  // no command that goes through all interfaces is to find it
    object->addresses.clear();
    object->pub.ifc_ipv4 = nullptr;
    object->pub.hw_addr_len = 0;
    std::memset(object->pub.hw_addr, 0, sizeof object->pub.hw_addr);
}

bool has_primary(const interface_object &object) {
    return std::any_of(object.addresses.begin(), object.addresses.end(),
                       [](const address_ptr &address) { return is_primary(address->pub); });
}

void update(interface_object *object, const interface_state &now) {
    const bool lost_primary = drop_addresses(object, *now.addresses);
    const bool other_device = object->kernel_ifindex != now.kernel_ifindex;
    const bool other_mac = object->pub.hw_addr_len != now.mac.size() ||
                           std::memcmp(object->pub.hw_addr, now.mac.data(), now.mac.size()) != 0;
    const bool came_up = now.up && !object->up;
    object->kernel_ifindex = now.kernel_ifindex;
    object->up = now.up;
    std::copy(now.mac.begin(), now.mac.end(), object->pub.hw_addr);
    object->pub.hw_addr_len = static_cast<std::uint32_t>(now.mac.size());
    const std::vector<connected *> fresh = take_addresses(object, *now.addresses);

    // The relay forgets an interface whose recorded address goes, even when it has another one: "up" brings that in.
    if (came_up || (now.up && (other_device || other_mac)) || (lost_primary && has_primary(*object)))
        tell(up_hook, *object);
    for (connected *address : fresh) tell(address_add_hook, *address);
}

// The VLAN of the interface that a name selects: "vlan10", "vlan010", "10", or the device that carries it ("br0.10").
std::uint16_t vlan_selected_by(const char *name) {
    if (name == nullptr) return 0;
    const std::string_view text(name, strnlen(name, IF_UTL_NAME_SIZE));
    if (text.empty() || text.size() == IF_UTL_NAME_SIZE) return 0;
    const bool number = std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
    const std::uint16_t vlan = vlan_of_name((number ? "vlan" : "") + std::string(text));
    return vlan != 0 ? vlan : inventory_vlan_of_device(std::string(text));
}

void unknown_event(const char *function, int event) {
    log_line(log_level_error, "interfaces: %s: there is no event %d", function, event);
}

}  // namespace

void nsm_feed(std::uint16_t vlan, const interface_state *now) {
    if (vlan == 0 || vlan > last_vlan) return;
    if (now == nullptr && !objects[vlan]) return;
    interface_object &object = object_of(vlan);
    if (now == nullptr)
        unbind(&object);
    else
        update(&object, *now);
}

void nsm_follow_inventory() {
    static bool follows = false;
    if (!std::exchange(follows, true)) inventory_on_interface(nsm_feed);
}

void nsm_set_witness(nsm_witness wanted) {
    witness = std::move(wanted);
}

bool nsm_is_there(std::uint16_t vlan) {
    return vlan <= last_vlan && objects[vlan] && objects[vlan]->kernel_ifindex != 0;
}

void nsm_drop_record(std::uint16_t vlan) {
    if (vlan == 0 || vlan > last_vlan) return;
    interface_object &object = object_of(vlan);
    if (delete_hook != nullptr) delete_hook(&object.pub);
    if (object.kernel_ifindex == 0) object.selected = false;
    nsm_refresh_record(vlan);
}

void nsm_delete_record(struct interface *ifp) {
    if (delete_hook != nullptr) delete_hook(ifp);
}

void nsm_refresh_record(std::uint16_t vlan) {
    if (nsm_is_there(vlan) && objects[vlan]->up && up_hook != nullptr) up_hook(&objects[vlan]->pub);
}

void nsm_deliver_existing() {
    delivered = true;
    for (const std::unique_ptr<interface_object> &object : objects) {
        if (!object || object->kernel_ifindex == 0) continue;
        if (object->up) tell(up_hook, *object);
        for (const address_ptr &address : object->addresses) tell(address_add_hook, address->pub);
    }
}

}  // namespace ravo::platform

extern "C" {

struct nsm_client *nsm_client_create(struct nsm_globals * /*globals*/) {
    return &ravo::platform::client;
}

void nsm_client_set_version(struct nsm_client *client, uint32_t version) {
    client->version = version;
}

void nsm_client_set_protocol(struct nsm_client *client, uint32_t protocol) {
    client->protocol = protocol;
}

void nsm_client_set_service(struct nsm_client *client, uint32_t service) {
    client->service = service;
}

int nsm_client_start(struct nsm_client *client) {
    client->started = true;
    return 0;
}

void if_add_hook(int event, if_hook hook) {
    if (event == NSM_IF_UP)
        ravo::platform::up_hook = hook;
    else if (event == NSM_IF_DELETE)
        ravo::platform::delete_hook = hook;
    else
        ravo::platform::unknown_event("if_add_hook", event);
}

void ifc_add_hook(int event, ifc_hook hook) {
    if (event == NSM_IFC_ADDRESS_ADD)
        ravo::platform::address_add_hook = hook;
    else if (event == NSM_IFC_ADDRESS_DELETE)
        ravo::platform::address_delete_hook = hook;
    else
        ravo::platform::unknown_event("ifc_add_hook", event);
}

struct interface *ifg_get_by_name(const char *name) {
    const std::uint16_t vlan = ravo::platform::vlan_selected_by(name);
    if (vlan == 0) return nullptr;
    ravo::platform::interface_object &object = ravo::platform::object_of(vlan);
    object.selected = true;
    return &object.pub;
}

struct interface *ifg_lookup_by_index(uint32_t ifindex) {
    const std::uint16_t vlan = ravo::platform::vlan_of_number(ifindex);
    if (vlan == 0) return nullptr;
    ravo::platform::interface_object *object = ravo::platform::objects[vlan].get();
    return ravo::platform::exists(object) ? &object->pub : nullptr;
}

struct interface *ifg_first(void) {
    return ravo::platform::first_listed(1);
}

struct interface *ifg_next(const struct interface *ifp) {
    return ifp == nullptr ? nullptr : ravo::platform::first_listed(ravo::platform::vlan_of_number(ifp->ifindex) + 1U);
}

}  // extern "C"

// SPDX-License-Identifier: Apache-2.0
// Interface objects by number, with stable addresses. The number of a name that is no VLAN interface must be set first.
#include "fake_interface.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <deque>
#include <map>
#include <memory>

#include "fake_script.h"
#include "fake_text.h"

struct nsm_client {
    int number;
};

namespace fake {

std::vector<std::string> nsm_calls;

namespace {

constexpr std::uint32_t vlan_base = 1024;
constexpr std::uint32_t vlan_last = 4094;

struct entry {
    struct interface object {};
    std::deque<connected> addresses;
};

std::map<std::uint32_t, std::unique_ptr<entry>> interfaces;
std::map<std::string, std::uint32_t> names;
std::map<int, if_hook> if_hooks;
std::map<int, ifc_hook> ifc_hooks;
nsm_client client{1};

// The VLAN id of "vlanN", 0 for any other name.
std::uint32_t vlan_of(const std::string &name) {
    if (name.rfind("vlan", 0) != 0 || name.size() == 4 || name.size() > 12) return 0;
    const std::string digits = name.substr(4);
    if (!std::all_of(digits.begin(), digits.end(), [](unsigned char c) { return std::isdigit(c) != 0; })) return 0;
    const unsigned long vlan = std::stoul(digits);
    return vlan >= 1 && vlan <= vlan_last ? static_cast<std::uint32_t>(vlan) : 0;
}

void store_name(char (&room)[IF_UTL_NAME_SIZE], const std::string &name) {
    std::memset(room, 0, sizeof room);
    std::memcpy(room, name.data(), std::min(name.size(), sizeof room - 1));
}

void note(const std::string &call) {
    nsm_calls.push_back(call);
}

}  // namespace

struct interface *add_interface(const interface_setup &setup) {
    const std::uint32_t number = setup.ifindex != 0 ? setup.ifindex : if_utl_ifname_to_ifindex(setup.name.c_str());
    std::unique_ptr<entry> &made = interfaces[number];
    if (!made) made = std::make_unique<entry>();
    struct interface &object = made->object;
    object = {};
    store_name(object.name, setup.name);
    object.ifindex = number;
    object.hw_type = setup.hw_type;
    object.hw_addr_len = static_cast<std::uint32_t>(setup.mac.size());
    std::copy_n(setup.mac.begin(), std::min(setup.mac.size(), sizeof object.hw_addr), object.hw_addr);
    made->addresses.clear();
    for (const address_setup &one : setup.addresses)
        made->addresses.push_back({nullptr, &object, address(one.address.c_str()), one.prefix_length, one.flags});
    for (std::size_t i = 0; i < made->addresses.size(); ++i)
        made->addresses[i].next = i + 1 < made->addresses.size() ? &made->addresses[i + 1] : nullptr;
    object.ifc_ipv4 = made->addresses.empty() ? nullptr : &made->addresses.front();
    return &object;
}

struct interface *add_vlan(int vlan, const std::vector<address_setup> &addresses) {
    interface_setup setup;
    setup.name = "vlan" + std::to_string(vlan);
    setup.addresses = addresses;
    return add_interface(setup);
}

struct connected *connected_of(const struct interface *ifp, const char *text) {
    for (connected *one = ifp->ifc_ipv4; one != nullptr; one = one->next)
        if (one->address == address(text)) return one;
    return nullptr;
}

void add_name(const std::string &name, std::uint32_t ifindex) {
    names[name] = ifindex;
}

if_hook installed_if_hook(int event) {
    const auto found = if_hooks.find(event);
    return found == if_hooks.end() ? nullptr : found->second;
}

ifc_hook installed_ifc_hook(int event) {
    const auto found = ifc_hooks.find(event);
    return found == ifc_hooks.end() ? nullptr : found->second;
}

void reset_interfaces() {
    nsm_calls.clear();
    interfaces.clear();
    names.clear();
    if_hooks.clear();
    ifc_hooks.clear();
}

}  // namespace fake

std::uint32_t if_utl_ifname_to_ifindex(const char *name) {
    if (const auto found = fake::names.find(name); found != fake::names.end()) return found->second;
    const std::uint32_t vlan = fake::vlan_of(name);
    return vlan != 0 ? fake::vlan_base + vlan : 0;
}

int if_utl_ifindex_to_ifname(std::uint32_t ifindex, char *name) {
    std::string text;
    if (ifindex > fake::vlan_base && ifindex <= fake::vlan_base + fake::vlan_last)
        text = "vlan" + std::to_string(ifindex - fake::vlan_base);
    for (const auto &[known, number] : fake::names)
        if (number == ifindex) text = known;
    char room[IF_UTL_NAME_SIZE];
    fake::store_name(room, text);
    std::memcpy(name, room, sizeof room);
    return text.empty() ? 0 : 1;
}

nsm_client *nsm_client_create(nsm_globals *) {
    fake::note("nsm_client_create");
    return fake::scripted(fake::op::nsm_create) ? nullptr : &fake::client;
}

void nsm_client_set_version(nsm_client *, std::uint32_t version) {
    fake::note("nsm_client_set_version " + std::to_string(version));
}

void nsm_client_set_protocol(nsm_client *, std::uint32_t protocol) {
    fake::note("nsm_client_set_protocol " + std::to_string(protocol));
}

void nsm_client_set_service(nsm_client *, std::uint32_t service) {
    fake::note("nsm_client_set_service " + std::to_string(service));
}

int nsm_client_start(nsm_client *) {
    fake::note("nsm_client_start");
    return fake::scripted(fake::op::nsm_start).value_or(0);
}

void if_add_hook(int event, if_hook hook) {
    fake::note("if_add_hook " + std::to_string(event));
    fake::if_hooks[event] = hook;
}

void ifc_add_hook(int event, ifc_hook hook) {
    fake::note("ifc_add_hook " + std::to_string(event));
    fake::ifc_hooks[event] = hook;
}

struct interface *ifg_get_by_name(const char *name) {
    std::string wanted = name;
    if (!wanted.empty() && std::isdigit(static_cast<unsigned char>(wanted[0])) != 0) wanted = "vlan" + wanted;
    if (const std::uint32_t vlan = fake::vlan_of(wanted); vlan != 0) wanted = "vlan" + std::to_string(vlan);
    const std::uint32_t number = if_utl_ifname_to_ifindex(wanted.c_str());
    if (number == 0) return nullptr;
    if (struct interface *known = ifg_lookup_by_index(number)) return known;
    fake::interface_setup setup;
    setup.name = wanted;
    setup.mac = {};
    return fake::add_interface(setup);
}

struct interface *ifg_lookup_by_index(std::uint32_t ifindex) {
    const auto found = fake::interfaces.find(ifindex);
    return found == fake::interfaces.end() ? nullptr : &found->second->object;
}

struct interface *ifg_first() {
    return fake::interfaces.empty() ? nullptr : &fake::interfaces.begin()->second->object;
}

struct interface *ifg_next(const struct interface *ifp) {
    const auto next = fake::interfaces.upper_bound(ifp->ifindex);
    return next == fake::interfaces.end() ? nullptr : &next->second->object;
}

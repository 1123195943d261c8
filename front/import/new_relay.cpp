// SPDX-License-Identifier: Apache-2.0
// Devices become VLANs first: those whose names have an id keep it, the others get free ids, which the switch
// description then gives their devices. Both texts are written with these numbers. What ravo has no command for becomes
// a remark at its place.
#include "new_relay.h"

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstddef>
#include <set>
#include <string_view>
#include <system_error>

namespace ravo::moving {

namespace {

constexpr unsigned last_vlan = 4094;
constexpr std::size_t most_servers = 4;  // of one interface

// A device with clients, and the VLAN that it gets.
struct client_device {
    std::string name;
    unsigned vlan = 0;
    bool by_name = false;  // the daemon finds it by itself
    bool both = false;     // -i: perhaps there are only servers behind it
};

// vlan10, eth0.10: the number in the name, 0 when there is none that a VLAN may have.
unsigned vlan_in(std::string_view name) {
    const std::size_t dot = name.rfind('.');
    std::string_view digits;
    if (dot != name.npos)
        digits = name.substr(dot + 1);
    else if (name.starts_with("vlan"))
        digits = name.substr(4);
    unsigned vlan = 0;
    const auto [end, fault] = std::from_chars(digits.data(), digits.data() + digits.size(), vlan);
    const bool whole = fault == std::errc{} && end == digits.data() + digits.size() && !digits.starts_with('0');
    return whole && vlan <= last_vlan ? vlan : 0;
}

std::vector<client_device> client_devices(const old_relay &from) {
    std::vector<client_device> devices;
    for (const std::string &name : from.clients) devices.push_back({name, 0, false, false});
    for (const std::string &name : from.both)
        if (std::find(from.clients.begin(), from.clients.end(), name) == from.clients.end())
            devices.push_back({name, 0, false, true});
    std::set<unsigned> taken;
    for (client_device &device : devices) {
        const unsigned vlan = vlan_in(device.name);
        device.by_name = vlan != 0 && taken.insert(vlan).second;
        if (device.by_name) device.vlan = vlan;
    }
    unsigned next = 1;
    for (client_device &device : devices) {
        if (device.by_name) continue;
        while (taken.contains(next)) ++next;
        device.vlan = next;
        taken.insert(next);
    }
    std::sort(devices.begin(), devices.end(),
              [](const client_device &a, const client_device &b) { return a.vlan < b.vlan; });
    return devices;
}

bool is_address(const std::string &server) {
    in_addr address{};
    return inet_pton(AF_INET, server.c_str(), &address) == 1;
}

// What to say of an option for which nothing is written.
std::string remark_of(const old_option &option) {
    struct row {
        std::string_view name, text;
    };
    static constexpr std::array<row, 11> rows = {{
        {"-4", ""},  // nothing else is relayed
        {"-d", "ravod stays in the foreground always"},
        {"-q", "ravod prints to its log; see --log-level in ravod(8)"},
        {"--no-pid", "ravod writes no such file"},
        {"-pf", "ravod writes no such file"},
        {"-tf", "no equal; see \"monitor ip dhcp relay\""},
        {"-A", "no equal; there is no such length to set"},
        {"-U", "no equal; the address of a VLAN's interface is its giaddr, link selection is not written"},
        {"-g", "no equal; the address of a VLAN's interface is its giaddr"},
        {"-p", "no equal; the ports are UDP 67 and 68"},
        {"-rp", "no equal; the ports are UDP 67 and 68"},
    }};
    const auto *found = std::find_if(rows.begin(), rows.end(), [&](const row &one) { return one.name == option.name; });
    if (found == rows.end() || found->text.empty()) return {};
    const std::string value = option.value.empty() ? "" : " " + option.value;
    std::string text = "! " + option.name + value + ": " + std::string(found->text) + "\n";
    std::replace_if(
        text.begin(), text.end() - 1, [](unsigned char c) { return c < ' ' || c > '~'; }, '?');
    return text;
}

// Requests with this hop count and more were dropped; here those with more are.
std::string hops(unsigned count) {
    constexpr unsigned most = 16;
    constexpr unsigned by_itself = 4;
    const unsigned limit = std::clamp(count, 2U, most + 1) - 1;
    std::string text;
    if (limit + 1 != count) text = "! -c " + std::to_string(count) + ": the limit is from 1 to 16 here\n";
    return limit == by_itself ? text : text + "ip dhcp relay hops " + std::to_string(limit) + "\n";
}

std::string option_82(const old_relay &from) {
    std::string text;
    if (from.adds_option)
        text =
            "! -a: the circuit id is VLAN, module and port now, no device's name: servers that read it have to know\n"
            "ip dhcp relay information option\n";
    if (from.policy == "append")
        text += "! -m append: no equal; keep, drop and replace are there, replace is in force\n";
    if (from.policy == "forward") text += "ip dhcp relay information policy keep\n";
    if (from.policy == "discard") text += "ip dhcp relay information policy drop\n";
    if (from.adds_option && !from.checks_replies)
        text +=
            "! without -D replies are not checked; take the next line out, and they are\n"
            "no ip dhcp relay information check\n";
    return text;
}

std::string servers_of_interface(const old_relay &from) {
    std::string text;
    std::size_t written = 0;
    for (const std::string &server : from.servers) {
        if (!is_address(server))
            text += " ! " + server + ": servers are addresses here; write its address: ip dhcp relay address A.B.C.D\n";
        else if (++written > most_servers)
            text += " ! " + server + ": an interface has four servers at most\n";
        else
            text += " ip dhcp relay address " + server + "\n";
    }
    return text;
}

std::string interface_section(const client_device &device, const old_relay &from) {
    std::string text = "!\n";
    if (device.both) text += "! " + device.name + ": take this section out if only servers are behind it\n";
    return text + "interface vlan " + std::to_string(device.vlan) + "\n" + servers_of_interface(from);
}

}  // namespace

std::string startup_configuration(const old_relay &from) {
    std::string text = "! made by ravo-import from the settings of dhcrelay\n";
    for (const old_option &option : from.options) text += remark_of(option);
    text += "ip dhcp relay\n" + option_82(from) + hops(from.count);
    const std::vector<client_device> devices = client_devices(from);
    for (const client_device &device : devices) text += interface_section(device, from);
    if (devices.empty()) {
        text +=
            "!\n! no device was named, so all were served; take away the \"!\" for each VLAN with clients\n"
            "!interface vlan 10\n";
        for (const std::string &server : from.servers) text += "! ip dhcp relay address " + server + "\n";
    }
    return text;
}

std::string switch_description(const old_relay &from) {
    std::string text = "# switch.toml\n";
    for (const std::string &uplink : from.uplinks)
        text += "# " + uplink + ": servers answer over any device that has an address; nothing to write\n";
    for (const client_device &device : client_devices(from)) {
        if (device.by_name) continue;
        const std::string vlan = std::to_string(device.vlan);
        text += "# " + device.name + ": its name has no VLAN of its own, " + vlan +
                " was free: change it here and above\n" + "[[interface]]\nvlan = " + vlan + "\ndevice = \"" +
                device.name + "\"\n";
    }
    return text;
}

}  // namespace ravo::moving

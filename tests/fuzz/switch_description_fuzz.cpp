// SPDX-License-Identifier: Apache-2.0
// Surface: the text of a switch description.
//
// Contract: whatever the bytes, nothing outside them is read and no exception comes out. Either there are faults, each
// one line that begins with the file, and nothing was filled in; or all that was read lies within its bounds, no port
// and no device is named twice, and the text of the ports, written by us and read again, is those ports.

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "inventory/switch_description.h"

namespace {

using namespace ravo::platform;

void require(bool condition, const char *what) {
    if (condition) return;
    std::fprintf(stderr, "switch_description_fuzz: %s\n", what);
    std::abort();
}

constexpr std::size_t longest_fault = 4096;

void check_faults(const std::vector<std::string> &faults) {
    for (const std::string &fault : faults) {
        require(fault.starts_with("/etc/ravo/switch.toml:"), "a fault that does not name its file");
        require(fault.size() < longest_fault, "a fault without end");
        require(std::none_of(fault.begin(), fault.end(), [](char c) { return c >= 0 && c < ' '; }),
                "a fault with control characters");
    }
}

void check_ports(const std::vector<described_port> &ports) {
    std::set<std::string> devices;
    std::set<std::pair<std::uint32_t, std::uint32_t>> places;
    for (const described_port &port : ports) {
        require(!port.device.empty() && port.device.size() < 16, "a device that no kernel has");
        require(port.module >= 1 && port.module <= described_module_max, "a module beyond its bounds");
        require(port.port <= described_port_max && (port.module > 1 || port.port > 0), "a port beyond its bounds");
        require(port.limit.value_or(0) <= described_limit_max, "a limit beyond its bounds");
        require(port.burst.value_or(1) >= 1 && port.burst.value_or(1) <= described_limit_max,
                "a burst beyond its bounds");
        require(port.clients.value_or(0) <= described_clients_max, "clients beyond their bounds");
        require(devices.insert(port.device).second, "a device that is two ports");
        require(places.insert({port.module, port.port}).second, "a port that is two devices");
    }
}

void check_rest(const switch_description &d) {
    std::set<std::uint32_t> vlans;
    for (const described_interface &one : d.interfaces) {
        require(one.vlan >= 1 && one.vlan <= 4094, "a VLAN beyond its bounds");
        require(!one.device.empty() && one.device.size() < 16, "an interface's device that no kernel has");
        require(vlans.insert(one.vlan).second, "a VLAN with two devices");
    }
    require(d.channel.recorder >= 1 && d.channel.recorder <= described_recorder_max, "a recorder beyond its bounds");
    require(d.limit.port <= described_limit_max && d.limit.uplink <= described_limit_max, "limits beyond their bounds");
    require(d.limit.burst >= 1 && d.limit.burst <= described_limit_max, "the burst beyond its bounds");
    require(d.guard.clients <= described_clients_max, "the guard's clients beyond their bounds");
    for (const std::string &folder : d.capture.folders)
        require(folder.starts_with("/") && (folder.size() == 1 || folder.back() != '/'),
                "a folder that is no whole path");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    const auto exact = std::make_unique<char[]>(size);
    std::copy_n(data, size, exact.get());
    switch_description read;
    read.limit.port = 77;  // shows whether anything was filled in
    const switch_description before = read;
    const std::vector<std::string> faults =
        switch_description_parse({exact.get(), size}, "/etc/ravo/switch.toml", &read);
    check_faults(faults);
    if (!faults.empty()) {
        require(read == before, "filled in in spite of faults");
        return 0;
    }
    check_ports(read.ports);
    check_rest(read);
    switch_description again;
    require(switch_description_parse(switch_description_ports(read.ports), "/etc/ravo/switch.toml", &again).empty(),
            "ports that are refused as we write them");
    require(again.ports.size() == read.ports.size(), "ports that are lost when written");
    return 0;
}

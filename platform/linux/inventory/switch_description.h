// SPDX-License-Identifier: Apache-2.0
// The switch description: which device is which port, and which device carries which VLAN.
#ifndef PLATFORM_LINUX_INVENTORY_SWITCH_DESCRIPTION_H
#define PLATFORM_LINUX_INVENTORY_SWITCH_DESCRIPTION_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "fault.h"
#include "port_number.h"

namespace ravo::platform {

// Modules are numbered from 1, ports within a module up to 63; the first module has no port 0, so that a port's
// interface number 5120 + 64 * (module - 1) + port is never the bare 5120.
inline constexpr std::uint32_t described_module_max = PORT_NUMBER_MODULES;
inline constexpr std::uint32_t described_port_max = PORT_NUMBER_PORTS - 1;

struct described_port {
    std::string device;                    // name of the kernel's device
    std::uint32_t module;                  // 1 to described_module_max
    std::uint32_t port;                    // 0 to 63: number within the module; 1 to 63 in the first
    std::optional<bool> trap{};            // clients' broadcasts go to the relay only; none: as the channel says
    std::optional<std::uint32_t> limit{};  // messages a second, 0 to described_limit_max; none: as [limit] says
    std::optional<std::uint32_t> burst{};  // messages at once, 1 to described_limit_max; none: as [limit] says
    bool servers = false;                  // servers are behind it: replies may come from it
    bool trusted = false;                  // relays are behind it: they set relay fields
    // client addresses a minute, 0 to described_clients_max, 0: any number; none: as [guard] says
    std::optional<std::uint32_t> clients{};
    bool operator==(const described_port &) const = default;
};

struct described_interface {
    std::uint32_t vlan;  // 1 to 4094
    std::string device;  // name of the kernel's device
    bool operator==(const described_interface &) const = default;
};

// Messages that the flight recorder holds.
inline constexpr std::uint32_t described_recorder_default = 4096;
inline constexpr std::uint32_t described_recorder_max = 1000000;

struct described_channel {
    bool trap = false;  // clients' broadcasts go to the relay only, on all ports that do not say otherwise
    std::uint32_t recorder = described_recorder_default;  // 1 to described_recorder_max
    bool operator==(const described_channel &) const = default;
};

// What ports may send. No ordinary switch comes near the defaults.
inline constexpr std::uint32_t described_limit_max = 1000000;

struct described_limit {
    std::uint32_t port = 5000;    // messages a second of a port that does not say otherwise; 0: no limit
    std::uint32_t burst = 10000;  // messages at once; 1 to described_limit_max
    std::uint32_t uplink =
        50000;  // messages a second of a device that is no port, and of a port of servers; 0: no limit
    bool operator==(const described_limit &) const = default;
};

// Checks that the channel adds to the relay's own, each off unless it is asked for.
inline constexpr std::uint32_t described_clients_max = 4096;
inline constexpr std::uint32_t described_clients_all = 64;  // with all = true

struct described_guard {
    bool server_ports = false;     // replies come from ports for servers and from uplinks only
    bool servers = false;          // replies come from configured servers only
    bool circuit_id = false;       // a reply's circuit id has the length that the relay writes
    bool relay_fields = false;     // no relay address and no option 82 in requests from other ports
    bool source_mac = false;       // a request's client hardware address is the frame's source
    bool destination = false;      // a request to an interface's address is to that of its own VLAN
    bool transactions = false;     // an open transaction is its port's and its client's
    std::uint32_t clients = 0;     // client addresses a minute of a port that says nothing of its own; 0: any number
    bool core_assertions = false;  // what the relay can answer only by ending reaches it
    bool operator==(const described_guard &) const = default;
};

struct described_settings {
    bool keep = true;  // what is configured for an interface outlasts it
    bool operator==(const described_settings &) const = default;
};

// Sessions of the management socket.
inline constexpr std::uint32_t described_sessions_default = 64;
inline constexpr std::uint32_t described_sessions_least = 16;  // of them 8 are kept for root and administrators
inline constexpr std::uint32_t described_sessions_max = 1024;
inline constexpr std::uint32_t described_per_user_default = 16;
inline constexpr std::uint32_t described_idle_default = 30;
inline constexpr std::uint32_t described_idle_max = 10080;  // a week

struct described_management {
    std::uint32_t sessions = described_sessions_default;  // at once
    std::uint32_t per_user = described_per_user_default;  // of one user but root, 1 to sessions
    std::uint32_t idle_minutes = described_idle_default;  // after which a session ends that nobody uses, 0: never
    bool operator==(const described_management &) const = default;
};

struct described_capture {
    std::vector<std::string> folders;  // captures may be written there too: whole paths, without a slash at the end
    bool operator==(const described_capture &) const = default;
};

struct switch_description {
    std::vector<described_port> ports;
    std::vector<described_interface> interfaces;
    described_channel channel{};
    described_limit limit{};
    described_guard guard{};
    described_settings settings{};
    described_management management{};
    described_capture capture{};
    bool operator==(const switch_description &) const = default;
};

// Whether the description wants filters put on ports.
bool describes_trap(const switch_description &description);

// Whether anything is held to a limit of what it may send.
bool describes_limits(const switch_description &description);

// Reads a description. path: the file; optional: a file that does not exist is an empty description. The
// fault, if any: one line "FILE:LINE:COLUMN: reason"; *out is then unchanged. (A file that cannot be read at all has no
// line and column: "FILE: reason".)
fault switch_description_read(const std::string &path, bool optional, switch_description *out);

// The same from the text of a file, with all its faults, each a line as above; none: *out is filled. path: for them.
std::vector<std::string> switch_description_parse(std::string_view text, const std::string &path,
                                                  switch_description *out);

// Reads a description and returns all its faults in order of their place, each a line as above; none: *out is filled.
std::vector<std::string> switch_description_check(const std::string &path, bool optional, switch_description *out);

// Text with a [[port]] table for each port, to be appended to a description.
std::string switch_description_ports(const std::vector<described_port> &ports);

}  // namespace ravo::platform

#endif

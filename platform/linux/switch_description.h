// The switch description: which device is which port, and which device carries which VLAN.
#ifndef PLATFORM_LINUX_SWITCH_DESCRIPTION_H
#define PLATFORM_LINUX_SWITCH_DESCRIPTION_H

#include <cstdint>
#include <string>
#include <vector>

namespace ravo::platform {

struct described_port {
    std::string device;    // name of the kernel's device
    std::uint32_t module;  // 1 or more
    std::uint32_t port;    // 0 to 63: number within the module; 1 to 63 in the first
};

struct described_interface {
    std::uint32_t vlan;  // 1 to 4094
    std::string device;  // name of the kernel's device
};

struct switch_description {
    std::vector<described_port> ports;
    std::vector<described_interface> interfaces;
};

// Reads a description. path: the file; optional: a file that does not exist is an empty description. Returns true;
// false with one line "FILE:LINE:COLUMN: reason" in *error and *out unchanged.
bool switch_description_read(const std::string &path, bool optional, switch_description *out, std::string *error);

}  // namespace ravo::platform

#endif

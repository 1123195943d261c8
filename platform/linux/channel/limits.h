// SPDX-License-Identifier: Apache-2.0
// How many messages a second a port may send, as the switch description has it.
#ifndef PLATFORM_LINUX_CHANNEL_LIMITS_H
#define PLATFORM_LINUX_CHANNEL_LIMITS_H

#include <map>
#include <optional>
#include <string>

#include "gate/gate.h"
#include "inventory/switch_description.h"

namespace ravo::platform {

class port_limits {
  public:
    void describe(const switch_description &description);
    // The rate of a device; uplink: it is no port.
    port_rate of(const std::string &device, bool uplink) const;

  private:
    struct own_limit {
        std::optional<std::uint32_t> messages;
        std::optional<std::uint32_t> burst;
        bool servers = false;
    };

    described_limit usual_;
    std::map<std::string, own_limit> own_;  // of devices whose port says something of its own
};

}  // namespace ravo::platform

#endif

// SPDX-License-Identifier: Apache-2.0
// What the switch description says of a port goes before what it says of all; a port with servers has an uplink's rate.
#include "channel/limits.h"

namespace ravo::platform {

void port_limits::describe(const switch_description &description) {
    usual_ = description.limit;
    own_.clear();
    for (const described_port &port : description.ports) own_[port.device] = {port.limit, port.burst, port.servers};
}

port_rate port_limits::of(const std::string &device, bool uplink) const {
    const auto own = own_.find(device);
    const own_limit says = own == own_.end() ? own_limit{} : own->second;
    return {.messages = says.messages.value_or(uplink || says.servers ? usual_.uplink : usual_.port),
            .burst = says.burst.value_or(usual_.burst)};
}

}  // namespace ravo::platform

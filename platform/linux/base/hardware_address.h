// SPDX-License-Identifier: Apache-2.0
// Hardware addresses of Ethernet as text.
#ifndef PLATFORM_LINUX_BASE_HARDWARE_ADDRESS_H
#define PLATFORM_LINUX_BASE_HARDWARE_ADDRESS_H

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace ravo::platform {

using hardware_address = std::array<std::uint8_t, 6>;

// "02:00:00:00:00:01".
[[nodiscard]] std::string mac_text(const hardware_address &mac);

// Reads aa:bb:cc:dd:ee:ff, aa-bb-cc-dd-ee-ff and aabb.ccdd.eeff, in upper or lower case.
[[nodiscard]] std::optional<hardware_address> read_mac(std::string_view text);

}  // namespace ravo::platform

#endif

// SPDX-License-Identifier: Apache-2.0
// Lines of one interface's section, in the order in which the relay and then the platform write them.
#include "settings/settings_text.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <string_view>

#include "base/text.h"
#include "cli/words.h"

namespace ravo::cli {

namespace {

std::string option60_line(const relay_option60_host &host) {
    const std::string_view vendor(host.vendor, strnlen(host.vendor, sizeof host.vendor));
    return " ip dhcp relay option60 string " + quote_word(vendor) +
           (host.match_rule == 0 ? " exact-match" : " partial-match") + " address " + platform::ipv4_text(host.server) +
           "\n";
}

std::string option61_line(const relay_option61_host &host) {
    constexpr std::string_view digits = "0123456789ABCDEF";
    std::string hex = "0x";
    const std::size_t length = std::min<std::size_t>(host.client_id_length, sizeof host.client_id);
    for (std::size_t i = 0; i < length; ++i) {
        hex += digits[host.client_id[i] >> 4];
        hex += digits[host.client_id[i] & 15];
    }
    return " ip dhcp relay option61 hex " + hex + " address " + platform::ipv4_text(host.server) + "\n";
}

}  // namespace

std::string plain_lines(const relay_interface &iface) {
    std::string out;
    if (iface.trusted == 1) out += " ip dhcp relay information trusted\n";
    for (const std::uint32_t server : iface.servers)
        if (server != 0) out += " ip dhcp relay address " + platform::ipv4_text(server) + "\n";
    return out;
}

// deliberate: a table's empty entries are not written. Its hosts are all asked, each once, whichever entry they are
// in, so after a restart they may be closer together; lines that only fill entries and empty them again would say
// nothing to who reads the configuration.
std::string extra_lines(const relay_interface &iface, bool trust_all) {
    std::string out;
    if (trust_all && iface.trusted != 1) out += " no ip dhcp relay information trusted\n";
    if (iface.local_relay == 1) out += " ip dhcp local-relay\n";
    for (const relay_option60_host &host : iface.option60)
        if (host.used == 1) out += option60_line(host);
    for (const relay_option61_host &host : iface.option61)
        if (host.used == 1) out += option61_line(host);
    return out;
}

int count_settings(const relay_interface &iface) {
    const auto used = [](const auto &host) { return host.used == 1; };
    const auto servers = std::count_if(std::begin(iface.servers), std::end(iface.servers),
                                       [](std::uint32_t server) { return server != 0; });
    return (iface.trusted == 1 ? 1 : 0) + (iface.local_relay == 1 ? 1 : 0) +
           static_cast<int>(servers + std::count_if(std::begin(iface.option60), std::end(iface.option60), used) +
                            std::count_if(std::begin(iface.option61), std::end(iface.option61), used));
}

bool has_settings(const relay_interface &iface) {
    return count_settings(iface) != 0;
}

bool has_servers(const relay_interface &iface) {
    return count_settings(iface) > (iface.trusted == 1 ? 1 : 0) + (iface.local_relay == 1 ? 1 : 0);
}

}  // namespace ravo::cli

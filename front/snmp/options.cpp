// SPDX-License-Identifier: Apache-2.0
// The table of options, and the only value that needs reading: an object identifier.
#include "options.h"

#include <charconv>
#include <cstdint>

#include "option_words.h"

namespace ravo::snmp {

namespace {

constexpr const char *own_base = "1.3.6.1.4.1.8072.9999.9999.67";  // of the module: below net-snmp's playground
constexpr std::size_t longest_base = 64;

}  // namespace

bool read_oid(std::string_view text, oid_text *out) {
    out->clear();
    if (text.starts_with('.')) text.remove_prefix(1);
    while (out->size() < longest_base) {
        std::uint32_t number = 0;
        const auto [end, fault] = std::from_chars(text.data(), text.data() + text.size(), number);
        if (fault != std::errc{}) return false;
        out->push_back(number);
        text.remove_prefix(static_cast<std::size_t>(end - text.data()));
        if (text.empty()) return out->size() >= 2 && (*out)[0] <= 2 && (*out)[1] < 40;
        if (text.front() != '.') return false;
        text.remove_prefix(1);
    }
    return false;
}

fault parse_options(const std::vector<std::string> &words, snmp_options *out) {
    out->base_oid = own_base;
    const fault wrong =
        client::read_options(words, {{"--management", &out->management, nullptr, "the path of a socket"},
                                     {"--agentx", &out->agentx, nullptr, "the master agent's address"},
                                     {"--base-oid", &out->base_oid, nullptr, "an object identifier"},
                                     {"--help", nullptr, &out->help, ""},
                                     {"-h", nullptr, &out->help, ""},
                                     {"--version", nullptr, &out->version, ""}});
    if (wrong || out->help || out->version) return wrong;
    if (read_oid(out->base_oid, &out->base)) return {};
    return {"--base-oid " + out->base_oid + " is no object identifier, such as " + own_base};
}

const char *help_text() {
    return "Usage: ravo-snmp [OPTION]...\n"
           "Answers SNMP for ravod, the DHCPv4 relay agent, as a sub-agent of snmpd (AgentX).\n"
           "\n"
           "  --management SOCKET  the daemon's management socket (/run/ravo/ravod.sock)\n"
           "  --agentx ADDRESS     the master agent: a socket's path, or tcp:localhost:705 (/var/agentx/master)\n"
           "  --base-oid OID       where the objects are (1.3.6.1.4.1.8072.9999.9999.67)\n"
           "  --version            print the version\n"
           "  -h, --help           print this\n"
           "\n"
           "Exit status: 0 when ended in order, 1 when something failed, 2 when the usage was wrong.\n";
}

}  // namespace ravo::snmp

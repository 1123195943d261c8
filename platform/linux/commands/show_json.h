// The relay's show commands as JSON ("| json"), built from its data.
//
// Members keep their names and meanings; more may be added. Addresses are dotted text, empty server slots are left out.
//
//   show ip dhcp relay                 relay, hops, information_option, policy ("replace", "drop", "keep"), check,
//                                      trust_all, local_relay, local_relay_vlans [], interfaces [{name, ifindex,
//                                      servers []}] (those with servers), trusted_sources [names]
//   show ip dhcp relay detail          the settings as above; sockets {server, raw, listen} (-1: not open); received
//                                      {discover, offer, request, ack, decline, nak, inform, release}; interfaces
//                                      [{name, ifindex, address, mac, trusted, local_relay, servers []}] (all)
//   show ip dhcp relay information trusted-sources
//                                      trusted_sources [names], total
//   show ip dhcp relay option [60|61]  interfaces [{name, option60 [{vendor, match, server}], option61 [{client_id,
//                                      server}]}] (those with such servers; client_id in hexadecimal digits)
//   show ip dhcp relay xid-port-mapping
//                                      transactions [{xid, module, port}] (xid in hexadecimal digits), total
#ifndef PLATFORM_LINUX_COMMANDS_SHOW_JSON_H
#define PLATFORM_LINUX_COMMANDS_SHOW_JSON_H

#include <string>
#include <string_view>
#include <vector>

#include "relay_access.h"

namespace ravo::cli {

// Writes the document of one command. arguments: as its handler would get them. One that begins with "%" is no document
// but the line that tells what is wrong with an argument.
using json_builder = std::string (*)(const relay_access &relay, const std::vector<std::string> &arguments);

// The builder for the command with this text, or null.
json_builder find_json_builder(std::string_view command_text);

}  // namespace ravo::cli

#endif

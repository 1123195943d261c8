// SPDX-License-Identifier: Apache-2.0
// Configurations by their meaning: as commands, as a difference, and as the way from one to the other.
#include "configuration/configuration_model.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "configuration/replace.h"

namespace {

using namespace ravo::cli;
using testing::ElementsAre;
using testing::IsEmpty;

relay_interface with_servers(std::vector<const char *> servers) {
    relay_interface out{};
    for (std::size_t i = 0; i < servers.size(); ++i) out.servers[i] = inet_addr(servers[i]);
    return out;
}

void add_class(relay_interface *to, std::size_t place, const char *vendor, const char *server) {
    relay_option60_host &host = to->option60[place];
    host.used = 1;
    std::strncpy(host.vendor, vendor, sizeof host.vendor - 1);
    host.server = inet_addr(server);
}

std::vector<std::string> told(const configuration &first, const configuration &second) {
    std::vector<std::string> out;
    for (const difference_line &line : difference(first, second)) out.push_back(line.sign + line.text);
    return out;
}

TEST(ConfigurationModel, DefaultsAreNoCommands) {
    EXPECT_THAT(global_commands({}), IsEmpty());
    EXPECT_THAT(told({}, {}), IsEmpty());
    EXPECT_THAT(commands_between({}, {}), IsEmpty());
    EXPECT_EQ(text_of({}), "");
}

TEST(ConfigurationModel, EachGlobalSettingIsACommand) {
    configuration all;
    all.relay = all.option82 = all.trust_all = all.local_relay = true;
    all.check = false;
    all.policy = 3;
    all.hops = 16;
    all.local_relay_vlans = {1, 7};
    EXPECT_THAT(
        global_commands(all),
        ElementsAre("ip dhcp relay", "ip dhcp relay information option", "no ip dhcp relay information check",
                    "ip dhcp relay information policy keep", "ip dhcp relay hops 16",
                    "ip dhcp relay information trust-all", "ip dhcp local-relay vlan 1,7", "ip dhcp local-relay"));
    EXPECT_EQ(count_changes(difference({}, all)), 8U);
}

TEST(ConfigurationModel, ADifferenceKeepsWhatIsInBoth) {
    configuration first, second;
    first.interfaces[10] = with_servers({"192.0.2.1", "192.0.2.2", "192.0.2.3"});
    second.interfaces[10] = with_servers({"192.0.2.2", "192.0.2.4", "192.0.2.3"});
    second.interfaces[20] = with_servers({"192.0.2.9"});
    EXPECT_THAT(told(first, second), ElementsAre(" interface vlan10", "- ip dhcp relay address 192.0.2.1",
                                                 "+ ip dhcp relay address 192.0.2.4", " interface vlan20",
                                                 "+ ip dhcp relay address 192.0.2.9"));
    EXPECT_EQ(count_changes(difference(first, second)), 3U);
}

TEST(ConfigurationModel, TheWayKeepsTheOrderOfServers) {
    configuration now, wanted;
    now.interfaces[10] = with_servers({"192.0.2.1", "192.0.2.2"});
    wanted.interfaces[10] = with_servers({"192.0.2.1", "192.0.2.3", "192.0.2.2"});
    EXPECT_THAT(commands_between(now, wanted),
                ElementsAre("interface vlan10", "no ip dhcp relay address 192.0.2.2", "ip dhcp relay address 192.0.2.3",
                            "ip dhcp relay address 192.0.2.2", "exit"));
}

TEST(ConfigurationModel, ATableWithAGapIsMadeAnew) {
    configuration now, wanted;
    add_class(&now.interfaces[10], 0, "a", "192.0.2.1");
    add_class(&now.interfaces[10], 2, "c", "192.0.2.3");
    wanted = now;
    add_class(&wanted.interfaces[10], 3, "d", "192.0.2.4");
    EXPECT_THAT(commands_between(now, wanted), testing::SizeIs(2 + 2 + 3));
}

TEST(ConfigurationModel, WhetherTheRelayIsOnComesLast) {
    configuration wanted;
    wanted.relay = true;
    wanted.hops = 5;
    wanted.interfaces[10] = with_servers({"192.0.2.1"});
    EXPECT_THAT(commands_between({}, wanted), ElementsAre("ip dhcp relay hops 5", "interface vlan10",
                                                          "ip dhcp relay address 192.0.2.1", "exit", "ip dhcp relay"));
    EXPECT_THAT(commands_between(wanted, {}),
                ElementsAre("ip dhcp relay hops 4", "interface vlan10", "no ip dhcp relay address 192.0.2.1", "exit",
                            "no ip dhcp relay"));
    EXPECT_EQ(text_of(wanted),
              "ip dhcp relay\nip dhcp relay hops 5\ninterface vlan10\n ip dhcp relay address 192.0.2.1\nexit\n");
}

}  // namespace

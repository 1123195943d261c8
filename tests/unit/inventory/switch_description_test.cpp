// SPDX-License-Identifier: Apache-2.0
// The switch description: what is read.
#include "inventory/switch_description.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "switch_description_box.h"

namespace {

using ravo::platform::described_guard;
using ravo::platform::described_limit;
using ravo::platform::described_management;
using ravo::platform::described_port;
using ravo::platform::switch_description;
using ravo::platform::switch_description_check;
using ravo::platform::switch_description_read;
using switch_box::SwitchDescription;
using testing::ElementsAre;
using testing::IsEmpty;

TEST_F(SwitchDescription, IsReadInTheOrderOfTheFile) {
    const switch_description d = good(R"(
[[port]]
device = "swp9"
module = 2
port   = 0

[[interface]]
vlan   = 30
device = "eth1"

[[port]]
device = "swp1"
module = 1
port   = 63
)");
    EXPECT_EQ(d, (switch_description{{{"swp9", 2, 0}, {"swp1", 1, 63}}, {{30, "eth1"}}}));
}

TEST_F(SwitchDescription, TakesTheEndsOfEachRange) {
    const switch_description d = good(R"(
[[port]]
device = "a23456789012345"
module = 255
port = 63
[[interface]]
vlan = 1
device = "é"
[[interface]]
vlan = 4094
device = "eth0.4094"
)");
    EXPECT_EQ(d, (switch_description{{{"a23456789012345", 255, 63}}, {{1, "é"}, {4094, "eth0.4094"}}}));
}

TEST_F(SwitchDescription, DeviceMayBePortAndInterface) {
    const switch_description d = good(R"(
port = [{device = "eth1", module = 1, port = 1}]
interface = [{vlan = 30, device = "eth1"}]
)");
    EXPECT_EQ(d, (switch_description{{{"eth1", 1, 1}}, {{30, "eth1"}}}));
}

TEST_F(SwitchDescription, EmptyFileDescribesNothing) {
    EXPECT_EQ(good(""), switch_description{});
    EXPECT_EQ(good("# nothing yet\nport = []\n"), switch_description{});
}

TEST_F(SwitchDescription, ChannelAndTraps) {
    const switch_description d = good(R"(
[channel]
trap = true
recorder = 1000000
[[port]]
device = "swp1"
module = 1
port = 1
trap = false
[[port]]
device = "swp2"
module = 1
port = 2
trap = true
[[port]]
device = "swp3"
module = 1
port = 3
)");
    EXPECT_EQ(d, (switch_description{{{"swp1", 1, 1, false}, {"swp2", 1, 2, true}, {"swp3", 1, 3, std::nullopt}},
                                     {},
                                     {.trap = true, .recorder = 1000000}}));
    EXPECT_EQ(good("[channel]\nrecorder = 1\n").channel.recorder, 1u);
    EXPECT_EQ(good("[channel]\n"), switch_description{});
    EXPECT_EQ(switch_description{}.channel.recorder, 4096u);
    EXPECT_FALSE(switch_description{}.channel.trap);
}

TEST_F(SwitchDescription, SettingsThatAreKeptOrNot) {
    EXPECT_TRUE(good("").settings.keep);
    EXPECT_TRUE(good("[settings]\n").settings.keep);
    EXPECT_TRUE(good("[settings]\nkeep = true\n").settings.keep);
    EXPECT_FALSE(good("[settings]\nkeep = false\n").settings.keep);
    EXPECT_THAT(faults("[settings]\nkeep = 1\n"), ElementsAre("2:8: \"keep\" must be true or false, not a number"));
    EXPECT_THAT(faults("[settings]\nkep = false\n"),
                ElementsAre("2:1: unknown key \"kep\" in [settings]; it has keep"));
    EXPECT_THAT(faults("[[settings]]\n"),
                ElementsAre("1:1: expected [settings], not [[settings]]; there is one such table"));
}

TEST_F(SwitchDescription, TellsWhetherItAsksForLimitsOrTheTrap) {
    EXPECT_TRUE(describes_limits(good("")));
    EXPECT_FALSE(describes_limits(good("[limit]\nport = 0\nuplink = 0\n")));
    EXPECT_TRUE(describes_limits(good("[limit]\nport = 0\nuplink = 1\n")));
    const std::string port = "[[port]]\ndevice = \"swp1\"\nmodule = 1\nport = 1\n";
    EXPECT_FALSE(describes_limits(good(port + "limit = 0\n[limit]\nport = 0\nuplink = 0\n")));
    EXPECT_TRUE(describes_limits(good(port + "limit = 7\n[limit]\nport = 0\nuplink = 0\n")));
    EXPECT_FALSE(describes_trap(good(port)));
    EXPECT_TRUE(describes_trap(good(port + "trap = true\n")));
    EXPECT_TRUE(describes_trap(good("[channel]\ntrap = true\n")));
}

TEST_F(SwitchDescription, FoldersForCaptures) {
    using folders = std::vector<std::string>;
    EXPECT_EQ(good("").capture.folders, folders{});
    EXPECT_EQ(good("[capture]\n").capture.folders, folders{});
    EXPECT_EQ(good("[capture]\nfolders = []\n").capture.folders, folders{});
    EXPECT_EQ(good("[capture]\nfolders = [\"/srv/a\", '/b//']\n").capture.folders, (folders{"/srv/a", "/b"}));
    EXPECT_THAT(faults("[capture]\nfolders = \"/srv\"\n"),
                ElementsAre("2:11: \"folders\" must be a list of folders, not a text"));
    const std::string must =
        "a folder for captures must be a whole path in quotes, below \"/\" and without \"..\", not ";
    EXPECT_THAT(faults("[capture]\nfolders = [\"srv\", 1, \"/\"]\n"),
                ElementsAre("2:12: " + must + "\"srv\"", "2:19: " + must + "a number", "2:22: " + must + "\"/\""));
    EXPECT_THAT(
        faults("[capture]\nfolders = [\"/srv/../etc\", \"/srv/..\", \"/.\", \"/srv/..a\"]\n"),
        ElementsAre("2:12: " + must + "\"/srv/../etc\"", "2:27: " + must + "\"/srv/..\"", "2:38: " + must + "\"/.\""));
    EXPECT_THAT(faults("[capture]\nfolder = []\n"),
                ElementsAre("2:1: unknown key \"folder\" in [capture]; it has folders"));
}

TEST_F(SwitchDescription, PortsAreWrittenAsTheyAreRead) {
    const std::vector<ravo::platform::described_port> ports = {
        {"swp1", 1, 1, {}}, {"q\"uo\\te", 255, 63, {}}, {"\xc3\xa9th0", 2, 0, {}}};
    const std::string text = ravo::platform::switch_description_ports(ports);
    EXPECT_EQ(text.substr(0, text.find("\n\n", 1)), "\n[[port]]\ndevice = \"swp1\"\nmodule = 1\nport   = 1");
    EXPECT_EQ(good("[channel]\ntrap = true\n" + text).ports, ports);
}

TEST_F(SwitchDescription, Limits) {
    EXPECT_EQ(switch_description{}.limit, (described_limit{.port = 5000, .burst = 10000, .uplink = 50000}));
    EXPECT_EQ(good("[limit]\n").limit, described_limit{});
    EXPECT_EQ(good("[limit]\nport = 0\nburst = 1\nuplink = 1000000\n").limit,
              (described_limit{.port = 0, .burst = 1, .uplink = 1000000}));
    const described_port own =
        good("[[port]]\ndevice = \"swp1\"\nmodule = 1\nport = 1\nlimit = 0\nburst = 7\n").ports[0];
    EXPECT_EQ(own, (described_port{.device = "swp1", .module = 1, .port = 1, .limit = 0, .burst = 7}));
    EXPECT_THAT(faults("[limit]\nport = 1000001\nburst = 0\nuplink = -1\nports = 1\n"),
                ElementsAre("2:8: port 1000001 is out of range; it must be 0 to 1000000",
                            "3:9: burst 0 is out of range; it must be 1 to 1000000",
                            "4:10: uplink -1 is out of range; it must be 0 to 1000000",
                            "5:1: unknown key \"ports\" in [limit]; it has port, burst and uplink"));
    EXPECT_THAT(faults("[[port]]\ndevice = \"swp1\"\nmodule = 1\nport = 1\nlimit = true\nburst = 0\n"),
                ElementsAre("5:9: \"limit\" must be a number from 0 to 1000000, not true or false",
                            "6:9: burst 0 is out of range; it must be 1 to 1000000"));
}

TEST_F(SwitchDescription, SessionsOfTheManagementSocket) {
    EXPECT_EQ(switch_description{}.management,
              (described_management{.sessions = 64, .per_user = 16, .idle_minutes = 30}));
    EXPECT_EQ(good("[management]\nsessions = 16\nper_user = 2\nidle_minutes = 0\n").management,
              (described_management{.sessions = 16, .per_user = 2, .idle_minutes = 0}));
    EXPECT_THAT(faults("[management]\nsessions = 15\nper_user = 0\nidle_minutes = 10081\nusers = 1\n"),
                ElementsAre("2:12: sessions 15 is out of range; it must be 16 to 1024",
                            "3:12: per_user 0 is out of range; it must be 1 to 64",
                            "4:16: idle_minutes 10081 is out of range; it must be 0 to 10080",
                            "5:1: unknown key \"users\" in [management]; it has sessions, per_user and idle_minutes"));
}

TEST_F(SwitchDescription, GuardsAreOffUntilTheyAreAskedFor) {
    EXPECT_EQ(switch_description{}.guard, described_guard{});
    EXPECT_EQ(good("[guard]\n").guard, described_guard{});
    described_guard all{.server_ports = true,
                        .servers = true,
                        .circuit_id = true,
                        .relay_fields = true,
                        .source_mac = true,
                        .destination = true,
                        .transactions = true,
                        .clients = 64};
    EXPECT_EQ(good("[guard]\nall = true\n").guard, all);
    all.circuit_id = false;
    all.clients = 7;
    all.core_assertions = true;
    EXPECT_EQ(good("[guard]\nall = true\ncircuit_id = false\nclients = 7\ncore_assertions = true\n").guard, all);
    EXPECT_EQ(good("[guard]\nservers = true\ntransactions = true\n").guard,
              (described_guard{.servers = true, .transactions = true}));
    const described_port own =
        good("[[port]]\ndevice = \"swp1\"\nmodule = 1\nport = 1\nservers = true\ntrusted = true\nclients = 0\n")
            .ports[0];
    EXPECT_EQ(own, (described_port{
                       .device = "swp1", .module = 1, .port = 1, .servers = true, .trusted = true, .clients = 0}));
    EXPECT_THAT(faults("[guard]\nall = 1\nclients = 4097\nports = true\n"),
                ElementsAre("2:7: \"all\" must be true or false, not a number",
                            "3:11: clients 4097 is out of range; it must be 0 to 4096",
                            "4:1: unknown key \"ports\" in [guard]; it has all, server_ports, servers, circuit_id, "
                            "relay_fields, source_mac, destination, clients, transactions and core_assertions"));
}

TEST_F(SwitchDescription, FaultsOfTheChannel) {
    EXPECT_THAT(faults("[channel]\nrecorder = 0\n"),
                ElementsAre("2:12: recorder 0 is out of range; it must be 1 to 1000000"));
    EXPECT_THAT(faults("[channel]\nrecorder = 1000001\n"),
                ElementsAre("2:12: recorder 1000001 is out of range; it must be 1 to 1000000"));
    EXPECT_THAT(faults("[channel]\nrecorder = \"many\"\n"),
                ElementsAre("2:12: \"recorder\" must be a number from 1 to 1000000, not a text"));
    EXPECT_THAT(faults("[channel]\ntrap = 1\n"), ElementsAre("2:8: \"trap\" must be true or false, not a number"));
    EXPECT_THAT(faults("[channel]\ntarp = true\n"),
                ElementsAre("2:1: unknown key \"tarp\" in [channel]; it has trap and recorder"));
    EXPECT_THAT(faults("[[channel]]\n"),
                ElementsAre("1:1: expected [channel], not [[channel]]; there is one such table"));
    EXPECT_THAT(faults("channel = true\n"),
                ElementsAre("1:11: expected [channel], not true or false; there is one such table"));
    EXPECT_THAT(faults("[[port]]\ndevice = \"a\"\nmodule = 1\nport = 1\ntrap = \"yes\"\n"),
                ElementsAre("5:8: \"trap\" must be true or false, not a text"));
}
}  // namespace

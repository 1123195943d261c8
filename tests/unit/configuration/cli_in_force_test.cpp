// SPDX-License-Identifier: Apache-2.0
// Configurations replayed over settings that are made already: the relay refuses to make them twice, and that is no
// fault.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "cli_box.h"
#include "relay_access.h"

namespace {

using testing::ElementsAre;

relay_settings settings;
std::vector<relay_interface> interfaces;

void get_settings(relay_settings *out) {
    *out = settings;
}

int get_interface(const char *name, relay_interface *out) {
    for (const relay_interface &each : interfaces) {
        if (std::strcmp(each.name, name) != 0) continue;
        *out = each;
        return 1;
    }
    return 0;
}

int make_interface(const char * /*name*/) {
    return 1;
}

constexpr relay_access fake_relay = {.settings = get_settings,
                                     .interface_get = get_interface,
                                     .interface_first = nullptr,
                                     .interface_next = nullptr,
                                     .interface_make = make_interface,
                                     .transaction_first = nullptr,
                                     .transaction_next = nullptr,
                                     .local_relay_set = nullptr,
                                     .local_relay_vlans = nullptr,
                                     .interface_local_relay_set = nullptr,
                                     .transaction_add = nullptr,
                                     .interface_at = nullptr};

relay_interface record(const char *name) {
    relay_interface out{};
    std::snprintf(out.name, sizeof out.name, "%s", name);
    return out;
}

// A relay with settings, and commands that refuse everything.
class InForce : public testing::Test {
  protected:
    void SetUp() override {
        char name[] = "/tmp/ravo-in-force-XXXXXX";
        ASSERT_NE(mkdtemp(name), nullptr);
        folder_ = name;
        relay_access_register(&fake_relay);
        settings = {};
        settings.option_state = 1;
        settings.policy = 2;
        settings.hops = 8;
        interfaces = {record("vlan10"), record("vlan20")};
        for (relay_interface &each : interfaces) each.servers[2] = inet_addr("10.0.0.1");
        interfaces[0].option60[3] = {.used = 1, .match_rule = 1, .vendor = "a b", .server = inet_addr("10.0.0.2")};
        interfaces[0].option61[0] = {
            .used = 1, .client_id = {0x0A, 2, 3, 4, 5}, .client_id_length = 5, .server = inet_addr("10.0.0.3")};
        cli_box::handler_returns = 1;
        cli_box::handler_prints = "% Refused\n";
    }
    void TearDown() override { std::filesystem::remove_all(folder_); }

    // What is reported of a file with this text, without the file's path.
    std::vector<std::string> replay(const std::string &text, bool check_only = false) const {
        const std::string path = folder_ + "/startup-config";
        std::ofstream(path) << text;
        std::vector<std::string> out;
        const auto report = [&](const std::string &line) { out.push_back(line.substr(path.size() + 1)); };
        const int failed = ravo::cli::replay_file(path, /*optional=*/false, check_only, report);
        EXPECT_EQ(failed, static_cast<int>(out.size()));
        return out;
    }

    std::string folder_;
    cli_box::shell shell_;
};

TEST_F(InForce, IsNoFaultOfALine) {
    const std::string held =
        "ip dhcp relay information option\nno ip dhcp relay information check\n"
        "ip dhcp relay information policy DROP\nip dhcp relay hops 08\ninterface vlan10\n"
        " ip dhcp relay address 10.0.0.1\n ip dhcp relay option60 string \"a b\" partial-match address 10.0.0.2\n"
        " ip dhcp relay option61 hex 0xA02030405 address 10.0.0.3\n"
        " ip dhcp relay option61 hex 0x0a02030405 address 10.0.0.3\n"
        "interface range vlan 10,20\n ip dhcp relay address 10.0.0.1\n";
    EXPECT_THAT(replay(held), ElementsAre());
    EXPECT_THAT(replay(held, /*check_only=*/true), ElementsAre());
    settings.option_state = 0;
    settings.check = 1;
    settings.policy = 1;
    EXPECT_THAT(replay("no ip dhcp relay information option\nip dhcp relay information check\n"
                       "ip dhcp relay information policy replace\n"),
                ElementsAre());
    settings.policy = 3;
    EXPECT_THAT(replay("ip dhcp relay information policy keep\n"), ElementsAre());
}

TEST_F(InForce, IsNoExcuseForALineThatIsTyped) {
    EXPECT_EQ(shell_.run("configure terminal"), 0);
    EXPECT_EQ(shell_.run("ip dhcp relay hops 8"), 1);
    EXPECT_EQ(shell_.text, "% Refused\n");
}

TEST_F(InForce, IsNotWhatIsOnlyAlike) {
    for (const std::string line :
         {"no ip dhcp relay information option", "ip dhcp relay information check",
          "ip dhcp relay information policy keep", "ip dhcp relay hops 9", "ip dhcp relay",
          "ip dhcp relay information trust-all", "ip dhcp relay address 10.0.0.2", "ip dhcp relay address 0.0.0.0",
          "no ip dhcp relay address 10.0.0.1", "ip dhcp relay information trusted",
          "ip dhcp relay option60 string \"a b\" exact-match address 10.0.0.2",
          "ip dhcp relay option60 string a partial-match address 10.0.0.2",
          "ip dhcp relay option60 string \"a b\" partial-match address 10.0.0.1",
          "ip dhcp relay option61 hex 0x0A02030406 address 10.0.0.3",
          "ip dhcp relay option61 hex 0x0A02030405 address 10.0.0.2",
          "ip dhcp relay option61 hex 0x0A0203040500 address 10.0.0.3",
          "ip dhcp relay option61 hex 0A02030405 address 10.0.0.3"})
        EXPECT_THAT(replay("interface vlan10\n" + line + "\n"), ElementsAre("2: Refused: " + line));
    EXPECT_THAT(replay("interface range vlan 10,30\nip dhcp relay address 10.0.0.1\n"),
                ElementsAre("2: Refused; Refused: ip dhcp relay address 10.0.0.1"));
}

}  // namespace

// SPDX-License-Identifier: Apache-2.0
// Advice: each kind of trouble is told, with what to do, and where there is none nothing is said.
#include "commands/advice.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <vector>

#include "log/log.h"

namespace {

using namespace ravo::cli;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr std::int64_t second = 1000000;
const std::uint32_t good = inet_addr("192.0.2.11");

relay_interface vlan10(std::vector<std::uint32_t> servers) {
    relay_interface out{};
    std::snprintf(out.name, sizeof out.name, "vlan10");
    out.address = inet_addr("10.10.0.1");
    for (std::size_t i = 0; i < servers.size(); ++i) out.servers[i] = servers[i];
    return out;
}

// A relay that is well: on, with a server, option 82 and the check.
advice_facts healthy() {
    advice_facts out;
    out.settings.relay_enable = 1;
    out.settings.option_state = 1;
    out.settings.check = 1;
    out.interfaces.push_back(vlan10({good}));
    out.own_addresses = {inet_addr("10.10.0.1")};
    out.now_us = 1000 * second;
    return out;
}

// What programs are told that there is.
const std::string &schema() {
    static const std::string text = [] {
        std::ifstream file(RAVO_SOURCE_FOLDER "/docs/schema/advice.schema.json");
        return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
    }();
    return text;
}

std::vector<std::string> kinds(const advice_facts &facts) {
    std::vector<std::string> out;
    for (const advice &each : advice_on(facts)) {
        EXPECT_FALSE(each.what.empty());
        EXPECT_FALSE(each.remedy.empty());
        EXPECT_THAT(schema(), HasSubstr('"' + each.kind + '"'));
        out.push_back(each.kind);
    }
    return out;
}

TEST(Advice, WhereAllIsWellThereIsNone) {
    EXPECT_THAT(kinds(healthy()), IsEmpty());
}

TEST(Advice, EachKindOfTroubleIsTold) {
    const struct {
        const char *kind;
        std::function<void(advice_facts &)> trouble;
    } rows[] = {
        {"no-address", [](advice_facts &f) { f.interfaces[0].address = 0; }},
        {"bad-server", [](advice_facts &f) { f.interfaces[0].servers[0] = inet_addr("127.0.0.1"); }},
        {"bad-server", [](advice_facts &f) { f.interfaces[0].servers[0] = inet_addr("224.0.0.1"); }},
        {"bad-server", [](advice_facts &f) { f.interfaces[0].servers[0] = inet_addr("255.255.255.255"); }},
        {"bad-server", [](advice_facts &f) { f.interfaces[0].servers[0] = inet_addr("10.10.0.1"); }},
        {"no-route", [](advice_facts &f) { f.unreachable = {good}; }},
        {"relay-off", [](advice_facts &f) { f.settings.relay_enable = 0; }},
        {"no-server", [](advice_facts &f) { f.serverless = {20}; }},
        {"guessed-ports", [](advice_facts &f) { f.guessed_ports = {"tap1"}; }},
        {"several-servers", [](advice_facts &f) { f.interfaces[0].servers[1] = inet_addr("192.0.2.12"); }},
        {"no-trap", [](advice_facts &f) { f.settings.local_relay_enable = 1; }},
        {"port-67-taken", [](advice_facts &f) { f.other_server = true; }},
        {"unknown-vlan", [](advice_facts &f) { f.unknown_tags = 1; }},
        {"messages-lost", [](advice_facts &f) { f.lost = 1; }},
        {"settings-wait", [](advice_facts &f) { f.waiting = {"vlan20"}; }},
        {"not-saved", [](advice_facts &f) { f.saved = false; }},
        {"not-remembered", [](advice_facts &f) { f.remembers = false; }},
    };
    for (const auto &row : rows) {
        advice_facts facts = healthy();
        row.trouble(facts);
        EXPECT_THAT(kinds(facts), ElementsAre(row.kind));
    }
}

TEST(Advice, ServersOfClassesAndClientsCountToo) {
    advice_facts facts = healthy();
    facts.interfaces[0].option60[2] = {.used = 1, .match_rule = 0, .vendor = "a", .server = inet_addr("127.0.0.2")};
    facts.interfaces[0].option61[3].used = 1;
    facts.interfaces[0].option61[3].server = inet_addr("127.0.0.3");
    facts.interfaces[0].option61[0].server = inet_addr("127.0.0.4");  // not in use
    EXPECT_THAT(kinds(facts), ElementsAre("bad-server", "bad-server"));
}

TEST(Advice, AServerIsSilentAfterTwentyRequestsInVain) {
    advice_facts facts = healthy();
    facts.servers.emplace_back();
    facts.servers[0].vlan = 10;
    facts.servers[0].server = good;
    facts.servers[0].unanswered_us = 900 * second;
    facts.servers[0].unanswered = 19;
    EXPECT_THAT(kinds(facts), IsEmpty());
    facts.servers[0].unanswered = 20;
    EXPECT_THAT(kinds(facts), ElementsAre("silent-server"));
    EXPECT_EQ(advice_on(facts)[0].what, "server 192.0.2.11 does not answer requests of vlan10");
    facts.servers[0].unanswered_us = 999 * second;
    EXPECT_THAT(kinds(facts), IsEmpty()) << "asked a moment ago";
}

TEST(Advice, LocalRelayNeedsTheCheckAndTheTrap) {
    advice_facts facts = healthy();
    facts.interfaces[0].local_relay = 1;
    facts.settings.check = 0;
    EXPECT_THAT(kinds(facts), ElementsAre("local-relay-unchecked", "no-trap"));
    EXPECT_THAT(advice_on(facts)[0].what, HasSubstr("ends the daemon"));
    facts.trap = true;
    facts.settings.check = 1;
    EXPECT_THAT(kinds(facts), IsEmpty());
}

TEST(Advice, GuessedPortsMatterToOption82Alone) {
    advice_facts facts = healthy();
    facts.guessed_ports = {"a", "b", "c", "d", "e", "f", "g"};
    EXPECT_THAT(advice_on(facts)[0].what, testing::EndsWith(": a, b, c, d, e and 2 more"));
    facts.settings.option_state = 0;
    EXPECT_THAT(kinds(facts), IsEmpty());
}

TEST(Advice, TheLogHearsOfEachOnceUntilItIsGone) {
    std::vector<std::string> lines;
    const int listener = ravo::platform::log_add_listener(ravo::platform::log_level_warning,
                                                          [&](const auto &event) { lines.emplace_back(event.line); });
    const advice trouble{"port-67-taken", "somebody has it", "end it"};
    const advice counted{"messages-lost", "5 messages", "limit them"};
    const advice known{"not-saved", "it is not saved", "save it"};
    advice_report({trouble, counted, known});
    advice_report({trouble, {"messages-lost", "6 messages", "limit them"}});
    EXPECT_THAT(lines, ElementsAre("advice: somebody has it; end it", "advice: 5 messages; limit them"));
    advice_report({});
    advice_report({trouble});
    EXPECT_THAT(lines, testing::SizeIs(3));
    advice_report({});
    ravo::platform::log_remove_listener(listener);
}

}  // namespace

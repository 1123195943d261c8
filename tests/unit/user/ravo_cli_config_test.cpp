// SPDX-License-Identifier: Apache-2.0
// The configuration commands: global settings, and selecting an interface.
#include <cstdio>
#include <cstdlib>

#include "command_done.h"
#include "nsm.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr const char *same = "% Set the same configuration current configuration\n";

using RavoCliConfig = Relay;
using RavoCliConfigDeathTest = Relay;

// ---- Global settings ----

struct setting_row {
    const char *name;
    cli_handler handler;
    std::vector<std::string> words;
    std::uint32_t ravo_agent::*field;
    std::uint32_t before;
    std::uint32_t after;
};

const std::vector<setting_row> &setting_rows() {
    static const std::vector<setting_row> rows = {
        {"option", ravo_cmd_information_option, {}, &ravo_agent::option_state, 0, 1},
        {"no option", ravo_cmd_no_information_option, {}, &ravo_agent::option_state, 1, 0},
        {"keep", ravo_cmd_policy, {"keep"}, &ravo_agent::policy, 1, 3},
        {"drop", ravo_cmd_policy, {"drop"}, &ravo_agent::policy, 1, 2},
        {"replace", ravo_cmd_policy, {"replace"}, &ravo_agent::policy, 2, 1},
        {"hops 1", ravo_cmd_hops, {"1"}, &ravo_agent::hops, 4, 1},
        {"hops 16", ravo_cmd_hops, {"16"}, &ravo_agent::hops, 4, 16},
        {"check", ravo_cmd_check, {}, &ravo_agent::check, 0, 1},
        {"no check", ravo_cmd_no_check, {}, &ravo_agent::check, 1, 0},
    };
    return rows;
}

TEST_F(RavoCliConfig, ASettingIsStoredSilentlyAndRepeatedWithCodeFifteen) {
    for (const setting_row &row : setting_rows()) {
        ravo_db_agent_reset();
        set_setting(row.field, row.before);
        ravo_agent expected = settings_now();
        expected.*row.field = row.after;
        fake::forget();
        EXPECT_EQ(run(row.handler, row.words), silent) << row.name;
        ravo_agent now = settings_now();
        EXPECT_EQ(std::memcmp(&now, &expected, sizeof now), 0) << row.name;
        EXPECT_THAT(fake::statuses, ElementsAre("28 2 \"\"")) << row.name;

        fake::forget();
        EXPECT_EQ(run(row.handler, row.words), (done{1, same})) << row.name;
        now = settings_now();
        EXPECT_EQ(std::memcmp(&now, &expected, sizeof now), 0) << row.name;
        EXPECT_THAT(fake::statuses, IsEmpty()) << row.name;
    }
}

TEST_F(RavoCliConfig, TheDefaultsAreTheSameConfiguration) {
    EXPECT_EQ(run(ravo_cmd_hops, {"4"}), (done{1, same}));
    EXPECT_EQ(run(ravo_cmd_policy, {"replace"}), (done{1, same}));
    EXPECT_EQ(run(ravo_cmd_check), (done{1, same}));
    EXPECT_EQ(run(ravo_cmd_no_information_option), (done{1, same}));
}

TEST_F(RavoCliConfig, TheSameConfigurationMessageObeysTheGate) {
    fake::session session;
    session.context.view_flags = 2;
    EXPECT_EQ(session.run(ravo_cmd_hops, {"4"}), 1);
    EXPECT_EQ(session.text(), "");
    session.context.show_all = 1;
    EXPECT_EQ(session.run(ravo_cmd_hops, {"4"}), 1);
    EXPECT_EQ(session.text(), same);
}

TEST_F(RavoCliConfig, HopsAreDecimalWhateverTheyBeginWith) {
    EXPECT_EQ(run(ravo_cmd_hops, {"010"}), silent);
    EXPECT_EQ(settings_now().hops, 10u);
    EXPECT_EQ(run(ravo_cmd_hops, {"0x8"}), silent);  // decimal digits end at the x
    EXPECT_EQ(settings_now().hops, 0u);
}

TEST_F(RavoCliConfig, ARangeIsTheParsersBusiness) {
    EXPECT_EQ(run(ravo_cmd_hops, {"17"}), silent);
    EXPECT_EQ(settings_now().hops, 17u);
}

// ---- Relay on and off ----

TEST_F(RavoCliConfig, RelayOnOpensEverySocketOnceAndTellsTheStatus) {
    EXPECT_EQ(run(ravo_cmd_relay), silent);
    EXPECT_EQ(settings_now().relay_enable, 1u);
    EXPECT_THAT(fake::statuses, ElementsAre("28 1 \"\""));
    EXPECT_THAT(fake::socket_calls,
                ElementsAre("socket(24, 3, 0) = 100", "socket(17, 3, 65535) = 101", "socket(2, 2, 17) = 102",
                            "setsockopt(102, 1, 2, 1) = 0", "bind(102, 0.0.0.0:68) = 0"));
    EXPECT_EQ(fake::readers.size(), 1u);
}

TEST_F(RavoCliConfig, RelayOnTwicePrintsNothing) {
    EXPECT_EQ(run(ravo_cmd_relay), silent);
    fake::forget();
    EXPECT_EQ(run(ravo_cmd_relay), silent);
    EXPECT_THAT(fake::socket_calls, IsEmpty());
    EXPECT_THAT(fake::statuses, IsEmpty());
    EXPECT_THAT(fake::printed, IsEmpty());
}

TEST_F(RavoCliConfig, RelayOnCreatesItsSocketsTwiceAndOnlyTheSecondResultCounts) {
    // The second call is that of the raw socket. It fails once, then works.
    fake::script(fake::op::socket, {.nth = 2, .times = 1, .result = -2});
    EXPECT_EQ(run(ravo_cmd_relay), silent);
    EXPECT_THAT(fake::traces(101), ElementsAre("RAVO_IF_Create_fd (#)++\n", "RAVO_IF_Create_fd (#)++\n",
                                               "RAVO_IF_Create_fd (#): Socket create successfully\n"));
    EXPECT_EQ(fake::sockets.size(), 3u);
}

TEST_F(RavoCliConfig, ASocketFailureReturnsOneSilentlyAndTheRelayStaysOn) {
    fake::script(fake::op::socket, {.nth = 2, .times = 2, .result = -2});
    EXPECT_EQ(run(ravo_cmd_relay), (done{1, ""}));
    EXPECT_EQ(settings_now().relay_enable, 1u);
    EXPECT_THAT(fake::statuses, ElementsAre("28 1 \"\""));
}

TEST_F(RavoCliConfig, RelayOffClosesEverySocketAndTellsTheStatus) {
    run(ravo_cmd_relay);
    fake::forget();
    EXPECT_EQ(run(ravo_cmd_no_relay), silent);
    EXPECT_EQ(settings_now().relay_enable, 0u);
    EXPECT_THAT(fake::statuses, ElementsAre("28 2 \"\""));
    EXPECT_THAT(fake::socket_calls, ElementsAre("close(100) = 0", "close(101) = 0", "close(102) = 0"));
    EXPECT_THAT(fake::readers, IsEmpty());
    fake::forget();
    EXPECT_EQ(run(ravo_cmd_no_relay), silent);
    EXPECT_THAT(fake::printed, IsEmpty());
    EXPECT_THAT(fake::statuses, IsEmpty());
}

TEST_F(RavoCliConfigDeathTest, RelayOffClosesBeforeItChangesTheSetting) {
    run(ravo_cmd_relay);
    EXPECT_EXIT(
        {
            std::atexit([] { std::fprintf(stderr, "relay_enable=%u\n", settings_now().relay_enable); });
            fake::script(fake::op::close, {.error = EIO});
            run(ravo_cmd_no_relay);
        },
        testing::ExitedWithCode(1), testing::StrEq("close(): Input/output error\nrelay_enable=1\n"));
}

TEST_F(RavoCliConfig, AnyOtherRelayStateIsNeitherOnNorOff) {
    set_setting(&ravo_agent::relay_enable, 2);
    EXPECT_EQ(run(ravo_cmd_relay), silent);
    EXPECT_EQ(settings_now().relay_enable, 1u);
    EXPECT_EQ(fake::sockets.size(), 3u);
    set_setting(&ravo_agent::relay_enable, 2);
    EXPECT_EQ(run(ravo_cmd_no_relay), silent);
    EXPECT_EQ(settings_now().relay_enable, 0u);
    EXPECT_TRUE(fake::sockets.empty());
}

TEST_F(RavoCliConfig, SettingsSurviveRelayOff) {
    run(ravo_cmd_hops, {"9"});
    run(ravo_cmd_relay);
    run(ravo_cmd_no_relay);
    EXPECT_EQ(settings_now().hops, 9u);
}

// ---- Trust of all interfaces ----

TEST_F(RavoCliConfig, TrustAllMarksEveryVlanInterface) {
    fake::add_interface({.name = "vlan10", .ifindex = 7777});
    fake::add_vlan(20);
    fake::add_interface({.name = "port5", .ifindex = 5125, .hw_type = 6});
    iface known = vlan_record(20, {"10.0.0.1"});
    known.in_use = 0;
    EXPECT_EQ(ravo_db_if_add(&known), 1);

    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(run(ravo_cmd_trust_all), silent);
        EXPECT_EQ(trust_all, 1u);
        iface made = record_named("vlan10");
        made.in_use = 1;
        made.ifindex = 1034;
        made.trusted = 1;
        known.trusted = 1;
        EXPECT_THAT(stored_names(), ElementsAre("vlan10", "vlan20"));
        EXPECT_EQ(describe(*stored_record("vlan10")), describe(made));
        EXPECT_EQ(describe(*stored_record("vlan20")), describe(known));
    }
}

TEST_F(RavoCliConfig, TrustAllIgnoresAFailedStore) {
    fake::add_vlan(10);
    fake::add_vlan(20);
    fake::script(fake::op::calloc);
    EXPECT_EQ(run(ravo_cmd_trust_all), silent);
    EXPECT_EQ(trust_all, 1u);
    EXPECT_THAT(stored_names(), ElementsAre("vlan20"));
}

TEST_F(RavoCliConfig, NoTrustAllAlsoClearsInterfacesMarkedOneByOne) {
    for (const std::uint32_t trusted : {0u, 1u, 2u}) {
        iface record = vlan_record(static_cast<int>(10 + trusted), {"10.0.0.1"});
        record.trusted = trusted;
        EXPECT_EQ(ravo_db_if_add(&record), 1);
    }
    trust_all = 1;
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(run(ravo_cmd_no_trust_all), silent);
        EXPECT_EQ(trust_all, 0u);
        for (const int vlan : {10, 11, 12})
            EXPECT_EQ(describe(*stored_record("vlan" + std::to_string(vlan))),
                      describe(vlan_record(vlan, {"10.0.0.1"})));
    }
}

TEST_F(RavoCliConfig, NoTrustAllLeavesInterfacesWithoutARecord) {
    fake::add_vlan(10);
    EXPECT_EQ(run(ravo_cmd_no_trust_all), silent);
    EXPECT_THAT(stored_names(), IsEmpty());
}

// ---- Selecting an interface ----

TEST_F(RavoCliConfig, InterfaceSelectsTheInterfaceAndItsMode) {
    struct interface *ifp = fake::add_vlan(10);
    for (const char *word : {"vlan10", "10", "010"}) {
        fake::session session;
        session.context.mode = CLI_MODE_CONFIGURATION;
        EXPECT_EQ(session.run(ravo_cmd_interface, {word}), 0) << word;
        EXPECT_EQ(session.context.ifp, ifp) << word;
        EXPECT_EQ(session.context.mode, 34) << word;
        EXPECT_EQ(fake::ifmode_asked, word);
        EXPECT_EQ(session.text(), "") << word;
    }
}

TEST_F(RavoCliConfig, InterfaceDoesNotCheckWhatItFound) {
    fake::session session;
    EXPECT_EQ(session.run(ravo_cmd_interface, {"nothing"}), 0);
    EXPECT_EQ(session.context.ifp, nullptr);
    EXPECT_EQ(session.context.mode, 34);
}

// ---- Debug ----

TEST_F(RavoCliConfig, DebugStoresAndPrintsItsFlag) {
    EXPECT_EQ(run(ravo_cmd_debug, {"1"}), silent);
    EXPECT_EQ(debug_flag, 1u);
    EXPECT_EQ(run(ravo_cmd_debug, {"0"}), silent);
    EXPECT_EQ(debug_flag, 0u);
    EXPECT_THAT(fake::printed, ElementsAre(fake::line{101, "RAVO_IF_Enable_Debug_Flag,Enable_Debug_Print=1\n"},
                                           fake::line{101, "RAVO_IF_Enable_Debug_Flag,Enable_Debug_Print=0\n"}));
    EXPECT_EQ(RAVO_IF_Enable_Debug_Flag(7), 7u);
    EXPECT_EQ(debug_flag, 7u);
}

TEST_F(RavoCliConfig, DebugStoresItsFlagWhenTracesAreFiltered) {
    fake::print_from(103);
    EXPECT_EQ(RAVO_IF_Enable_Debug_Flag(1), 1u);
    EXPECT_EQ(debug_flag, 1u);
    EXPECT_THAT(fake::printed, IsEmpty());
}

}  // namespace

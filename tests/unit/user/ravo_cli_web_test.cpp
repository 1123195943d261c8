// SPDX-License-Identifier: Apache-2.0
// The commands of the web front end: records and changes.
#include <map>

#include "nsm.h"
#include "relay_fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class RavoCliWeb : public Relay {
  protected:
    static void store(const iface &record) { ASSERT_EQ(ravo_db_if_add(&record), 1); }

    // Runs a command. Its result and what it printed.
    static std::string run(cli_handler handler, const std::vector<std::string> &words) {
        fake::session session;
        const int result = session.run(handler, words);
        return std::to_string(result) + " " + session.text();
    }

    static std::string record_text(const std::string &name) {
        const std::optional<iface> record = stored_record(name);
        return record ? describe(*record) : "none";
    }
};

TEST_F(RavoCliWeb, ResultsHaveTheirCodes) {
    for (std::uint32_t result = 0; result < 20; ++result) {
        const std::map<std::uint32_t, std::uint32_t> codes = {{3, 302021}, {6, 302020}, {7, 302022},
                                                              {8, 302023}, {9, 302024}, {15, 302025}};
        EXPECT_EQ(ravo_web_code_of(result), codes.contains(result) ? codes.at(result) : result) << result;
    }
}

// ---- Basic settings ----

fake::bytes words_of(std::initializer_list<std::uint32_t> words) {
    const std::vector<std::uint32_t> list = words;
    return fake::copy_bytes(list.data(), list.size() * sizeof(std::uint32_t));
}

TEST_F(RavoCliWeb, BasicSettingsOfTheDefaults) {
    fake::session session;
    EXPECT_EQ(session.run(ravo_cmd_get_basic), 0);
    EXPECT_THAT(session.web_records, ElementsAre(words_of({0, 0, 0, 1, 4, 1})));
    EXPECT_THAT(session.outputs, IsEmpty());
}

TEST_F(RavoCliWeb, BasicSettingsFieldByField) {
    ravo_agent agent = settings_now();
    agent.relay_enable = 1;
    agent.option_state = 8;
    agent.check = 9;
    agent.hops = 16;
    agent.policy = 3;
    ravo_db_agent_set(&agent);
    trust_all = 1;
    fake::session session;
    EXPECT_EQ(session.run(ravo_cmd_get_basic), 0);
    EXPECT_THAT(session.web_records, ElementsAre(words_of({1, 1, 8, 9, 16, 3})));
}

TEST_F(RavoCliWeb, BasicSettingsOfOtherValues) {
    set_setting(&ravo_agent::relay_enable, 2);
    trust_all = 2;
    for (std::uint32_t policy = 0; policy < 6; ++policy) {
        set_setting(&ravo_agent::policy, policy);
        fake::session session;
        EXPECT_EQ(session.run(ravo_cmd_get_basic), 0);
        EXPECT_THAT(session.web_records, ElementsAre(words_of({0, 0, 0, 1, 4, policy <= 3 ? policy : 0})));
    }
}

TEST_F(RavoCliWeb, BasicSettingsSucceedWhenTheSessionIsGone) {
    fake::script(fake::op::web_send);
    fake::session session;
    EXPECT_EQ(session.run(ravo_cmd_get_basic), 0);
}

// ---- Interface settings ----

// The record of 580 bytes: name, trust, server text.
fake::bytes interface_settings(const std::string &name, std::uint32_t trusted, const std::string &servers) {
    fake::bytes record(580);
    std::memcpy(record.data(), name.data(), name.size());
    std::memcpy(record.data() + 32, &trusted, sizeof trusted);
    std::memcpy(record.data() + 36, servers.data(), servers.size());
    return record;
}

TEST_F(RavoCliWeb, InterfaceSettingsListEverySlot) {
    store(vlan_record(10, {"10.0.0.1", "10.0.0.2"}));
    fake::session session;
    EXPECT_EQ(session.run(ravo_cmd_get_interface), 0);
    EXPECT_THAT(session.web_records,
                ElementsAre(interface_settings("vlan10", 0, "10.0.0.1, 10.0.0.2, 0.0.0.0, 0.0.0.0")));
}

TEST_F(RavoCliWeb, InterfaceSettingsListAsManySlotsAsTheHopLimitSays) {
    iface record = vlan_record(10, {"10.0.0.1", "10.0.0.2", "10.0.0.3", "255.255.255.255"});
    record.trusted = 7;
    store(record);
    const struct {
        std::uint32_t hops;
        const char *servers;
    } rows[] = {
        {0, ""},
        {1, "10.0.0.1"},
        {2, "10.0.0.1, 10.0.0.2"},
        {3, "10.0.0.1, 10.0.0.2, 10.0.0.3"},
        {4, "10.0.0.1, 10.0.0.2, 10.0.0.3, 255.255.255.255"},
        {5, "10.0.0.1, 10.0.0.2, 10.0.0.3, 255.255.255.255"},
        {16, "10.0.0.1, 10.0.0.2, 10.0.0.3, 255.255.255.255"},
        {4294967295u, "10.0.0.1, 10.0.0.2, 10.0.0.3, 255.255.255.255"},
    };
    for (const auto &row : rows) {
        set_setting(&ravo_agent::hops, row.hops);
        fake::session session;
        EXPECT_EQ(session.run(ravo_cmd_get_interface), 0);
        EXPECT_THAT(session.web_records, ElementsAre(interface_settings("vlan10", 1, row.servers))) << row.hops;
    }
}

TEST_F(RavoCliWeb, InterfaceSettingsArePagedByNamingTheLastOne) {
    for (const int vlan : {10, 20, 30}) store(vlan_record(vlan));
    const std::string servers = "0.0.0.0, 0.0.0.0, 0.0.0.0, 0.0.0.0";
    fake::session session;
    EXPECT_EQ(session.run(ravo_cmd_get_interface), 0);
    EXPECT_EQ(session.run(ravo_cmd_get_interface, {"vlan10"}), 0);
    EXPECT_EQ(session.run(ravo_cmd_get_interface, {"vlan20"}), 0);
    EXPECT_THAT(session.web_records,
                ElementsAre(interface_settings("vlan10", 0, servers), interface_settings("vlan20", 0, servers),
                            interface_settings("vlan30", 0, servers)));
    session.forget();
    EXPECT_EQ(session.run(ravo_cmd_get_interface, {"vlan30"}), 1);  // the last
    EXPECT_EQ(session.run(ravo_cmd_get_interface, {"vlan11"}), 1);  // unknown
    EXPECT_EQ(session.run(ravo_cmd_get_interface, {std::string(100, 'a')}), 1);
    EXPECT_THAT(session.web_records, IsEmpty());
}

TEST_F(RavoCliWeb, WithoutARecordThereAreNoInterfaceSettings) {
    fake::session session;
    EXPECT_EQ(session.run(ravo_cmd_get_interface), 1);
    EXPECT_THAT(session.web_records, IsEmpty());
}

// ---- Changes ----

class RavoCliWebSet : public RavoCliWeb {
  protected:
    void SetUp() override {
        RavoCliWeb::SetUp();
        fake::add_vlan(10, {{"192.0.2.1"}});
    }

    static iface new_record(std::uint32_t trusted) {
        iface record = record_named("vlan10");
        record.in_use = 1;
        record.ifindex = 1034;
        record.trusted = trusted;
        return record;
    }
};

TEST_F(RavoCliWebSet, AServerAndTheTrustAreSet) {
    EXPECT_EQ(run(ravo_cmd_web_set_server, {"vlan10", "10.0.0.1", "1"}), "0 ");
    iface expected = new_record(1);
    expected.server_db[0] = fake::address("10.0.0.1");
    expected.server_count = 1;
    EXPECT_EQ(record_text("vlan10"), describe(expected));
}

TEST_F(RavoCliWebSet, OnlyTheTrustIsSet) {
    EXPECT_EQ(run(ravo_cmd_web_set, {"vlan10", "1"}), "0 ");
    EXPECT_EQ(record_text("vlan10"), describe(new_record(1)));
    EXPECT_EQ(run(ravo_cmd_web_set, {"vlan10", "0"}), "0 ");
    EXPECT_EQ(record_text("vlan10"), describe(new_record(0)));
}

TEST_F(RavoCliWebSet, AStoredRecordKeepsWhatItHas) {
    iface record = vlan_record(10, {"10.0.0.1"});
    record.in_use = 0;
    record.ifindex = 5;
    record.if_ip = fake::address("192.0.2.1");
    store(record);
    EXPECT_EQ(run(ravo_cmd_web_set, {"vlan10", "1"}), "0 ");
    record.trusted = 1;
    EXPECT_EQ(record_text("vlan10"), describe(record));
    EXPECT_EQ(run(ravo_cmd_web_set_server, {"vlan10", "10.0.0.2", "0"}), "0 ");
    record.trusted = 0;
    record.server_db[1] = fake::address("10.0.0.2");
    record.server_count = 2;
    EXPECT_EQ(record_text("vlan10"), describe(record));
}

TEST_F(RavoCliWebSet, AStateIsTrustedWhenItIsNotZero) {
    const struct {
        const char *state;
        std::uint32_t trusted;
    } rows[] = {{"0", 0}, {"1", 1}, {"2", 1}, {"+3", 1}, {"000", 0}, {"2147483647", 1}};
    for (const auto &row : rows) {
        EXPECT_EQ(run(ravo_cmd_web_set, {"vlan10", row.state}), "0 ") << row.state;
        EXPECT_EQ(stored_record("vlan10")->trusted, row.trusted) << row.state;
    }
}

TEST_F(RavoCliWebSet, AnInvalidStateIsRefusedAndStoresNothing) {
    for (const char *state : {"-", "-1", "-0", "", "x", "1x", "2147483648"}) {
        EXPECT_EQ(run(ravo_cmd_web_set, {"vlan10", state}), "1 % Invalid Enabled value\n") << state;
        EXPECT_EQ(run(ravo_cmd_web_set_server, {"vlan10", "10.0.0.1", state}), "1 % Invalid Enabled value\n") << state;
        EXPECT_EQ(record_text("vlan10"), "none") << state;
    }
}

TEST_F(RavoCliWebSet, TheMessageOfAnInvalidStateObeysTheGate) {
    fake::session session;
    session.context.view_flags = 2;
    EXPECT_EQ(session.run(ravo_cmd_web_set, {"vlan10", "-"}), 1);
    EXPECT_EQ(session.text(), "");
    session.context.show_all = 1;
    EXPECT_EQ(session.run(ravo_cmd_web_set, {"vlan10", "-"}), 1);
    EXPECT_EQ(session.text(), "% Invalid Enabled value\n");
}

TEST_F(RavoCliWebSet, AnUnknownInterfaceIsRefusedBeforeItsState) {
    for (const char *name : {"vlan11", "port1", "no such name"}) {
        EXPECT_EQ(run(ravo_cmd_web_set, {name, "-"}), "1 ") << name;
        EXPECT_EQ(run(ravo_cmd_web_set_server, {name, "10.0.0.1", "-"}), "1 ") << name;
        EXPECT_EQ(run(ravo_cmd_web_delete, {name}), "1 ") << name;
    }
    EXPECT_THAT(stored_names(), IsEmpty());
}

TEST_F(RavoCliWebSet, ResultsOfAServerAreWebCodes) {
    EXPECT_EQ(run(ravo_cmd_web_set_server, {"vlan10", "10.0.0.256", "1"}), "302020 ");
    EXPECT_EQ(record_text("vlan10"), describe(new_record(1)));  // stored in spite of the result
    for (const char *server : {"10.0.0.1", "10.0.0.2", "10.0.0.3", "10.0.0.4"})
        EXPECT_EQ(run(ravo_cmd_web_set_server, {"vlan10", server, "1"}), "0 ");
    EXPECT_EQ(run(ravo_cmd_web_set_server, {"vlan10", "10.0.0.4", "1"}), "302022 ");
    EXPECT_EQ(run(ravo_cmd_web_set_server, {"vlan10", "10.0.0.5", "0"}), "302023 ");
    EXPECT_EQ(stored_record("vlan10")->trusted, 0u);
}

TEST_F(RavoCliWebSet, AFailedStoreIsOne) {
    fake::script(fake::op::calloc);
    EXPECT_EQ(run(ravo_cmd_web_set, {"vlan10", "1"}), "1 ");
    fake::script(fake::op::calloc);
    EXPECT_EQ(run(ravo_cmd_web_set_server, {"vlan10", "10.0.0.1", "1"}), "1 ");
    fake::script(fake::op::calloc);
    EXPECT_EQ(run(ravo_cmd_web_set_server, {"vlan10", "10.0.0.256", "1"}), "1 ");
    fake::script(fake::op::calloc);
    EXPECT_EQ(run(ravo_cmd_web_delete, {"vlan10"}), "1 RAVO Err Unhandle errno 1 \n");
    EXPECT_EQ(record_text("vlan10"), "none");
}

TEST_F(RavoCliWebSet, DeleteClearsServersAndTrust) {
    iface record = vlan_record(10, {"10.0.0.1", "10.0.0.2"});
    record.trusted = 1;
    record.if_ip = fake::address("192.0.2.1");
    store(record);
    EXPECT_EQ(run(ravo_cmd_web_delete, {"vlan10"}), "0 ");
    iface expected = vlan_record(10);
    expected.if_ip = record.if_ip;
    EXPECT_EQ(record_text("vlan10"), describe(expected));
}

TEST_F(RavoCliWebSet, DeleteWithoutARecordMakesOneWithNumberZero) {
    EXPECT_EQ(run(ravo_cmd_web_delete, {"vlan10"}), "0 ");
    iface expected = new_record(0);
    expected.ifindex = 0;
    EXPECT_EQ(record_text("vlan10"), describe(expected));
}

TEST_F(RavoCliWebSet, DeleteShowsTheCountThatRemains) {
    iface record = vlan_record(10, {"10.0.0.1"});
    record.opt60_count = 2;
    store(record);
    EXPECT_EQ(run(ravo_cmd_web_delete, {"vlan10"}), "1 % No dhcp relay if existed \n");
    EXPECT_EQ(stored_record("vlan10")->server_count, 0u);
}

// ---- VLAN ids ----

TEST_F(RavoCliWeb, AVlanIdIsANumberFromOneTo4094) {
    for (const char *text : {"1", "10", "4094", "0010"}) {
        fake::session session;
        EXPECT_EQ(ravo_check_vlan_id(&session.context, text), 0) << text;
        EXPECT_EQ(session.text(), "") << text;
    }
    for (const char *text : {"0", "4095", "-1", "", "x", "1x", "99999999999"}) {
        fake::session session;
        EXPECT_EQ(ravo_check_vlan_id(&session.context, text), 1) << text;
        EXPECT_EQ(session.text(), "% Invalid VLAN-ID value\n") << text;
        session.forget();
        session.context.view_flags = 2;
        EXPECT_EQ(ravo_check_vlan_id(&session.context, text), 1) << text;
        EXPECT_EQ(session.text(), "") << text;
    }
}

}  // namespace

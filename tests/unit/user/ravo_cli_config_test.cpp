// The configuration commands.
#include <cstdio>
#include <cstdlib>

#include "nsm.h"
#include "ravo_if_server.h"
#include "relay_fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr const char *same = "% Set the same configuration current configuration\n";

// What a command did: its result, then what it printed.
struct done {
    int result;
    std::string text;

    bool operator==(const done &) const = default;
};

std::ostream &operator<<(std::ostream &out, const done &value) {
    return out << value.result << " \"" << value.text << "\"";
}

const done silent{0, ""};
const done unhandled_one{1, "RAVO Err Unhandle errno 1 \n"};

done run(cli_handler handler, const std::vector<std::string> &words = {}) {
    fake::session session;
    const int result = session.run(handler, words);
    return {result, session.text()};
}

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

// ---- Interfaces ----

class RavoCliInterface : public Relay {
  protected:
    void SetUp() override {
        Relay::SetUp();
        // An interface whose object bears another number than its name.
        ifp = fake::add_interface({.name = "vlan10", .ifindex = 7777});
    }

    // Runs an interface command on vlan10.
    done on_interface(cli_handler handler, const std::vector<std::string> &words = {}) {
        fake::session session;
        session.context.mode = CLI_MODE_INTERFACE;
        session.context.ifp = ifp;
        const int result = session.run(handler, words);
        return {result, session.text()};
    }

    // What vlan10's record says, "none" when there is none.
    std::string record_text() const {
        const std::optional<iface> record = stored_record("vlan10");
        return record ? describe(*record) : "none";
    }

    void store(const iface &record) { ASSERT_EQ(ravo_db_if_add(&record), 1); }

    // The record that a command makes for vlan10.
    iface new_record(std::uint32_t ifindex = 1034) const {
        iface record = record_named("vlan10");
        record.in_use = 1;
        record.ifindex = ifindex;
        return record;
    }

    struct interface *ifp = nullptr;
};

struct interface_row {
    const char *name;
    cli_handler handler;
    std::vector<std::string> words;
    std::uint32_t new_ifindex;  // of a record that the command makes
};

const std::vector<interface_row> &interface_rows() {
    static const std::vector<interface_row> rows = {
        {"address", ravo_cmd_address, {"10.0.0.1"}, 1034},
        {"option60", ravo_cmd_option60, {"phone", "exact-match", "10.0.0.1"}, 7777},
        {"no option60", ravo_cmd_no_option60, {}, 1034},
        {"option61", ravo_cmd_option61, {"0x01", "10.0.0.1"}, 1034},
        {"no option61", ravo_cmd_no_option61, {}, 1034},
        {"trusted", ravo_cmd_trusted, {}, 1034},
        {"no trusted", ravo_cmd_no_trusted, {}, 0},
    };
    return rows;
}

TEST_F(RavoCliInterface, ANewRecordHasTheNumberOfItsHandler) {
    for (const interface_row &row : interface_rows()) {
        ravo_db_if_delete("vlan10");
        EXPECT_EQ(on_interface(row.handler, row.words), silent) << row.name;
        const std::optional<iface> record = stored_record("vlan10");
        ASSERT_TRUE(record.has_value()) << row.name;
        EXPECT_EQ(record->ifindex, row.new_ifindex) << row.name;
        EXPECT_EQ(record->in_use, 1u) << row.name;
        EXPECT_EQ(record->if_ip, 0u) << row.name;
        EXPECT_STREQ(record->name, "vlan10") << row.name;
    }
}

TEST_F(RavoCliInterface, AStoredRecordIsUsedAsItIs) {
    for (const interface_row &row : interface_rows()) {
        iface record = record_named("vlan10");
        record.ifindex = 3;
        record.if_ip = fake::address("192.0.2.1");
        std::strcpy(record.aid, "aid");
        record.local_relay_state = 1;
        store(record);
        EXPECT_EQ(on_interface(row.handler, row.words), silent) << row.name;
        const iface now = *stored_record("vlan10");
        EXPECT_EQ(now.ifindex, 3u) << row.name;
        EXPECT_EQ(now.in_use, 0u) << row.name;
        EXPECT_EQ(now.if_ip, record.if_ip) << row.name;
        EXPECT_STREQ(now.aid, "aid") << row.name;
        EXPECT_EQ(now.local_relay_state, 1u) << row.name;
        ravo_db_if_delete("vlan10");
    }
}

TEST_F(RavoCliInterface, AFailedStoreIsCodeOne) {
    for (const interface_row &row : interface_rows()) {
        fake::script(fake::op::calloc);
        EXPECT_EQ(on_interface(row.handler, row.words), unhandled_one) << row.name;
        EXPECT_EQ(record_text(), "none") << row.name;
    }
}

TEST_F(RavoCliInterface, AFailedStoreHidesTheResultOfTheChange) {
    fake::script(fake::op::calloc);
    EXPECT_EQ(on_interface(ravo_cmd_address, {"10.0.0.256"}), unhandled_one);
}

TEST_F(RavoCliInterface, AServerIsAdded) {
    EXPECT_EQ(on_interface(ravo_cmd_address, {"10.0.0.1"}), silent);
    iface expected = new_record();
    expected.server_db[0] = fake::address("10.0.0.1");
    expected.server_count = 1;
    EXPECT_EQ(record_text(), describe(expected));
}

TEST_F(RavoCliInterface, EveryResultOfAnAddIsShown) {
    EXPECT_EQ(on_interface(ravo_cmd_address, {"10.0.0.256"}), (done{1, "% DHCP relay server ip error \n"}));
    EXPECT_EQ(record_text(), describe(new_record()));  // stored in spite of the result
    for (const char *server : {"10.0.0.1", "10.0.0.2", "10.0.0.3", "10.0.0.4"})
        EXPECT_EQ(on_interface(ravo_cmd_address, {server}), silent);
    EXPECT_EQ(on_interface(ravo_cmd_address, {"10.0.0.4"}), (done{1, "% DHCP relay server exitsted already \n"}));
    EXPECT_EQ(on_interface(ravo_cmd_address, {"10.0.0.5"}), (done{1, "% DHCP relay server full \n"}));
    EXPECT_EQ(slots_of(*stored_record("vlan10")), "10.0.0.1 10.0.0.2 10.0.0.3 10.0.0.4");
}

TEST_F(RavoCliInterface, NoAddressWithoutARecordIsSilentAndStoresNothing) {
    EXPECT_EQ(on_interface(ravo_cmd_no_address), silent);
    EXPECT_EQ(on_interface(ravo_cmd_no_address, {"10.0.0.1"}), silent);
    EXPECT_EQ(record_text(), "none");
}

TEST_F(RavoCliInterface, NoAddressRemovesOneServerOrAll) {
    store(vlan_record(10, {"10.0.0.1", "10.0.0.2", "10.0.0.3"}));
    EXPECT_EQ(on_interface(ravo_cmd_no_address, {"10.0.0.2"}), silent);
    EXPECT_EQ(record_text(), describe(vlan_record(10, {"10.0.0.1", "10.0.0.3"})));
    EXPECT_EQ(on_interface(ravo_cmd_no_address), silent);
    EXPECT_EQ(record_text(), describe(vlan_record(10)));
}

TEST_F(RavoCliInterface, NoAddressOfAnUnknownServerIsNoServer) {
    store(vlan_record(10, {"10.0.0.1"}));
    EXPECT_EQ(on_interface(ravo_cmd_no_address, {"10.0.0.2"}),
              (done{1, "% No DHCP relay server on this interface \n"}));
    EXPECT_EQ(record_text(), describe(vlan_record(10, {"10.0.0.1"})));
}

TEST_F(RavoCliInterface, CountsThatRemainAreShownAsResultCodes) {
    iface record = vlan_record(10, {"10.0.0.1"});
    record.opt60_count = 2;
    store(record);
    EXPECT_EQ(on_interface(ravo_cmd_no_address), (done{1, "% No dhcp relay if existed \n"}));
    EXPECT_EQ(slots_of(*stored_record("vlan10")), "0.0.0.0 0.0.0.0 0.0.0.0 0.0.0.0");

    store(vlan_record(10, {"10.0.0.1"}));
    EXPECT_EQ(on_interface(ravo_cmd_no_option60), unhandled_one);
    EXPECT_EQ(on_interface(ravo_cmd_no_option61), unhandled_one);
}

TEST_F(RavoCliInterface, TrustIsStoredWhetherOrNotItWasSet) {
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(on_interface(ravo_cmd_trusted), silent);
        EXPECT_EQ(stored_record("vlan10")->trusted, 1u);
    }
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(on_interface(ravo_cmd_no_trusted), silent);
        EXPECT_EQ(stored_record("vlan10")->trusted, 0u);
    }
}

TEST_F(RavoCliInterface, NoTrustedWithoutARecordMakesOneWithNumberZero) {
    EXPECT_EQ(on_interface(ravo_cmd_no_trusted), silent);
    EXPECT_EQ(record_text(), describe(new_record(0)));
}

// ---- Option 60 ----

opt60_host vendor_host(const char *vendor, std::uint32_t rule, const char *server) {
    opt60_host host{};
    host.used = 1;
    host.match_rule = rule;
    std::strcpy(host.vendor, vendor);
    host.server = fake::address(server);
    return host;
}

TEST_F(RavoCliInterface, AVendorServerIsAddedWithItsRule) {
    EXPECT_EQ(on_interface(ravo_cmd_option60, {"phone", "exact-match", "10.0.0.1"}), silent);
    EXPECT_EQ(on_interface(ravo_cmd_option60, {"phone", "partial-match", "10.0.0.2"}), silent);
    EXPECT_EQ(on_interface(ravo_cmd_option60, {"phone", "exact-matc", "10.0.0.3"}), silent);
    iface expected = new_record(7777);
    expected.opt60_hosts[0] = vendor_host("phone", 0, "10.0.0.1");
    expected.opt60_hosts[1] = vendor_host("phone", 1, "10.0.0.2");
    expected.opt60_hosts[2] = vendor_host("phone", 1, "10.0.0.3");
    expected.opt60_count = 3;
    EXPECT_EQ(record_text(), describe(expected));
    EXPECT_EQ(on_interface(ravo_cmd_option60, {"phone", "exact-match", "10.0.0.1"}),
              (done{1, "% DHCP relay server exitsted already \n"}));
    EXPECT_EQ(on_interface(ravo_cmd_option60, {"phone", "exact-match", "10.0.0.256"}),
              (done{1, "% DHCP relay server ip error \n"}));
    EXPECT_EQ(record_text(), describe(expected));
}

TEST_F(RavoCliInterface, AVendorStringOfTheLargestSizeIsAdded) {
    const std::string vendor(64, 'v');
    EXPECT_EQ(on_interface(ravo_cmd_option60, {vendor, "exact-match", "10.0.0.1"}), silent);
    EXPECT_EQ(stored_record("vlan10")->opt60_hosts[0].vendor, vendor);
}

TEST_F(RavoCliInterface, AVendorStringThatDoesNotFitIsRefused) {
    const done result = on_interface(ravo_cmd_option60, {std::string(68, 'v'), "exact-match", "10.0.0.1"});
    EXPECT_EQ(result, (done{1, "% Vendor class string must not exceed 64 characters\n"}));
    EXPECT_EQ(record_text(), "none");
}

TEST_F(RavoCliInterface, NoOption60TakesItsCriteriaFromTheCountOfWords) {
    const struct {
        std::vector<std::string> words;
        const char *left;  // indices of the hosts that stay
    } rows[] = {
        {{}, ""},
        {{"exact-match"}, "12"},
        {{"partial-match"}, "03"},
        {{"string", "phone"}, "23"},
        {{"address", "10.0.0.1"}, "13"},
        {{"string", "phone", "exact-match"}, "123"},
        {{"partial-match", "address", "10.0.0.1"}, "013"},
        {{"string", "camera", "address", "10.0.0.2"}, "012"},
        {{"string", "camera", "partial-match", "address", "10.0.0.1"}, "013"},
        {{"string", "camera", "exact-match", "address", "10.0.0.1"}, "0123"},
    };
    for (const auto &row : rows) {
        iface record = vlan_record(10);
        record.opt60_hosts[0] = vendor_host("phone", 0, "10.0.0.1");
        record.opt60_hosts[1] = vendor_host("phone", 1, "10.0.0.2");
        record.opt60_hosts[2] = vendor_host("camera", 1, "10.0.0.1");
        record.opt60_hosts[3] = vendor_host("camera", 0, "10.0.0.2");
        record.opt60_count = 4;
        store(record);
        on_interface(ravo_cmd_no_option60, row.words);
        std::string left;
        const iface now = *stored_record("vlan10");
        for (int i = 0; i < RAVO_SERVERS; ++i)
            if (now.opt60_hosts[i].used != 0) left += std::to_string(i);
        EXPECT_EQ(left, row.left) << testing::PrintToString(row.words);
        EXPECT_EQ(now.opt60_count, left.size()) << testing::PrintToString(row.words);
    }
}

// ---- Option 61 ----

constexpr const char *too_long = "% Client-id hex number must not exceed 128 bytes\n";
constexpr const char *no_prefix = "% Client-id hex number must begin with \"0x\"\n";
constexpr const char *not_hex = "% Client-id must be hex number\n";
constexpr const char *invalid = "% Invalid client-id\n";

struct client_id_row {
    std::string word;
    std::string message;  // empty: accepted
};

std::vector<client_id_row> client_id_rows() {
    return {
        {"0x1", ""},
        {"0xABCdef0123456789", ""},
        {"0x" + std::string(255, 'a'), ""},
        {"0x" + std::string(256, 'a'), ""},  // 128 bytes
        {"0x" + std::string(257, 'a'), too_long},
        {"0x" + std::string(258, 'a'), too_long},
        {std::string(400, 'z'), too_long},
        {"", too_long},  // its length wraps
        {"0", no_prefix},
        {"1", no_prefix},
        {"x1", no_prefix},
        {"0X12", no_prefix},
        {"1234", no_prefix},
        {std::string(258, 'z'), no_prefix},
        {"0xg", not_hex},
        {"0x12 4", not_hex},
        {"0x0x", not_hex},
        {"0x" + std::string(255, 'a') + "g", not_hex},
        {"0x", invalid},
    };
}

TEST_F(RavoCliInterface, AClientIdentifierIsCheckedInOrder) {
    for (const client_id_row &row : client_id_rows()) {
        ravo_db_if_delete("vlan10");
        const done expected{row.message.empty() ? 0 : 1, row.message};
        EXPECT_EQ(on_interface(ravo_cmd_option61, {row.word, "10.0.0.1"}), expected) << row.word;
        EXPECT_EQ(stored_record("vlan10").has_value(), row.message.empty()) << row.word;
    }
}

TEST_F(RavoCliInterface, AClientIdentifierToRemoveIsCheckedTheSameWay) {
    for (const client_id_row &row : client_id_rows()) {
        ravo_db_if_delete("vlan10");
        const done expected{row.message.empty() ? 0 : 1, row.message};
        EXPECT_EQ(on_interface(ravo_cmd_no_option61, {"hex", row.word}), expected) << row.word;
        EXPECT_EQ(stored_record("vlan10").has_value(), row.message.empty()) << row.word;
        ravo_db_if_delete("vlan10");
        EXPECT_EQ(on_interface(ravo_cmd_no_option61, {"hex", row.word, "address", "10.0.0.1"}), expected) << row.word;
        EXPECT_EQ(stored_record("vlan10").has_value(), row.message.empty()) << row.word;
    }
}

TEST_F(RavoCliInterface, TheMessagesOfTheChecksObeyTheGate) {
    for (const client_id_row &row : client_id_rows()) {
        if (row.message.empty()) continue;
        fake::session session;
        session.context.ifp = ifp;
        session.context.view_flags = 2;
        EXPECT_EQ(session.run(ravo_cmd_option61, {row.word, "10.0.0.1"}), 1) << row.word;
        EXPECT_EQ(session.text(), "") << row.word;
        session.context.show_all = 1;
        EXPECT_EQ(session.run(ravo_cmd_option61, {row.word, "10.0.0.1"}), 1) << row.word;
        EXPECT_EQ(session.text(), row.message) << row.word;
    }
}

opt61_host client_host(std::initializer_list<std::uint8_t> id, const char *server) {
    opt61_host host{};
    host.used = 1;
    std::copy(id.begin(), id.end(), host.client_id);
    host.client_id_len = static_cast<std::uint32_t>(id.size());
    host.server = fake::address(server);
    return host;
}

TEST_F(RavoCliInterface, AClientServerIsAddedWithItsDigits) {
    EXPECT_EQ(on_interface(ravo_cmd_option61, {"0xABC", "10.0.0.1"}), silent);
    iface expected = new_record();
    expected.opt61_hosts[0] = client_host({0x0a, 0xbc}, "10.0.0.1");
    expected.opt61_count = 1;
    EXPECT_EQ(record_text(), describe(expected));
    EXPECT_EQ(on_interface(ravo_cmd_option61, {"0x0abc", "10.0.0.1"}),
              (done{1, "% DHCP relay server exitsted already \n"}));
}

TEST_F(RavoCliInterface, NoOption61TakesItsCriteriaFromTheCountOfWords) {
    const struct {
        std::vector<std::string> words;
        const char *left;
    } rows[] = {
        {{}, ""},
        {{"hex", "0xABC"}, "12"},
        {{"hex", "0x0abc"}, "12"},
        {{"hex", "0xab0c"}, "012"},
        {{"hex", "0x0102030499"}, "0"},  // four bytes count
        {{"address", "10.0.0.1"}, "2"},
        {{"hex", "0x01020304", "address", "10.0.0.2"}, "01"},
        {{"hex", "0xabc", "address", "10.0.0.2"}, "012"},
        {{"hex"}, "012"},
        {{"address", "10.0.0.1", "hex"}, "012"},
        {{"hex", "0xABC", "address", "10.0.0.1", "more"}, "012"},
    };
    for (const auto &row : rows) {
        iface record = vlan_record(10);
        record.opt61_hosts[0] = client_host({0x0a, 0xbc}, "10.0.0.1");
        record.opt61_hosts[1] = client_host({1, 2, 3, 4, 5}, "10.0.0.1");
        record.opt61_hosts[2] = client_host({1, 2, 3, 4, 6}, "10.0.0.2");
        record.opt61_count = 3;
        store(record);
        on_interface(ravo_cmd_no_option61, row.words);
        std::string left;
        const iface now = *stored_record("vlan10");
        for (int i = 0; i < RAVO_SERVERS; ++i)
            if (now.opt61_hosts[i].used != 0) left += std::to_string(i);
        EXPECT_EQ(left, row.left) << testing::PrintToString(row.words);
        EXPECT_EQ(now.opt61_count, left.size()) << testing::PrintToString(row.words);
    }
}

TEST_F(RavoCliInterface, AnotherCountOfWordsStoresTheRecordUnchanged) {
    for (const std::vector<std::string> &words :
         {std::vector<std::string>{"hex"}, {"hex", "0x01", "address"}, {"a", "b", "c", "d", "e"}}) {
        ravo_db_if_delete("vlan10");
        EXPECT_EQ(on_interface(ravo_cmd_no_option61, words), silent) << testing::PrintToString(words);
        EXPECT_EQ(record_text(), describe(new_record())) << testing::PrintToString(words);
    }
}

// ---- Trust of all interfaces ----

TEST_F(RavoCliConfig, TrustAllMarksEveryVlanInterface) {
    fake::add_interface({.name = "vlan10", .ifindex = 7777});
    fake::add_vlan(20);
    fake::add_interface({.name = "port5", .ifindex = 5125, .hw_type = 6});
    iface known = vlan_record(20, {"10.0.0.1"});
    known.in_use = 0;
    ravo_db_if_add(&known);

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
        ravo_db_if_add(&record);
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
        EXPECT_EQ(session.text(), "") << word;
    }
}

TEST_F(RavoCliConfig, InterfaceDoesNotCheckWhatItFound) {
    fake::session session;
    EXPECT_EQ(session.run(ravo_cmd_interface, {"nothing"}), 0);
    EXPECT_EQ(session.context.ifp, nullptr);
    EXPECT_EQ(session.context.mode, 34);
}

TEST_F(RavoCliConfig, WithoutAnInterfaceItsCommandsFailAndStoreNothing) {
    for (const interface_row &row : interface_rows())
        EXPECT_EQ(run(row.handler, row.words), (done{1, "% No interface is selected, use \"interface IFNAME\"\n"}))
            << row.name;
    EXPECT_THAT(stored_names(), IsEmpty());
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

// SPDX-License-Identifier: Apache-2.0
// The configuration commands for servers by option 60 and 61.
#include "command_done.h"
#include "nsm.h"
#include "ravo_if_server.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

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
    // A client's vendor class counts up to its 64th byte, but it may be a part of a longer text.
    for (const std::size_t size : {64u, 65u, 66u, 67u}) {
        const std::string vendor(size, 'v');
        EXPECT_EQ(on_interface(ravo_cmd_option60, {vendor, "partial-match", "10.0.0.1"}), silent);
        EXPECT_EQ(stored_record("vlan10")->opt60_hosts[0].vendor, vendor);
        EXPECT_EQ(on_interface(ravo_cmd_no_option60), silent);
    }
}

TEST_F(RavoCliInterface, AVendorStringThatDoesNotFitIsRefused) {
    const done result = on_interface(ravo_cmd_option60, {std::string(68, 'v'), "exact-match", "10.0.0.1"});
    EXPECT_EQ(result, (done{1, "% Vendor class string must not exceed 67 characters\n"}));
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
        {{"exact-match", "address", "10.0.0.1"}, "123"},
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
        EXPECT_EQ(ravo_db_if_delete("vlan10"), 1);
        const done expected{row.message.empty() ? 0 : 1, row.message};
        EXPECT_EQ(on_interface(ravo_cmd_option61, {row.word, "10.0.0.1"}), expected) << row.word;
        EXPECT_EQ(stored_record("vlan10").has_value(), row.message.empty()) << row.word;
    }
}

TEST_F(RavoCliInterface, AClientIdentifierToRemoveIsCheckedTheSameWay) {
    for (const client_id_row &row : client_id_rows()) {
        EXPECT_EQ(ravo_db_if_delete("vlan10"), 1);
        const done expected{row.message.empty() ? 0 : 1, row.message};
        EXPECT_EQ(on_interface(ravo_cmd_no_option61, {"hex", row.word}), expected) << row.word;
        EXPECT_EQ(stored_record("vlan10").has_value(), row.message.empty()) << row.word;
        EXPECT_EQ(ravo_db_if_delete("vlan10"), 1);
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
        EXPECT_EQ(ravo_db_if_delete("vlan10"), 1);
        EXPECT_EQ(on_interface(ravo_cmd_no_option61, words), silent) << testing::PrintToString(words);
        EXPECT_EQ(record_text(), describe(new_record())) << testing::PrintToString(words);
    }
}

}  // namespace

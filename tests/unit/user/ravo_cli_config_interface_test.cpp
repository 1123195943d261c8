// SPDX-License-Identifier: Apache-2.0
// The configuration commands of an interface: records, servers, trust.
#include "command_done.h"
#include "nsm.h"
#include "ravo_if_server.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

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
        EXPECT_EQ(ravo_db_if_delete("vlan10"), 1);
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
        EXPECT_EQ(ravo_db_if_delete("vlan10"), 1);
    }
}

TEST_F(RavoCliInterface, WithoutAnInterfaceNothingIsDone) {
    std::vector<interface_row> rows = interface_rows();
    rows.push_back({"no address", ravo_cmd_no_address, {"10.0.0.1"}, 0});
    const std::size_t before = stored_names().size();
    for (const interface_row &row : rows) EXPECT_EQ(run(row.handler, row.words), (done{1, ""})) << row.name;
    EXPECT_EQ(stored_names().size(), before);
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

TEST_F(RavoCliInterface, WithoutAnInterfaceItsCommandsFailAndStoreNothing) {
    for (const interface_row &row : interface_rows()) EXPECT_EQ(run(row.handler, row.words), (done{1, ""})) << row.name;
    EXPECT_THAT(stored_names(), IsEmpty());
}

}  // namespace

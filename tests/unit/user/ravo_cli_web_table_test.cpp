// SPDX-License-Identifier: Apache-2.0
// The tables that SNMP front ends walk.
#include "relay_fixture.h"
#include "view_lines.h"

namespace {

using fake::target;

fake::bytes words_of(std::initializer_list<std::uint32_t> words) {
    const std::vector<std::uint32_t> list = words;
    return fake::copy_bytes(list.data(), list.size() * sizeof(std::uint32_t));
}

// A row: its key, then its value where the session's view takes it.
struct table_row {
    fake::bytes key;
    std::string text;
    std::int32_t column;
};

std::vector<fake::output> rows_in_view(const std::vector<table_row> &rows, std::uint32_t view_flags) {
    std::vector<fake::output> outputs;
    for (const table_row &row : rows) {
        outputs.push_back({target::row, row.key, ""});
        for (const fake::output &value : in_view({{4, row.text, row.column}}, view_flags)) outputs.push_back(value);
    }
    return outputs;
}

table_row address_row(std::uint32_t ifindex, const char *address) {
    return {words_of({ifindex, fake::address(address)}), "1\n", 3};
}

table_row trust_row(std::uint32_t ifindex) {
    return {words_of({ifindex}), "1", 2};
}

class RavoCliTable : public Relay {
  protected:
    static void store(const iface &record) { ASSERT_EQ(ravo_db_if_add(&record), 1); }

    void SetUp() override {
        Relay::SetUp();
        store(vlan_record(5));
        iface first = vlan_record(10, {"10.0.0.1", "0.0.0.0", "10.0.0.3"});
        first.trusted = 1;
        store(first);
        iface second = vlan_record(20, {"0.0.0.0", "10.0.0.1"});
        second.trusted = 2;
        store(second);
        iface third = vlan_record(30);
        third.trusted = 1;
        store(third);
    }

    // Walks a table in every view and compares the rows.
    static void expect_rows(cli_handler handler, const std::vector<std::string> &words,
                            const std::vector<table_row> &rows, bool exact = false) {
        for (std::uint32_t flags = 0; flags < 8; ++flags) {
            fake::session session = fake::session::with_view(flags);
            session.exact_access = exact;
            EXPECT_EQ(session.run(handler, words), 0);
            EXPECT_EQ(session.outputs, rows_in_view(rows, flags))
                << testing::PrintToString(words) << " view flags " << flags;
        }
    }
};

TEST_F(RavoCliTable, AddressesAreWalkedFromTheFirst) {
    expect_rows(ravo_cmd_show_addr_tbl, {"0", "0.0.0.0"},
                {address_row(1034, "10.0.0.1"), address_row(1034, "10.0.0.3"), address_row(1044, "10.0.0.1")});
    // With number 0 the address does not count.
    expect_rows(ravo_cmd_show_addr_tbl, {"0", "10.0.0.3"},
                {address_row(1034, "10.0.0.1"), address_row(1034, "10.0.0.3"), address_row(1044, "10.0.0.1")});
}

TEST_F(RavoCliTable, AddressesAreWalkedFromAKey) {
    expect_rows(ravo_cmd_show_addr_tbl, {"1034", "10.0.0.1"},
                {address_row(1034, "10.0.0.3"), address_row(1044, "10.0.0.1")});
    expect_rows(ravo_cmd_show_addr_tbl, {"1034", "10.0.0.3"}, {address_row(1044, "10.0.0.1")});
    expect_rows(ravo_cmd_show_addr_tbl, {"1044", "10.0.0.1"}, {});
}

TEST_F(RavoCliTable, AnAddressThatIsNotConfiguredEndsTheWalk) {
    expect_rows(ravo_cmd_show_addr_tbl, {"1034", "10.0.0.2"}, {});
    expect_rows(ravo_cmd_show_addr_tbl, {"1039", "10.0.0.1"}, {});
    expect_rows(ravo_cmd_show_addr_tbl, {"1035", "10.0.0.1"}, {});  // no such record
    expect_rows(ravo_cmd_show_addr_tbl, {"4000", "10.0.0.1"}, {});
    expect_rows(ravo_cmd_show_addr_tbl, {"9999", "10.0.0.1"}, {});  // a number that names nothing
}

TEST_F(RavoCliTable, AnAddressKeyIsExactWhenTheInterfaceHasTheServer) {
    expect_rows(ravo_cmd_show_addr_tbl, {"1034", "10.0.0.3"},
                {address_row(1034, "10.0.0.3"), address_row(1044, "10.0.0.1")}, /*exact=*/true);
    expect_rows(ravo_cmd_show_addr_tbl, {"1034", "10.0.0.1"},
                {address_row(1034, "10.0.0.1"), address_row(1034, "10.0.0.3"), address_row(1044, "10.0.0.1")},
                /*exact=*/true);
    expect_rows(ravo_cmd_show_addr_tbl, {"1034", "10.0.0.9"}, {}, /*exact=*/true);
    expect_rows(ravo_cmd_show_addr_tbl, {"1035", "10.0.0.1"}, {}, /*exact=*/true);
    expect_rows(ravo_cmd_show_addr_tbl, {"1039", "10.0.0.1"}, {}, /*exact=*/true);
}

// Address 0.0.0.0 is that of an empty slot, and the slot is there.
TEST_F(RavoCliTable, AnAddressKeyOfZeroIsExactWhenTheInterfaceHasAnEmptySlot) {
    expect_rows(ravo_cmd_show_addr_tbl, {"1034", "0.0.0.0"},
                {address_row(1034, "0.0.0.0"), address_row(1034, "10.0.0.3"), address_row(1044, "10.0.0.1")},
                /*exact=*/true);
    ravo_if_del_all_if();
    store(vlan_record(10, {"10.0.0.1", "10.0.0.2", "10.0.0.3", "10.0.0.4"}));
    expect_rows(ravo_cmd_show_addr_tbl, {"1034", "0.0.0.0"}, {}, /*exact=*/true);
}

TEST_F(RavoCliTable, ANameOfOneCharacterIsAName) {
    iface record = record_named("8");
    record.ifindex = 7000;
    record.server_db[0] = fake::address("10.0.0.8");
    store(record);
    fake::add_name("8", 7000);
    expect_rows(ravo_cmd_show_addr_tbl, {"7000", "10.0.0.8"},
                {address_row(7000, "10.0.0.8"), address_row(1034, "10.0.0.1"), address_row(1034, "10.0.0.3"),
                 address_row(1044, "10.0.0.1")},
                /*exact=*/true);
}

TEST_F(RavoCliTable, OnlyPlainServersHaveRows) {
    ravo_if_del_all_if();
    iface record = vlan_record(10, {"0.0.0.0", "0.0.0.0", "0.0.0.0", "10.0.0.4"});
    record.opt60_count = 1;
    record.opt60_hosts[0].used = 1;
    record.opt60_hosts[0].server = fake::address("10.0.0.9");
    store(record);
    expect_rows(ravo_cmd_show_addr_tbl, {"0", "0.0.0.0"}, {address_row(1034, "10.0.0.4")});
    expect_rows(ravo_cmd_show_addr_tbl, {"1034", "10.0.0.4"}, {});
    expect_rows(ravo_cmd_show_addr_tbl, {"1034", "0.0.0.1"}, {}, /*exact=*/true);
}

TEST_F(RavoCliTable, TrustedInterfacesAreWalkedFromTheFirst) {
    expect_rows(ravo_cmd_show_trust_tbl, {"0"}, {trust_row(1034), trust_row(1054)});
}

TEST_F(RavoCliTable, TrustedInterfacesAreWalkedFromAKey) {
    expect_rows(ravo_cmd_show_trust_tbl, {"1034"}, {trust_row(1054)});
    expect_rows(ravo_cmd_show_trust_tbl, {"1044"}, {trust_row(1054)});  // need not be trusted itself
    expect_rows(ravo_cmd_show_trust_tbl, {"1029"}, {trust_row(1034), trust_row(1054)});
    expect_rows(ravo_cmd_show_trust_tbl, {"1054"}, {});
    expect_rows(ravo_cmd_show_trust_tbl, {"1035"}, {});
}

TEST_F(RavoCliTable, ATrustKeyIsExactWhenTheInterfaceIsTrusted) {
    expect_rows(ravo_cmd_show_trust_tbl, {"1034"}, {trust_row(1034), trust_row(1054)}, /*exact=*/true);
    expect_rows(ravo_cmd_show_trust_tbl, {"1044"}, {trust_row(1054)}, /*exact=*/true);
    expect_rows(ravo_cmd_show_trust_tbl, {"1035"}, {}, /*exact=*/true);
}

TEST_F(RavoCliTable, AnExactTrustKeyBecomesTheNumberOfItsRecord) {
    fake::add_name("swp10", 5130);  // leads to the record of vlan10: names that end in one number are one key
    expect_rows(ravo_cmd_show_trust_tbl, {"5130"}, {trust_row(1034), trust_row(1054)}, /*exact=*/true);
}

TEST_F(RavoCliTable, AFullBufferEndsAWalk) {
    for (int room = 0; room <= 3; ++room) {
        fake::session session = fake::session::with_view(4);
        session.keyed_room = room;
        EXPECT_EQ(session.run(ravo_cmd_show_addr_tbl, {"0", "0.0.0.0"}), room < 3 ? 4 : 0) << room;
        EXPECT_EQ(session.outputs.size(), static_cast<std::size_t>(room < 3 ? 2 * room + 1 : 6)) << room;
    }
    for (int room = 0; room <= 2; ++room) {
        fake::session session = fake::session::with_view(4);
        session.keyed_room = room;
        EXPECT_EQ(session.run(ravo_cmd_show_trust_tbl, {"0"}), room < 2 ? 4 : 0) << room;
        EXPECT_EQ(session.outputs.size(), static_cast<std::size_t>(room < 2 ? 2 * room + 1 : 4)) << room;
    }
}

TEST_F(RavoCliTable, WithoutRecordsTheTablesAreEmpty) {
    ravo_if_del_all_if();
    expect_rows(ravo_cmd_show_addr_tbl, {"0", "0.0.0.0"}, {});
    expect_rows(ravo_cmd_show_trust_tbl, {"0"}, {});
}

TEST_F(RavoCliTable, ARecordWithoutANumberDoesNotTrapAWalk) {
    ravo_if_del_all_if();
    iface record = vlan_record(10, {"10.0.0.1", "10.0.0.2"});
    record.ifindex = 0;
    record.trusted = 1;
    store(record);
    expect_rows(ravo_cmd_show_addr_tbl, {"0", "0.0.0.0"},
                {address_row(1034, "10.0.0.1"), address_row(1034, "10.0.0.2")});
    expect_rows(ravo_cmd_show_trust_tbl, {"0"}, {trust_row(1034)});
}

TEST_F(RavoCliTable, ARecordThatHasNoNumberAtAllHasNoRow) {
    ravo_if_del_all_if();
    iface record = vlan_record(10, {"10.0.0.1"});
    std::strcpy(record.name, "strange");
    record.ifindex = 0;
    record.trusted = 1;
    store(record);
    expect_rows(ravo_cmd_show_addr_tbl, {"0", "0.0.0.0"}, {});
    expect_rows(ravo_cmd_show_trust_tbl, {"0"}, {});
}

}  // namespace

// SPDX-License-Identifier: Apache-2.0
// The interface database: its order, its copies, and look-up by address.
#include "ravo_db_if.h"

#include <algorithm>
#include <functional>
#include <map>
#include <random>

#include "guarded_bytes.h"
#include "memmgr.h"
#include "packet_message.h"
#include "relay_fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

using RavoDbIf = Relay;
using RavoDbIfUnstarted = UnstartedRelay;

int add(const iface &record) {
    return ravo_db_if_add(&record);
}

iface with_address(const std::string &name, const char *address, std::uint32_t ifindex = 0) {
    iface record = record_named(name);
    record.if_ip = fake::address(address);
    record.ifindex = ifindex;
    return record;
}

// Looks an address up. Returns the name found, "" for none.
std::string found_by(const char *address) {
    iface record{};
    return ravo_if_ifinfo_get_by_addr(&record, fake::address(address)) == 1 ? record.name : "";
}

// ---- Order ----

TEST_F(RavoDbIf, NamesAreOrderedByTheNumberAtTheirEnd) {
    const struct {
        const char *a;
        const char *b;
        int expected;
    } pairs[] = {
        {"vlan10", "vlan10", 0},
        {"vlan10", "vlan9", 1},
        {"vlan9", "vlan10", -1},
        {"vlan10", "vlan010", 0},  // leading zeros
        {"vlan5", "port5", 0},     // the rest of the name does not count
        {"eth0/12", "vlan12", 0},  // the last run of digits
        {"vlan1a", "vlan0", 0},    // no digits at the end
        {"vlan", "", 0},
        {"7", "vlan7", 0},  // the number alone
        {"7a8", "vlan8", 0},
        {"vlan65546", "vlan10", 0},  // modulo 65536
        {"vlan32767", "vlan1", 1},
        {"vlan32768", "vlan1", -1},  // signed: -32768
        {"vlan65535", "vlan0", -1},  // signed: -1
    };
    for (const auto &pair : pairs) {
        const ravo_if_key a = ravo_db_if_key(pair.a);
        const ravo_if_key b = ravo_db_if_key(pair.b);
        EXPECT_EQ(ravo_db_if_compare(&a, &b), pair.expected) << pair.a << " " << pair.b;
    }
}

TEST_F(RavoDbIf, ANameThatFillsItsFieldEndsThere) {
    packet::guarded_bytes name(packet::text("aaaaaaaaaaaaaaaaaaa42"));
    ASSERT_EQ(name.size(), sizeof iface::name);
    EXPECT_EQ(ravo_db_if_key(reinterpret_cast<const char *>(name.data())).number, 42);
}

TEST_F(RavoDbIf, AMissingArgumentSortsFirst) {
    const ravo_if_key key = ravo_db_if_key("vlan1");
    EXPECT_EQ(ravo_db_if_compare(nullptr, &key), -1);
    EXPECT_EQ(ravo_db_if_compare(&key, nullptr), -1);
    EXPECT_EQ(ravo_db_if_compare(nullptr, nullptr), -1);
}

TEST_F(RavoDbIf, AWalkGoesInOrder) {
    for (const char *name : {"vlan100", "vlan9", "vlan40000", "vlan1", "eth0/12"})
        EXPECT_EQ(add(record_named(name)), 1);
    EXPECT_THAT(stored_names(), ElementsAre("vlan40000", "vlan1", "vlan9", "eth0/12", "vlan100"));
}

// ---- Start-up ----

TEST_F(RavoDbIfUnstarted, StartUpResetsTheSettingsAndCreatesBothTrees) {
    EXPECT_FALSE(ravo_db_if_tree_exists());
    EXPECT_EQ(ravo_db_init(), 0);
    EXPECT_TRUE(ravo_db_if_tree_exists());
    EXPECT_EQ(fake::trees_used(), 2u);
    EXPECT_THAT(fake::statuses, ElementsAre("28 2 \"\""));
    EXPECT_EQ(settings_now().hops, 4u);
}

TEST_F(RavoDbIfUnstarted, WithoutATreeEverythingFailsSilently) {
    iface record = record_named("vlan10");
    struct interface *ifp = fake::add_vlan(10, {{"192.0.2.1"}});
    EXPECT_EQ(ravo_db_if_add(&record), 0);
    EXPECT_EQ(ravo_db_if_get(&record), 0);
    EXPECT_EQ(ravo_db_if_get_first(&record), 0);
    EXPECT_EQ(ravo_db_if_get_next(&record), 0);
    EXPECT_EQ(ravo_db_if_go_on(&record), 0);
    EXPECT_EQ(ravo_db_if_delete("vlan10"), 0);
    EXPECT_EQ(ravo_if_ifinfo_get_by_addr(&record, 0), 0);
    EXPECT_EQ(RAVO_IF_Fill_Info(&record, ifp), 0);
    EXPECT_EQ(ravo_if_del_all_if(), 0);
    fake::add_name("port9999", 9999);
    EXPECT_EQ(ravo_db_if_view(1034), nullptr);
    EXPECT_EQ(ravo_db_if_view(9999), nullptr);
    EXPECT_EQ(ravo_if_view_by_addr(0), nullptr);
    EXPECT_THAT(fake::printed, IsEmpty());
}

TEST_F(RavoDbIf, WithoutAnArgumentEverythingFailsSilently) {
    add(record_named("vlan10"));
    iface record = record_named("vlan10");
    EXPECT_EQ(ravo_db_if_add(nullptr), 0);
    EXPECT_EQ(ravo_db_if_get(nullptr), 0);
    EXPECT_EQ(ravo_db_if_get_first(nullptr), 0);
    EXPECT_EQ(ravo_db_if_get_next(nullptr), 0);
    EXPECT_EQ(ravo_db_if_go_on(nullptr), 0);
    EXPECT_EQ(ravo_db_if_delete(nullptr), 0);
    EXPECT_EQ(ravo_if_ifinfo_get_by_addr(nullptr, 0), 0);
    EXPECT_EQ(RAVO_IF_Fill_Info(nullptr, fake::add_vlan(10)), 0);
    EXPECT_EQ(RAVO_IF_Fill_Info(&record, nullptr), 0);
    EXPECT_THAT(fake::printed, IsEmpty());
    EXPECT_THAT(stored_names(), ElementsAre("vlan10"));
}

TEST_F(RavoDbIf, ANewRecordIsInUseAndHasNoAddress) {
    iface record = record_named("vlan10");
    record.if_ip = fake::address("192.0.2.1");
    EXPECT_EQ(ravo_db_if_get_or_new(&record), 0);
    EXPECT_EQ(record.if_ip, 0u);
    EXPECT_EQ(record.in_use, 1u);
}

TEST_F(RavoDbIf, NumbersBeyondThoseOfVlansAreKeptTooAndFound) {
    for (const char *name : {"vlan4094", "vlan4095", "vlan4096"}) add(record_named(name));
    for (const char *name : {"vlan4094", "vlan4095", "vlan4096"}) {
        iface record = record_named(name);
        EXPECT_EQ(ravo_db_if_get(&record), 1) << name;
        EXPECT_EQ(ravo_db_if_delete(name), 1) << name;
    }
    EXPECT_THAT(stored_names(), IsEmpty());
}

TEST_F(RavoDbIf, ASecondStartBeginsWithEmptyTrees) {
    add(record_named("vlan10"));
    ravo_db_init();
    EXPECT_THAT(stored_names(), IsEmpty());
    EXPECT_EQ(fake::trees_used(), 2u);
    EXPECT_EQ(fake::blocks_used(), 0u);
}

// ---- Records ----

TEST_F(RavoDbIf, ARecordIsCopiedWhole) {
    iface record;
    std::memset(&record, 0x41, sizeof record);
    std::strcpy(record.name, "vlan10");
    std::strcpy(record.aid, "agent");
    for (opt60_host &host : record.opt60_hosts) std::strcpy(host.vendor, "vendor");
    EXPECT_EQ(add(record), 1);
    EXPECT_EQ(describe(*stored_record("vlan10")), describe(record));
}

TEST_F(RavoDbIf, AddingVlan10AndThenVlan010LeavesOneRecord) {
    iface first = record_named("vlan10");
    first.trusted = 1;
    iface second = record_named("vlan010");
    second.ifindex = 77;
    EXPECT_EQ(add(first), 1);
    EXPECT_EQ(add(second), 1);
    EXPECT_THAT(stored_names(), ElementsAre("vlan010"));
    EXPECT_EQ(describe(*stored_record("vlan10")), describe(second));
    EXPECT_EQ(fake::blocks_used(), 1u);
}

TEST_F(RavoDbIf, ALookUpByAnotherNameOfTheSameNumberFindsTheRecord) {
    add(record_named("port5"));
    EXPECT_STREQ(stored_record("vlan5")->name, "port5");
}

TEST_F(RavoDbIf, GetLeavesTheBufferWhenThereIsNone) {
    iface record = record_named("vlan10");
    record.ifindex = 5;
    EXPECT_EQ(ravo_db_if_get(&record), 0);
    EXPECT_EQ(record.ifindex, 5u);
}

TEST_F(RavoDbIf, GetFirstClearsTheBufferWhenThereIsNone) {
    iface record;
    std::memset(&record, 0xff, sizeof record);
    EXPECT_EQ(ravo_db_if_get_first(&record), 0);
    EXPECT_EQ(describe(record), describe(iface{}));
}

TEST_F(RavoDbIf, GetNextOfTheLastRecordAndOfAnUnknownNameFails) {
    add(record_named("vlan10"));
    add(record_named("vlan20"));
    iface record = record_named("vlan20");
    EXPECT_EQ(ravo_db_if_get_next(&record), 0);
    record = record_named("vlan15");
    EXPECT_EQ(ravo_db_if_get_next(&record), 0);
    record = record_named("vlan10");
    EXPECT_EQ(ravo_db_if_get_next(&record), 1);
    EXPECT_STREQ(record.name, "vlan20");
}

TEST_F(RavoDbIf, AWalkGoesOnBehindARecordThatHasGone) {
    for (const char *name : {"vlan10", "vlan20", "vlan30", "vlan40"}) add(record_named(name));
    std::vector<std::string> seen;
    for (const iface &record : ravo_db_if_all()) {
        seen.emplace_back(record.name);
        // The one in hand, and the one before it.
        if (seen.size() == 2) {
            EXPECT_EQ(ravo_db_if_delete("vlan20"), 1);
            EXPECT_EQ(ravo_db_if_delete("vlan10"), 1);
        }
        if (seen.size() == 3) {
            EXPECT_EQ(ravo_db_if_delete("vlan40"), 1);
        }
    }
    EXPECT_THAT(seen, testing::ElementsAre("vlan10", "vlan20", "vlan30"));
}

TEST_F(RavoDbIf, DeletingANameThatNoRecordCanHaveDeletesNothing) {
    add(record_named("vlan10"));
    EXPECT_EQ(ravo_db_if_delete("aaaaaaaaaaaaaaaaaaa10"), 1);  // its first 20 characters fit, its number is 10
    EXPECT_EQ(ravo_db_if_delete("aaaaaaaaaaaaaaaaaaa10b"), 1);
    EXPECT_THAT(stored_names(), ElementsAre("vlan10"));
}

TEST_F(RavoDbIf, WhatIsFoundIsToldByOne) {
    add(record_named("vlan10"));
    add(record_named("vlan20"));
    iface record;
    EXPECT_EQ(ravo_db_if_get_first(&record), 1);
    EXPECT_EQ(ravo_db_if_get(&record), 1);
    EXPECT_EQ(ravo_db_if_get_or_new(&record), 1);
    EXPECT_EQ(ravo_db_if_go_on(&record), 1);
    EXPECT_STREQ(record.name, "vlan20");
    EXPECT_EQ(ravo_db_if_go_on(&record), 0);
    EXPECT_STREQ(record.name, "vlan20");
}

TEST_F(RavoDbIf, GetNextOfAnotherNameOfTheSameNumberGivesTheSuccessor) {
    add(record_named("vlan10"));
    add(record_named("vlan20"));
    iface record = record_named("port010");
    EXPECT_EQ(ravo_db_if_get_next(&record), 1);
    EXPECT_STREQ(record.name, "vlan20");
}

TEST_F(RavoDbIf, AddFailsWithoutMemoryAndChangesNothing) {
    fake::memory_budget = sizeof(iface) * 3 / 2;  // one record, with what the database keeps beside it
    EXPECT_EQ(add(record_named("vlan10")), 1);
    EXPECT_EQ(add(record_named("vlan20")), 0);
    EXPECT_EQ(add(with_address("vlan10", "192.0.2.1")), 1);  // an update needs none
    EXPECT_THAT(stored_names(), ElementsAre("vlan10"));
}

TEST_F(RavoDbIf, AddSucceedsWhateverTheTreeAnswers) {
    fake::script(fake::op::avl_insert);
    EXPECT_EQ(add(with_address("vlan10", "192.0.2.1")), 1);
    EXPECT_THAT(stored_names(), IsEmpty());
    EXPECT_EQ(found_by("192.0.2.1"), "");
}

// ---- Views ----

TEST_F(RavoDbIf, AViewShowsTheRecordOfAnInterfaceNumber) {
    const iface ten = with_address("vlan10", "192.0.2.10", 1034);
    EXPECT_EQ(add(ten), 1);
    EXPECT_EQ(add(record_named("vlan4094")), 1);
    ASSERT_NE(ravo_db_if_view(1034), nullptr);
    EXPECT_EQ(describe(*ravo_db_if_view(1034)), describe(ten));
    EXPECT_STREQ(ravo_db_if_view(1024 + 4094)->name, "vlan4094");
    EXPECT_EQ(ravo_db_if_view(1035), nullptr);
    iface other = ten;
    other.trusted = 1;
    EXPECT_EQ(add(other), 1);
    EXPECT_EQ(ravo_db_if_view(1034)->trusted, 1u);
    EXPECT_EQ(ravo_db_if_delete("vlan10"), 1);
    EXPECT_EQ(ravo_db_if_view(1034), nullptr);
}

// Names that end in one number are one key, and a number that is no VLAN interface's is asked for its name.
TEST_F(RavoDbIf, AViewGoesByTheNumberAtTheEndOfTheName) {
    fake::add_name("swp10", 5130);
    fake::add_name("swp40000", 5131);
    EXPECT_EQ(add(record_named("port10")), 1);
    EXPECT_EQ(add(record_named("port40000")), 1);
    EXPECT_EQ(add(record_named("eth")), 1);  // number 0, like the empty name of what names nothing
    EXPECT_STREQ(ravo_db_if_view(1034)->name, "port10");
    EXPECT_STREQ(ravo_db_if_view(5130)->name, "port10");
    EXPECT_STREQ(ravo_db_if_view(5131)->name, "port40000");
    EXPECT_STREQ(ravo_db_if_view(9999)->name, "eth");
    EXPECT_STREQ(ravo_db_if_view(1024)->name, "eth");
    EXPECT_STREQ(ravo_db_if_view(1024 + 4095)->name, "eth") << "no VLAN interface's number, and nobody else's";
}

TEST_F(RavoDbIf, ARecordThatTheTreeRefusedIsNotShown) {
    fake::script(fake::op::avl_insert);
    EXPECT_EQ(add(record_named("vlan10")), 1);
    EXPECT_EQ(ravo_db_if_view(1034), nullptr);
}

TEST_F(RavoDbIf, ARecordThatTheTreeKeepsStaysShown) {
    EXPECT_EQ(add(record_named("vlan10")), 1);
    fake::script(fake::op::avl_remove);
    EXPECT_EQ(ravo_db_if_delete("vlan10"), 0);
    ASSERT_NE(ravo_db_if_view(1034), nullptr);
    EXPECT_STREQ(ravo_db_if_view(1034)->name, "vlan10");
}

TEST_F(RavoDbIf, ViewsAreGoneWithTheTree) {
    EXPECT_EQ(add(with_address("vlan10", "192.0.2.10")), 1);
    ravo_db_if_exit();
    EXPECT_EQ(ravo_db_if_view(1034), nullptr);
    EXPECT_EQ(ravo_if_view_by_addr(fake::address("192.0.2.10")), nullptr);
    ravo_db_if_init();
    EXPECT_EQ(ravo_db_if_view(1034), nullptr);
}

// ---- Delete ----

TEST_F(RavoDbIf, DeletingWhatIsNotStoredSucceeds) {
    EXPECT_EQ(ravo_db_if_delete("vlan10"), 1);
    add(record_named("vlan10"));
    EXPECT_EQ(ravo_db_if_delete("vlan11"), 1);
    EXPECT_EQ(ravo_db_if_delete("a name that is far too long to be stored 10"), 1);
    EXPECT_THAT(stored_names(), ElementsAre("vlan10"));
}

TEST_F(RavoDbIf, DeleteTakesTheRecordOutAndFreesIt) {
    add(record_named("vlan10"));
    add(record_named("vlan20"));
    EXPECT_EQ(ravo_db_if_delete("vlan10"), 1);
    EXPECT_THAT(stored_names(), ElementsAre("vlan20"));
    EXPECT_EQ(fake::blocks_used(), 1u);
}

TEST_F(RavoDbIf, ARecordThatCannotBeRemovedStaysAndStaysCached) {
    add(with_address("vlan10", "192.0.2.1", 1034));
    ASSERT_EQ(found_by("192.0.2.1"), "vlan10");
    fake::script(fake::op::avl_remove);
    EXPECT_EQ(ravo_db_if_delete("vlan10"), 0);
    EXPECT_THAT(stored_names(), ElementsAre("vlan10"));
    fake::forget();
    EXPECT_EQ(found_by("192.0.2.1"), "vlan10");
    EXPECT_THAT(fake::traces(),
                ElementsAre(fake::line{101, "ravo_if_ifinfo_get_by_addr (#):Matched interface cache vlan10\n"}));
}

TEST_F(RavoDbIf, DeletingAllTracesItsEntryAndExit) {
    for (const char *name : {"vlan1", "vlan2", "vlan3"}) add(record_named(name));
    EXPECT_EQ(ravo_if_del_all_if(), 0);
    EXPECT_THAT(stored_names(), IsEmpty());
    EXPECT_EQ(fake::blocks_used(), 0u);
    EXPECT_THAT(fake::traces(), ElementsAre(fake::line{101, "ravo_if_del_all_if (#)++\n"},
                                            fake::line{101, "ravo_if_del_all_if (#)--\n"}));
}

// ---- Filling from the system's interface ----

TEST_F(RavoDbIf, FillTakesNumberHardwareAddressAndPrimaryAddress) {
    fake::interface_setup setup;
    setup.name = "vlan10";
    setup.mac = {0x02, 0xab, 0x03, 0xcd, 0x04, 0xef};
    setup.addresses = {{"192.0.2.1"}, {"192.0.2.2"}};
    iface record = record_named("vlan10");
    record.trusted = 1;
    EXPECT_EQ(RAVO_IF_Fill_Info(&record, fake::add_interface(setup)), 0);

    iface expected = record_named("vlan10");
    expected.trusted = 1;
    expected.ifindex = 1034;
    expected.if_ip = fake::address("192.0.2.1");
    expected.if_maclen = 6;
    std::copy(setup.mac.begin(), setup.mac.end(), expected.if_mac);
    EXPECT_EQ(describe(record), describe(expected));
    EXPECT_THAT(fake::traces(),
                ElementsAre(fake::line{101, "RAVO_IF_Fill_Info (#): Fill interface vlan10 information \n"},
                            fake::line{101, "RAVO_IF_Fill_Info (#): ifindex=1034, MAC Len=6, MAC=02AB.03CD.04EF\n"}));
}

TEST_F(RavoDbIf, FillCopiesSixteenBytesOfHardwareAddress) {
    fake::interface_setup setup;
    setup.name = "vlan10";
    setup.mac = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
    iface record = record_named("vlan10");
    RAVO_IF_Fill_Info(&record, fake::add_interface(setup));
    EXPECT_EQ(hex_of(record.if_mac, 16), "0102030405060708090a0b0c0d0e0f10");
    EXPECT_EQ(record.if_maclen, 16u);
}

TEST_F(RavoDbIf, FillSkipsAddressesOfEitherFlag) {
    iface record = record_named("vlan10");
    RAVO_IF_Fill_Info(&record,
                      fake::add_vlan(10, {{"192.0.2.1", 1}, {"192.0.2.2", 4}, {"192.0.2.3", 5}, {"192.0.2.4", 2}}));
    EXPECT_STREQ(ravo_addr_text(record.if_ip).text, "192.0.2.4");
}

TEST_F(RavoDbIf, FillKeepsTheAddressWhenEveryOneIsFlagged) {
    iface record = with_address("vlan10", "198.51.100.1");
    RAVO_IF_Fill_Info(&record, fake::add_vlan(10, {{"192.0.2.1", 1}, {"192.0.2.2", 4}}));
    EXPECT_STREQ(ravo_addr_text(record.if_ip).text, "198.51.100.1");
    EXPECT_EQ(record.ifindex, 1034u);
}

TEST_F(RavoDbIf, FillKeepsTheAddressWithoutAnAddressList) {
    iface record = with_address("vlan10", "198.51.100.1");
    RAVO_IF_Fill_Info(&record, fake::add_vlan(10));
    EXPECT_STREQ(ravo_addr_text(record.if_ip).text, "198.51.100.1");
}

TEST_F(RavoDbIf, RecordTakesAsMuchOfItsNameAsFits) {
    const std::string longest(sizeof iface::name - 1, 'x');
    EXPECT_STREQ(ravo_db_if_named(longest.c_str()).name, longest.c_str());
    EXPECT_STREQ(ravo_db_if_named((longest + "y").c_str()).name, longest.c_str());
}

TEST_F(RavoDbIf, NameFitsWithItsEnd) {
    EXPECT_TRUE(ravo_db_if_name_fits(""));
    EXPECT_TRUE(ravo_db_if_name_fits(std::string(sizeof iface::name - 1, 'x').c_str()));
    EXPECT_FALSE(ravo_db_if_name_fits(std::string(sizeof iface::name, 'x').c_str()));
}

}  // namespace

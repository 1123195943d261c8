// The index by address beside the interface tree: whatever was added, changed and deleted before, a look-up that misses
// the cache finds the record that a walk of the tree would meet first.
#include <random>

#include "relay_fixture.h"

namespace {

class AddressIndex : public Relay {
  protected:
    void SetUp() override {
        Relay::SetUp();
        fake::print_from(200);  // traces of thousands of look-ups are of no use
    }

    // The first record of a walk with this address.
    static std::optional<iface> walk_to(std::uint32_t address) {
        iface record;
        for (int found = ravo_db_if_get_first(&record); found != 0; found = ravo_db_if_get_next(&record))
            if (record.if_ip == address) return record;
        return std::nullopt;
    }

    // Compares look-up and walk for an address. The cache is led away to another address first; returns false when
    // there is none.
    static bool compare(std::uint32_t address, std::uint32_t other) {
        iface found;
        if (ravo_if_ifinfo_get_by_addr(&found, other) == 0) return false;
        const std::optional<iface> expected = walk_to(address);
        EXPECT_EQ(expected ? 1 : 0, ravo_if_ifinfo_get_by_addr(&found, address));
        if (expected) {
            EXPECT_EQ(describe(*expected), describe(found));
        }
        return true;
    }

    // Names of both kinds of number: small ones, and such that sort as negative ones.
    std::string random_name() {
        const unsigned long number = random() % 20 + (random() % 2 == 0 ? 0u : 32760u);
        return (random() % 2 == 0 ? "vlan" : "port") + std::to_string(number);
    }

    void change_something() {
        iface record = record_named(random_name());
        record.if_ip = static_cast<std::uint32_t>(random() % 6);
        record.ifindex = static_cast<std::uint32_t>(random() % 50);
        if (random() % 500 == 0)
            ravo_if_del_all_if();
        else if (random() % 3 == 0)
            ravo_db_if_delete(record.name);
        else
            ravo_db_if_add(&record);
    }

    std::mt19937 random{1};
};

TEST_F(AddressIndex, AgreesWithAWalkAfterAnyChanges) {
    int compared = 0;
    for (int i = 0; i < 4000; ++i) {
        change_something();
        const auto address = static_cast<std::uint32_t>(random() % 7);  // 6 is never used
        const auto other = static_cast<std::uint32_t>((address + 1 + random() % 6) % 7);
        if (compare(address, other)) ++compared;
        if (HasFailure()) break;
    }
    EXPECT_GT(compared, 2000);
}

TEST_F(AddressIndex, FollowsARecordThatChangesItsAddress) {
    iface record = vlan_record(10);
    record.if_ip = fake::address("192.0.2.1");
    ravo_db_if_add(&record);
    record.if_ip = fake::address("192.0.2.2");
    ravo_db_if_add(&record);
    iface found;
    EXPECT_EQ(0, ravo_if_ifinfo_get_by_addr(&found, fake::address("192.0.2.1")));
    EXPECT_EQ(1, ravo_if_ifinfo_get_by_addr(&found, fake::address("192.0.2.2")));
    EXPECT_EQ(describe(record), describe(found));
}

TEST_F(AddressIndex, ForgetsARecordThatTheTreeRefused) {
    iface record = vlan_record(10);
    record.if_ip = fake::address("192.0.2.1");
    fake::script(fake::op::avl_insert);
    EXPECT_EQ(1, ravo_db_if_add(&record));
    iface found;
    EXPECT_EQ(0, ravo_if_ifinfo_get_by_addr(&found, record.if_ip));
    EXPECT_EQ(0, ravo_db_if_get(&record));
}

TEST_F(AddressIndex, KeepsARecordThatTheTreeWouldNotGive) {
    iface record = vlan_record(10);
    record.if_ip = fake::address("192.0.2.1");
    ravo_db_if_add(&record);
    fake::script(fake::op::avl_remove);
    EXPECT_EQ(0, ravo_db_if_delete("vlan10"));
    iface found;
    EXPECT_EQ(1, ravo_if_ifinfo_get_by_addr(&found, record.if_ip));
}

TEST_F(AddressIndex, StartsEmptyAgain) {
    iface record = vlan_record(10);
    record.if_ip = fake::address("192.0.2.1");
    ravo_db_if_add(&record);
    iface found;
    ASSERT_EQ(1, ravo_if_ifinfo_get_by_addr(&found, record.if_ip));
    ravo_db_init();
    EXPECT_EQ(0, ravo_if_ifinfo_get_by_addr(&found, record.if_ip));
    EXPECT_EQ(2u, fake::trees_used());
    EXPECT_EQ(0u, fake::blocks_used());
}

}  // namespace

// SPDX-License-Identifier: Apache-2.0
// Look-up of records by address: the record found last is tried first, and an index by address stands beside the tree.
// Whatever was added, changed and deleted before, a look-up that misses the cache finds the record that a walk of the
// tree would meet first.
#include <functional>
#include <map>
#include <random>

#include "relay_fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

using RavoDbIf = Relay;

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

// ---- Look-up by address ----

TEST_F(RavoDbIf, ALookUpMissesThenFindsThenHitsTheCache) {
    add(with_address("vlan10", "192.0.2.1", 1034));
    EXPECT_EQ(found_by("192.0.2.9"), "");
    EXPECT_EQ(found_by("192.0.2.1"), "vlan10");
    EXPECT_EQ(found_by("192.0.2.1"), "vlan10");
    EXPECT_THAT(
        fake::traces(),
        ElementsAre(
            fake::line{104, "ravo_if_ifinfo_get_by_addr (#): Get interface by addr failed,ip=192.0.2.9\n"},
            fake::line{101,
                       "ravo_if_ifinfo_get_by_addr (#): Get interface by addr succeed,ifindex=1034,ip=192.0.2.1\n"},
            fake::line{101, "ravo_if_ifinfo_get_by_addr (#):Matched interface cache vlan10\n"}));
}

TEST_F(RavoDbIf, ALookUpCopiesTheWholeRecord) {
    iface record = vlan_record(10, {"10.0.0.1"});
    record.if_ip = fake::address("192.0.2.1");
    record.trusted = 1;
    add(record);
    for (int i = 0; i < 2; ++i) {
        iface out;
        std::memset(&out, 0xff, sizeof out);
        ASSERT_EQ(ravo_if_ifinfo_get_by_addr(&out, record.if_ip), 1);
        EXPECT_EQ(describe(out), describe(record));
    }
}

TEST_F(RavoDbIf, AMissLeavesTheBufferAndTheCache) {
    add(with_address("vlan10", "192.0.2.1"));
    ASSERT_EQ(found_by("192.0.2.1"), "vlan10");
    iface out = record_named("untouched");
    EXPECT_EQ(ravo_if_ifinfo_get_by_addr(&out, fake::address("192.0.2.9")), 0);
    EXPECT_STREQ(out.name, "untouched");
    fake::forget();
    found_by("192.0.2.1");
    EXPECT_THAT(fake::traces(101), ElementsAre("ravo_if_ifinfo_get_by_addr (#):Matched interface cache vlan10\n"));
}

TEST_F(RavoDbIf, ALookUpOfAddressZeroFindsARecordWithoutAddress) {
    add(with_address("vlan10", "192.0.2.1"));
    add(record_named("vlan20"));
    EXPECT_EQ(found_by("0.0.0.0"), "vlan20");
}

TEST_F(RavoDbIf, AnAddressIsNotTakenForAnotherThatWasLookedForBefore) {
    fake::print_from(200);
    add(with_address("vlan10", "192.0.2.1"));
    const std::uint32_t known = fake::address("192.0.2.1");
    ASSERT_EQ(found_by("192.0.2.1"), "vlan10");
    iface record;
    for (std::uint32_t other = 0; other < 5000; ++other) {
        ASSERT_EQ(ravo_if_ifinfo_get_by_addr(&record, htonl(0x0A000000 + other)), 0) << other;
        if (other % 1000 == 0) {
            ASSERT_EQ(ravo_if_ifinfo_get_by_addr(&record, known), 1) << other;
        }
    }
}

TEST_F(RavoDbIf, OfSeveralRecordsTheFirstInOrderIsFound) {
    add(with_address("vlan30", "192.0.2.1"));
    add(with_address("vlan10", "192.0.2.1"));
    add(with_address("vlan20", "192.0.2.1"));
    EXPECT_EQ(found_by("192.0.2.1"), "vlan10");
}

TEST_F(RavoDbIf, TheCacheWinsOverAnEarlierRecord) {
    add(with_address("vlan30", "192.0.2.1"));
    ASSERT_EQ(found_by("192.0.2.1"), "vlan30");
    add(with_address("vlan10", "192.0.2.1"));
    EXPECT_EQ(found_by("192.0.2.1"), "vlan30");
}

TEST_F(RavoDbIf, AnUpdateInPlaceKeepsTheCache) {
    add(with_address("vlan10", "192.0.2.1"));
    ASSERT_EQ(found_by("192.0.2.1"), "vlan10");
    add(with_address("vlan10", "192.0.2.7"));
    fake::forget();
    EXPECT_EQ(found_by("192.0.2.7"), "vlan10");
    EXPECT_EQ(found_by("192.0.2.1"), "");
    EXPECT_THAT(fake::traces(101), ElementsAre("ravo_if_ifinfo_get_by_addr (#):Matched interface cache vlan10\n"));
}

TEST_F(RavoDbIf, DeletingTheCachedRecordClearsTheCache) {
    add(with_address("vlan10", "192.0.2.1", 1034));
    add(with_address("vlan20", "192.0.2.1", 1044));
    ASSERT_EQ(found_by("192.0.2.1"), "vlan10");
    EXPECT_EQ(ravo_db_if_delete("vlan10"), 1);
    EXPECT_EQ(found_by("192.0.2.1"), "vlan20");
}

TEST_F(RavoDbIf, DeletingAnotherRecordOfTheSameIfindexClearsTheCache) {
    add(with_address("vlan30", "192.0.2.1", 7));
    add(with_address("vlan20", "192.0.2.2", 7));
    ASSERT_EQ(found_by("192.0.2.1"), "vlan30");
    add(with_address("vlan10", "192.0.2.1", 8));
    ASSERT_EQ(found_by("192.0.2.1"), "vlan30");  // from the cache
    EXPECT_EQ(ravo_db_if_delete("vlan20"), 1);
    EXPECT_EQ(found_by("192.0.2.1"), "vlan10");  // from the walk
}

TEST_F(RavoDbIf, DeletingARecordOfAnotherIfindexKeepsTheCache) {
    add(with_address("vlan30", "192.0.2.1", 7));
    add(with_address("vlan20", "192.0.2.2", 9));
    ASSERT_EQ(found_by("192.0.2.1"), "vlan30");
    add(with_address("vlan10", "192.0.2.1", 8));
    EXPECT_EQ(ravo_db_if_delete("vlan20"), 1);
    EXPECT_EQ(found_by("192.0.2.1"), "vlan30");
}

// What a look-up by address must answer: the cached record, else a walk from the first record on.
class walked_database {
  public:
    void add(const iface &record) { records_[key_of(record)] = record; }

    void remove(const iface &record) {
        const auto found = records_.find(key_of(record));
        if (found == records_.end()) return;
        if (cache_ && records_.at(*cache_).ifindex == found->second.ifindex) cache_.reset();
        records_.erase(found);
    }

    // The description of the record found, with how it was found.
    std::string look_up(std::uint32_t address) {
        if (cache_ && records_.at(*cache_).if_ip == address) return "cache " + describe(records_.at(*cache_));
        for (const auto &[key, record] : records_) {
            if (record.if_ip != address) continue;
            cache_ = key;
            return "walk " + describe(record);
        }
        return "none";
    }

    std::size_t size() const { return records_.size(); }

  private:
    static int key_of(const iface &record) {
        std::uint16_t number = 0;
        for (const char *at = record.name; *at != '\0'; ++at)
            number =
                *at >= '0' && *at <= '9' ? static_cast<std::uint16_t>(number * 10 + (*at - '0')) : std::uint16_t{0};
        return static_cast<std::int16_t>(number);
    }

    std::map<int, iface> records_;
    std::optional<int> cache_;
};

std::string looked_up(std::uint32_t address) {
    fake::forget_printed();
    iface record{};
    const int found = ravo_if_ifinfo_get_by_addr(&record, address);
    const std::vector<fake::line> lines = fake::traces();
    if (lines.size() != 1) return "traced " + std::to_string(lines.size()) + " lines";
    if (found == 0) return lines[0].level == 104 ? "none" : "none, wrongly traced";
    const bool cached = lines[0].text.find("Matched interface cache") != std::string::npos;
    return (cached ? "cache " : "walk ") + describe(record);
}

TEST_F(RavoDbIf, EveryLookUpAnswersAsAWalkWould) {
    std::mt19937 random(20240229);
    const auto below = [&random](unsigned limit) { return static_cast<std::uint32_t>(random() % limit); };
    const char *const names[] = {"vlan1",     "vlan2",     "port2", "vlan3",   "vlan03",
                                 "vlan40000", "vlan65535", "lo",    "vlan4094"};
    walked_database expected;
    std::size_t largest = 0;
    for (int step = 0; step < 20000; ++step) {
        iface record = record_named(names[below(std::size(names))]);
        record.if_ip = htonl(below(5));
        record.ifindex = below(4);
        record.trusted = static_cast<std::uint32_t>(step);
        switch (below(5)) {
            case 0:
            case 1:
                ASSERT_EQ(add(record), 1);
                expected.add(record);
                break;
            case 2: {
                const bool refused = below(4) == 0;
                const bool there = stored_record(record.name).has_value();
                if (refused) fake::script(fake::op::avl_remove);
                ASSERT_EQ(ravo_db_if_delete(record.name), refused && there ? 0 : 1);
                fake::clear_scripts();
                if (!refused) expected.remove(record);
                break;
            }
            default:
                ASSERT_EQ(looked_up(record.if_ip), expected.look_up(record.if_ip)) << "step " << step;
        }
        ASSERT_EQ(fake::blocks_used(), expected.size());
        largest = std::max(largest, expected.size());
    }
    EXPECT_EQ(largest, 7u);  // all keys were stored at once
}

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
            EXPECT_EQ(ravo_db_if_delete(record.name), 1);
        else
            EXPECT_EQ(ravo_db_if_add(&record), 1);
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
    EXPECT_EQ(ravo_db_if_add(&record), 1);
    record.if_ip = fake::address("192.0.2.2");
    EXPECT_EQ(ravo_db_if_add(&record), 1);
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
    EXPECT_EQ(ravo_db_if_add(&record), 1);
    fake::script(fake::op::avl_remove);
    EXPECT_EQ(0, ravo_db_if_delete("vlan10"));
    iface found;
    EXPECT_EQ(1, ravo_if_ifinfo_get_by_addr(&found, record.if_ip));
}

TEST_F(AddressIndex, StartsEmptyAgainWhenTheTreeKeptARecord) {
    iface record = vlan_record(10);
    record.if_ip = fake::address("192.0.2.1");
    EXPECT_EQ(ravo_db_if_add(&record), 1);
    iface found;
    ASSERT_EQ(ravo_if_ifinfo_get_by_addr(&found, record.if_ip), 1);
    fake::script(fake::op::avl_remove);
    ravo_db_exit();
    fake::reset_memory();  // what the tree kept is lost
    ravo_db_init();
    EXPECT_EQ(ravo_if_ifinfo_get_by_addr(&found, fake::address("192.0.2.1")), 0);
    EXPECT_FALSE(stored_record("vlan10").has_value());
    EXPECT_EQ(ravo_db_if_view(1034), nullptr);
}

TEST_F(AddressIndex, StartsEmptyAgain) {
    iface record = vlan_record(10);
    record.if_ip = fake::address("192.0.2.1");
    EXPECT_EQ(ravo_db_if_add(&record), 1);
    iface found;
    ASSERT_EQ(1, ravo_if_ifinfo_get_by_addr(&found, record.if_ip));
    ravo_db_init();
    EXPECT_EQ(0, ravo_if_ifinfo_get_by_addr(&found, record.if_ip));
    EXPECT_EQ(2u, fake::trees_used());
    EXPECT_EQ(0u, fake::blocks_used());
}

}  // namespace

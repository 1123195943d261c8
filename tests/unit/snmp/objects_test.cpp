// SPDX-License-Identifier: Apache-2.0
// The objects over a picture made by hand: every next one comes in order, whatever is asked for.
#include "objects.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace ravo::snmp;

picture sample() {
    picture p;
    for (const std::size_t column : {1, 2, 3, 4, 5, 6, 7, 9}) {
        p.settings[column] = 1;
        p.has_setting[column] = true;
    }
    p.version = "9.9";
    p.received = {1, 2, 3, 4, 5, 6, 7, 8};
    p.interfaces = {{1034, 0x0A0A0001, {2, 0, 0, 0, 0x10, 1}, false}, {1044, 0, {}, true}};
    p.addresses = {{1034, 0xC0000209}, {1034, 0xC000020B}};
    p.trusted = {1044};
    p.outcome_words = {"relayed", "delivered", "hop-limit"};
    p.outcomes = {{1034, 0, 5}, {1034, 1, 1ULL << 40}, {1044, 2, 1}};
    p.types = {{1034, 2, 5}};
    p.servers = {{1034, 0xC000020B, 6, 5, 700, 900, 12}};
    p.transactions = {{7, 1, 2}, {0xFFFFFFFF, 3, 4}};
    p.transactions_total = 2;
    return p;
}

bool always(void * /*context*/, part /*wanted*/) {
    return true;
}

std::vector<instance> walk(const picture &p) {
    std::vector<instance> out;
    instance next;
    while (find_next({&p, always, nullptr}, next.name, &next) == found::yes) out.push_back(next);
    return out;
}

TEST(Objects, AreWalkedInOrderEachOnce) {
    const picture p = sample();
    const std::vector<instance> all = walk(p);
    EXPECT_EQ(all.size(), 10u + 8 + 2 + 1 + 8 + 3 + 1 + 5 + 1 + 4);
    for (std::size_t i = 1; i < all.size(); ++i) EXPECT_LT(all[i - 1].name, all[i].name);
}

TEST(Objects, AreFoundByTheirNameAndNothingElseIs) {
    const picture p = sample();
    const source from{&p, always, nullptr};
    value v;
    for (const instance &one : walk(p)) {
        ASSERT_EQ(find_exact(from, one.name, &v), found::yes);
        EXPECT_EQ(v.number, one.value.number);
        EXPECT_EQ(v.text, one.value.text);
        oid_text other = one.name;
        other.push_back(0);
        EXPECT_EQ(find_exact(from, other, &v), found::no);
        other.pop_back();
        other.pop_back();
        EXPECT_EQ(find_exact(from, other, &v), found::no);
    }
    EXPECT_EQ(find_exact(from, {}, &v), found::no);
    EXPECT_EQ(find_exact(from, {1, 1, 8, 0}, &v), found::no);
}

TEST(Objects, HaveTheirValues) {
    const picture p = sample();
    const source from{&p, always, nullptr};
    value v;
    ASSERT_EQ(find_exact(from, {1, 2, 1, 3, 1034}, &v), found::yes);
    EXPECT_EQ(v.kind, kind::address);
    EXPECT_EQ(v.number, 0x0A0A0001);
    ASSERT_EQ(find_exact(from, {1, 2, 1, 4, 1034}, &v), found::yes);
    EXPECT_EQ(v.text, std::string("\2\0\0\0\x10\1", 6));
    ASSERT_EQ(find_exact(from, {1, 2, 1, 5, 1044}, &v), found::yes);
    EXPECT_EQ(v.number, 1);
    ASSERT_EQ(find_exact(from, {1, 6, 1, 3, 1034, 9, 'd', 'e', 'l', 'i', 'v', 'e', 'r', 'e', 'd'}, &v), found::yes);
    EXPECT_EQ(v.kind, kind::counter64);
    EXPECT_EQ(v.number, 1LL << 40);
    ASSERT_EQ(find_exact(from, {1, 8, 1, 7, 1034, 192, 0, 2, 11}, &v), found::yes);
    EXPECT_EQ(v.number, 12);
    ASSERT_EQ(find_exact(from, {1, 10, 1, 3, 0xFFFFFFFF}, &v), found::yes);
    EXPECT_EQ(v.number, 4);
}

TEST(Objects, OfAPartThatCannotBeHadAreUnavailable) {
    const picture p = sample();
    const source from{&p, [](void *, part wanted) { return wanted == part::settings; }, nullptr};
    value v;
    EXPECT_EQ(find_exact(from, {1, 1, 1, 0}, &v), found::yes);
    EXPECT_EQ(find_exact(from, {1, 2, 1, 2, 1034}, &v), found::unavailable);
    instance next;
    EXPECT_EQ(find_next(from, {1, 1, 11, 0}, &next), found::unavailable);
}

TEST(Objects, OfAnEmptyRelayAreScalarsOnly) {
    const std::vector<instance> all = walk(picture{});
    EXPECT_EQ(all.size(), 2u + 8 + 1);
}

TEST(WriteTargets, AreRowsAndTheSaving) {
    EXPECT_EQ(find_target({1, 1, 10, 0}).what, writable::save);
    const write_target row = find_target({1, 3, 1, 3, 1034, 192, 0, 2, 11});
    EXPECT_EQ(row.what, writable::address_row);
    EXPECT_EQ(row.ifindex, 1034u);
    EXPECT_EQ(address_text(row.address), "192.0.2.11");
    EXPECT_EQ(find_target({1, 4, 1, 2, 5118}).what, writable::trust_row);
    for (const oid_text &name : std::vector<oid_text>{{},
                                                      {1, 1, 2, 0},
                                                      {1, 3, 1, 3, 1034, 192, 0, 2},
                                                      {1, 3, 1, 3, 1034, 192, 0, 2, 256},
                                                      {1, 3, 1, 3, 1034, 192, 0, 2, 1, 1},
                                                      {1, 3, 1, 2, 1034, 192, 0, 2, 1},
                                                      {1, 4, 1, 2, 1024},
                                                      {1, 4, 1, 2, 5119},
                                                      {1, 4, 1, 2, 0x100000000UL + 1034},
                                                      {1, 4, 2, 2, 1034},
                                                      {2, 4, 1, 2, 1034}})
        EXPECT_EQ(find_target(name).what, writable::nothing);
}

TEST(Names, OfInterfacesAreTheirNumbers) {
    EXPECT_EQ(interface_name(1025), "vlan1");
    EXPECT_EQ(interface_name(5118), "vlan4094");
    EXPECT_EQ(interface_name(1024), "");
    EXPECT_EQ(interface_name(5119), "");
    EXPECT_EQ(interface_number("vlan4094"), 5118u);
    for (const char *name : {"vlan0", "vlan4095", "vlan", "vlan1x", "eth0", ""}) EXPECT_EQ(interface_number(name), 0u);
}

}  // namespace

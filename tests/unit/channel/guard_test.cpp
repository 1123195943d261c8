// SPDX-License-Identifier: Apache-2.0
// The guards: what each stops and what it lets pass, off and on, and what reaches a relay that would end over it.

#include "channel/guard.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "books/books.h"
#include "channel_box.h"

namespace {

using channel_frames::octets;
using ravo::platform::described_guard;
using ravo::platform::described_port;
using ravo::platform::guards;
using ravo::platform::open_transactions;
using ravo::platform::outcome_word;
using ravo::platform::switch_description;
using ravo::platform::transaction_owner;

constexpr std::int64_t second_ns = 1'000'000'000;
std::int64_t now_ns = 0;
std::int64_t clock_of_test() {
    return now_ns;
}

// ---- A relay with two interfaces ----

relay_settings settings_now;
std::vector<relay_interface> interfaces_now;

relay_interface interface_of(const char *name, std::uint32_t address) {
    relay_interface made{};
    std::snprintf(made.name, sizeof made.name, "%s", name);
    made.address = htonl(address);
    return made;
}
void get_settings(relay_settings *out) {
    *out = settings_now;
}
int interface_at(std::size_t at, relay_interface *out) {
    if (at >= interfaces_now.size()) return 0;
    *out = interfaces_now[at];
    return 1;
}
std::size_t place_of(const char *name) {
    std::size_t at = 0;
    while (at < interfaces_now.size() && std::strcmp(interfaces_now[at].name, name) != 0) ++at;
    return at;
}
int get_interface(const char *name, relay_interface *out) {
    return interface_at(place_of(name), out);
}
int get_by_address(std::uint32_t address, relay_interface *out) {
    std::size_t at = 0;
    while (at < interfaces_now.size() && interfaces_now[at].address != address) ++at;
    return interface_at(at, out);
}
int get_first(relay_interface *out) {
    return interface_at(0, out);
}
int get_next(relay_interface *inout) {
    return interface_at(place_of(inout->name) + 1, inout);
}
const relay_access fake_relay = [] {
    relay_access table{};
    table.settings = get_settings;
    table.interface_get = get_interface;
    table.interface_first = get_first;
    table.interface_next = get_next;
    table.interface_at = get_by_address;
    return table;
}();

// ---- Messages ----

struct said {
    std::string device = "swp1";
    std::uint32_t port = 5121;
    std::uint16_t vlan = 10;
    bool uplink = false;
    std::uint8_t op = 1;
    std::uint8_t hlen = 6;
    std::uint8_t hops = 0;
    unsigned flags = 0;
    std::uint32_t xid = 7;
    std::uint32_t giaddr = 0;
    std::uint8_t client = 0x0A;  // the last byte of its address
    std::uint8_t source = 0x0A;  // that of the frame's source
    std::uint32_t source_ip = 0;
    std::uint32_t destination_ip = 0xFFFFFFFF;
    octets options = {53, 1, 1, 255};
};

void put(octets &into, std::size_t at, std::uint32_t value) {
    for (std::size_t i = 0; i < 4; ++i) into[at + i] = static_cast<std::uint8_t>(value >> (24 - 8 * i));
}

octets message_of(const said &what) {
    octets m(236);
    m[0] = what.op;
    m[1] = 1;
    m[2] = what.hlen;
    m[3] = what.hops;
    put(m, 4, what.xid);
    m[10] = static_cast<std::uint8_t>(what.flags >> 8);
    m[11] = static_cast<std::uint8_t>(what.flags);
    put(m, 24, what.giaddr);
    m[28] = 2;
    m[33] = what.client;
    for (const std::uint8_t byte : octets{99, 130, 83, 99}) m.push_back(byte);
    m.insert(m.end(), what.options.begin(), what.options.end());
    return m;
}

constexpr std::uint32_t server_ip = 0xC000020B, stranger_ip = 0xC0000263;
constexpr std::uint32_t vlan10_ip = 0x0A0A0001, vlan20_ip = 0x0A140001;

class Guard : public testing::Test {
  protected:
    Guard() : guards_(clock_of_test) {
        now_ns = 1000 * second_ns;
        settings_now = {};
        settings_now.relay_enable = 1;
        settings_now.hops = 16;
        interfaces_now = {interface_of("vlan10", vlan10_ip), interface_of("vlan20", vlan20_ip)};
        interfaces_now[0].servers[1] = htonl(server_ip);
        channel_box::inventory = {};
        channel_box::inventory.interface_addresses = {{htonl(vlan10_ip), 10}, {htonl(vlan20_ip), 20}};
        guards_.know_relay(&fake_relay);
    }
    // swp1 is a client's, swp2 trusted, swp3 for servers; swp4 is not described.
    void set(const described_guard &guard) {
        switch_description description;
        description.guard = guard;
        description.ports = {{.device = "swp1", .module = 1, .port = 1},
                             {.device = "swp2", .module = 1, .port = 2, .trusted = true},
                             {.device = "swp3", .module = 1, .port = 3, .servers = true}};
        guards_.describe(description);
    }
    std::string judged(const said &what) {
        octets frame(14), ip(16);
        frame[6] = 2;
        frame[11] = what.source;
        put(ip, 8, what.source_ip);
        put(ip, 12, what.destination_ip);
        const octets message = message_of(what);
        const relay_outcome outcome = guards_.judge(
            {what.device, what.uplink, {.vlan = what.vlan, .port_ifindex = what.port}, frame, ip, message});
        EXPECT_TRUE(outcome == OUTCOME_NONE || guards_.minds(message)) << "nobody would have asked";
        return outcome == OUTCOME_NONE ? "passes" : std::string(outcome_word(outcome));
    }
    // What becomes of a message with the guard off, and with it on.
    std::string off_on(const described_guard &guard, const said &what) {
        set({});
        const std::string off = judged(what);
        set(guard);
        return off + ", " + judged(what);
    }

    guards guards_;
};

TEST_F(Guard, RepliesComeFromPortsForServersAndUplinks) {
    const described_guard on{.server_ports = true};
    said reply{.op = 2, .giaddr = vlan10_ip};
    EXPECT_EQ(off_on(on, reply), "passes, guard-server-port");
    reply.device = "swp4";
    EXPECT_EQ(judged(reply), "guard-server-port");
    reply.device = "swp2";
    EXPECT_EQ(judged(reply), "guard-server-port");
    reply.device = "swp3";
    EXPECT_EQ(judged(reply), "passes");
    reply = {.device = "eth9", .port = 0, .vlan = 0, .uplink = true, .op = 2, .giaddr = vlan10_ip};
    EXPECT_EQ(judged(reply), "passes");
    EXPECT_EQ(judged({.device = "swp1"}), "passes");
}

TEST_F(Guard, RepliesComeFromConfiguredServers) {
    const described_guard on{.servers = true};
    EXPECT_EQ(off_on(on, {.op = 2, .giaddr = vlan10_ip, .source_ip = stranger_ip}), "passes, guard-server");
    EXPECT_EQ(judged({.op = 2, .giaddr = vlan10_ip, .source_ip = server_ip}), "passes");
    // A server for a vendor class or a client identifier is one, and one that was added a moment ago.
    interfaces_now[1].option60[2] = {.used = 1, .match_rule = 0, .vendor = "x", .server = htonl(stranger_ip)};
    now_ns += second_ns / 5;
    EXPECT_EQ(judged({.op = 2, .giaddr = vlan10_ip, .source_ip = stranger_ip}), "passes");
    interfaces_now[1].option60[2].used = 0;
    now_ns += 2 * second_ns;
    EXPECT_EQ(judged({.op = 2, .giaddr = vlan10_ip, .source_ip = stranger_ip}), "guard-server");
}

TEST_F(Guard, ACircuitIdHasTheLengthThatTheRelayWrites) {
    const described_guard on{.circuit_id = true};
    const auto reply = [](octets option82) {
        octets options = {53, 1, 2};
        options.insert(options.end(), option82.begin(), option82.end());
        options.push_back(255);
        return said{.op = 2, .giaddr = vlan10_ip, .options = options};
    };
    EXPECT_EQ(off_on(on, reply({82, 2, 1, 0})), "passes, guard-circuit-id");
    EXPECT_EQ(judged(reply({82, 4, 1, 2, 0, 4})), "guard-circuit-id");
    EXPECT_EQ(judged(reply({82, 9, 1, 7, 0, 4, 10, 0, 1, 1, 0})), "guard-circuit-id");
    EXPECT_EQ(judged(reply({82, 6, 1, 6, 0, 4, 10, 0})), "guard-circuit-id");
    EXPECT_EQ(judged(reply({82, 8, 1, 6, 0, 4, 10, 0, 1, 1})), "passes");
    EXPECT_EQ(judged(reply({82, 3, 2, 1, 9})), "passes");
    EXPECT_EQ(judged(reply({})), "passes");
}

TEST_F(Guard, RelayFieldsComeFromTrustedPorts) {
    const described_guard on{.relay_fields = true};
    const octets option82 = {53, 1, 1, 82, 3, 1, 1, 9, 255};
    EXPECT_EQ(off_on(on, {.giaddr = stranger_ip}), "passes, guard-relay-fields");
    EXPECT_EQ(judged({.options = option82}), "guard-relay-fields");
    for (const char *device : {"swp2", "swp3"}) {
        EXPECT_EQ(judged({.device = device, .giaddr = stranger_ip}), "passes");
        EXPECT_EQ(judged({.device = device, .options = option82}), "passes");
    }
    EXPECT_EQ(judged({}), "passes");
    EXPECT_EQ(judged({.op = 2, .giaddr = vlan10_ip, .options = option82}), "passes");
}

TEST_F(Guard, AClientSpeaksForItself) {
    const described_guard on{.source_mac = true};
    EXPECT_EQ(off_on(on, {.client = 1, .source = 2}), "passes, guard-source-mac");
    EXPECT_EQ(judged({.hlen = 16}), "guard-source-mac");
    EXPECT_EQ(judged({}), "passes");
    EXPECT_EQ(judged({.giaddr = stranger_ip, .client = 1, .source = 2}), "passes");
    EXPECT_EQ(judged({.op = 2, .client = 1, .source = 2}), "passes");
}

TEST_F(Guard, ARequestGoesToItsOwnVlansInterface) {
    const described_guard on{.destination = true};
    EXPECT_EQ(off_on(on, {.destination_ip = vlan20_ip}), "passes, guard-destination");
    EXPECT_EQ(judged({.destination_ip = 0}), "passes") << "each interface has an address";
    interfaces_now[1].address = 0;
    EXPECT_EQ(judged({.destination_ip = 0}), "guard-destination") << "VLAN 20's has none, and takes it";
    EXPECT_EQ(judged({.vlan = 20, .destination_ip = 0}), "passes");
    interfaces_now[1].address = htonl(vlan20_ip);
    EXPECT_EQ(judged({.destination_ip = vlan10_ip}), "passes");
    EXPECT_EQ(judged({.destination_ip = stranger_ip}), "passes") << "the relay has an outcome for that";
    EXPECT_EQ(judged({}), "passes");
    EXPECT_EQ(judged({.device = "swp2", .destination_ip = vlan20_ip}), "passes");
}

TEST_F(Guard, APortHasSoManyClientsAMinute) {
    set({.clients = 3});
    for (const std::uint8_t client : octets{1, 2, 3, 1, 2, 3}) EXPECT_EQ(judged({.client = client}), "passes");
    EXPECT_EQ(judged({.client = 4}), "guard-clients");
    EXPECT_EQ(judged({.client = 3}), "passes") << "who is there stays";
    EXPECT_EQ(judged({.device = "swp4", .port = 5124, .client = 4}), "passes") << "the others have their own";
    EXPECT_EQ(judged({.device = "swp2", .port = 5122, .client = 4}), "passes");
    set({.clients = 3});
    EXPECT_EQ(judged({.client = 4}), "guard-clients") << "no new minute begins when the description is read again";
    now_ns += 60 * second_ns;
    EXPECT_EQ(judged({.client = 4}), "passes");
}

TEST_F(Guard, APortMaySayItsOwnNumberOfClients) {
    switch_description description;
    description.ports = {{.device = "swp1", .module = 1, .port = 1, .clients = 1},
                         {.device = "swp2", .module = 1, .port = 2, .clients = 0}};
    guards_.describe(description);
    EXPECT_EQ(judged({.client = 1}), "passes");
    EXPECT_EQ(judged({.client = 2}), "guard-clients");
    description.guard.clients = 1;
    guards_.describe(description);
    for (const std::uint8_t client : octets{1, 2, 3})
        EXPECT_EQ(judged({.device = "swp2", .port = 5122, .client = client}), "passes");
}

TEST_F(Guard, AnOpenTransactionIsItsPortsAndItsClients) {
    const described_guard on{.transactions = true};
    set(on);
    EXPECT_EQ(judged({.xid = 9}), "passes");
    EXPECT_EQ(judged({.xid = 9}), "passes") << "a client may ask again";
    EXPECT_EQ(judged({.xid = 9, .client = 0x0B, .source = 0x0B}), "guard-transaction");
    EXPECT_EQ(judged({.device = "swp4", .port = 5124, .xid = 9}), "guard-transaction");
    EXPECT_EQ(judged({.device = "swp4", .port = 5124, .xid = 8}), "passes");
    EXPECT_EQ(judged({.device = "swp4", .port = 5124, .xid = 9, .giaddr = stranger_ip}), "passes");
    guards_.delivered(message_of({.op = 2, .xid = 9}));
    EXPECT_EQ(judged({.device = "swp4", .port = 5124, .xid = 9}), "passes");
    now_ns += open_transactions::life_s * second_ns;
    EXPECT_EQ(judged({.xid = 9}), "passes");
    set({});
    EXPECT_EQ(judged({.device = "swp4", .port = 5124, .xid = 9}), "passes");
}

TEST_F(Guard, ATransactionOfTheDaemonBeforeIsItsPorts) {
    set({});
    guards_.goes_on(htonl(9), 5121, 100);
    set({.transactions = true});
    EXPECT_EQ(judged({.device = "swp4", .port = 5124, .xid = 9}), "passes") << "nothing is remembered while it is off";
    for (const std::uint32_t xid : {10U, 11U, 12U}) guards_.goes_on(htonl(xid), 5121, 100);
    EXPECT_EQ(judged({.device = "swp4", .port = 5124, .xid = 10}), "guard-transaction");
    EXPECT_EQ(judged({.xid = 10}), "passes") << "whoever asks from the port is its client";
    EXPECT_EQ(judged({.xid = 10, .client = 0x0B, .source = 0x0B}), "guard-transaction");
    guards_.goes_on(htonl(10), 5124, 100);
    EXPECT_EQ(judged({.device = "swp4", .port = 5124, .xid = 10}), "guard-transaction") << "who is known stays";
    guards_.delivered(message_of({.op = 2, .xid = 11}));
    EXPECT_EQ(judged({.device = "swp4", .port = 5124, .xid = 11}), "passes");
    now_ns += 100 * second_ns;
    EXPECT_EQ(judged({.device = "swp4", .port = 5124, .xid = 12}), "passes") << "its time is over";
}

TEST(OpenTransactions, WhoFloodsLosesHisOwn) {
    open_transactions table;
    table.use(true);
    const transaction_owner victim{.port = 1, .client = {1}}, flood{.port = 2, .client = {2}};
    EXPECT_TRUE(table.open(77, victim, 1000));
    for (std::uint32_t xid = 100; xid < 400'000; ++xid) (void)table.open(xid, flood, 1001);
    EXPECT_FALSE(table.open(77, flood, 1002));
}

// ---- What the relay can answer only by ending ----

class CoreAssertion : public Guard {
  protected:
    CoreAssertion() {
        interfaces_now[0].servers[1] = 0;
        interfaces_now[0].local_relay = 1;
        set({});
    }
    said reply_{.op = 2, .options = {53, 1, 5, 255}};
};

TEST_F(CoreAssertion, IsStopped) {
    EXPECT_EQ(judged(reply_), "core-assertion");
    reply_.destination_ip = vlan10_ip;
    EXPECT_EQ(judged(reply_), "core-assertion");
    reply_.vlan = 20;
    EXPECT_EQ(judged(reply_), "core-assertion");
    reply_.flags = 0x8000;
    reply_.options = {0, 53, 0, 8, 0, 0, 0, 0, 0, 0, 0, 0, 255, 0, 0};  // its type is what stands behind the length
    EXPECT_EQ(judged(reply_), "core-assertion");
}

// 0.0.0.0 is the address of each interface that has none, wherever what is for it comes in.
TEST_F(CoreAssertion, IsStoppedForAnInterfaceWithoutAnAddress) {
    interfaces_now[0].address = 0;
    reply_.destination_ip = 0;
    EXPECT_EQ(judged(reply_), "core-assertion");
    reply_.vlan = 20;
    EXPECT_EQ(judged(reply_), "core-assertion");
    reply_.vlan = 0;
    EXPECT_EQ(judged(reply_), "core-assertion");
    reply_.destination_ip = vlan10_ip;
    EXPECT_EQ(judged(reply_), "passes");
}

TEST_F(CoreAssertion, ReachesTheRelayWhereThatIsAskedFor) {
    set({.core_assertions = true});
    EXPECT_EQ(judged(reply_), "passes");
}

// What the relay drops of itself goes on to it.
TEST_F(CoreAssertion, NothingElseIsStopped) {
    const auto changed = [&](const std::function<void(said &)> &change) {
        said what = reply_;
        change(what);
        return judged(what);
    };
    EXPECT_EQ(changed([](said &r) { r.op = 1; }), "passes");
    EXPECT_EQ(changed([](said &r) { r.giaddr = vlan10_ip; }), "passes");
    EXPECT_EQ(changed([](said &r) { r.flags = 1; }), "passes");
    EXPECT_EQ(changed([](said &r) { r.hops = 17; }), "passes");
    EXPECT_EQ(changed([](said &r) { r.vlan = 20; }), "passes");
    EXPECT_EQ(changed([](said &r) { r.vlan = 0; }), "passes");
    EXPECT_EQ(changed([](said &r) { r.destination_ip = vlan20_ip; }), "passes");
    EXPECT_EQ(changed([](said &r) { r.destination_ip = stranger_ip; }), "passes");
    for (const octets &options : std::vector<octets>{{53, 1, 5, 82, 2, 1, 0, 255},
                                                     {53, 1, 9, 255},
                                                     {53, 1, 0, 255},
                                                     {53, 1, 5},
                                                     {53, 1, 5, 255, 60},
                                                     {53, 1, 5, 255, 60, 4},
                                                     {60, 1, 5, 255},
                                                     {}})
        EXPECT_EQ(changed([&](said &r) { r.options = options; }), "passes") << channel_frames::hex(options);
    settings_now.hops = 3;
    EXPECT_EQ(changed([](said &r) { r.hops = 4; }), "passes");
    EXPECT_EQ(changed([](said &r) { r.hops = 3; }), "core-assertion");
    settings_now.check = 1;
    EXPECT_EQ(judged(reply_), "passes");
    settings_now.check = 0;
    settings_now.relay_enable = 0;
    EXPECT_EQ(judged(reply_), "passes");
    settings_now.relay_enable = 1;
    interfaces_now[0].servers[3] = htonl(server_ip);
    EXPECT_EQ(judged(reply_), "passes");
    interfaces_now[0].servers[3] = 0;
    interfaces_now[0].local_relay = 0;
    EXPECT_EQ(judged(reply_), "passes");
}

// Whatever is cut off a message, and whatever its lengths claim, it is read within its bytes.
TEST_F(CoreAssertion, EveryLengthIsRead) {
    set({.server_ports = false, .circuit_id = true, .relay_fields = true, .source_mac = true, .destination = true});
    const octets whole = message_of({.op = 2, .options = {53, 1, 5, 82, 8, 1, 6, 0, 4, 10, 0, 1, 1, 255}});
    const octets frame(14), ip(16);
    const std::string device = "swp1";
    for (std::size_t size = 0; size <= whole.size(); ++size) {
        octets part(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size));
        for (const std::uint8_t last : octets{0, 82, 53, 255}) {
            if (size > 236) part.back() = last;
            part.shrink_to_fit();
            (void)guards_.judge({device, false, {.vlan = 10, .port_ifindex = 5121}, frame, ip, part});
        }
    }
    EXPECT_EQ(judged({.hlen = 16}), "guard-source-mac");
}

}  // namespace

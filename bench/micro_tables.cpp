// SPDX-License-Identifier: Apache-2.0
// Micro-benchmarks of the relay's tables, each with few and with many entries: what a look-up costs must hardly depend
// on how much there is to be looked through.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <event2/event.h>

#include <cstdio>
#include <string>
#include <vector>

#include "base/loop.h"
#include "log/log.h"
#include "micro_box.h"
#include "micro_suites.h"
#include "osal.h"
#include "ravo_db.h"
#include "ravo_db_if.h"
#include "ravo_db_xid.h"
#include "ravo_life.h"

namespace {

// ---- Transactions ----

// The xid of the n-th transaction: all different, and in no order, as clients choose them.
std::uint32_t xid_of(std::uint32_t number) {
    return number * 2654435761U;
}

xid_entry transaction(std::uint32_t number) {
    xid_entry entry{};
    entry.xid = xid_of(number);
    entry.module = 1;
    entry.port = 1;
    return entry;
}

std::uint32_t remembered = 0;  // transactions 0 to remembered - 1 are in the map

// Benchmarks of one size follow one another and share what was filled in.
void remember(std::uint32_t count) {
    if (remembered == count) return;
    ravo_db_init();
    for (std::uint32_t i = 0; i < count; ++i) {
        const xid_entry entry = transaction(i);
        (void)ravo_db_xid_update(&entry);
    }
    remembered = count;
}

void forget() {
    ravo_db_exit();
    remembered = 0;
}

void transaction_hit(benchmark::State &state, std::uint32_t count) {
    remember(count);
    std::uint32_t i = 0;
    for (auto _ : state) {
        xid_entry entry = transaction(i++ % count);
        if (ravo_db_xid_get(&entry) != 1) state.SkipWithError("not found");
    }
}

void transaction_miss(benchmark::State &state, std::uint32_t count) {
    remember(count);
    std::uint32_t i = 0;
    for (auto _ : state) {
        xid_entry entry = transaction(count + i++ % count);
        if (ravo_db_xid_get(&entry) != 0) state.SkipWithError("found");
    }
}

void transaction_refresh(benchmark::State &state, std::uint32_t count) {
    remember(count);
    std::uint32_t i = 0;
    for (auto _ : state) {
        const xid_entry entry = transaction(i++ % count);
        if (ravo_db_xid_update(&entry) != 1) state.SkipWithError("not stored");
    }
}

// As the exchange of a client goes by: the map keeps its size.
void transaction_insert_delete(benchmark::State &state, std::uint32_t count) {
    remember(count);
    std::uint32_t i = 0;
    for (auto _ : state) {
        const xid_entry entry = transaction(count + i++ % count);
        if (ravo_db_xid_update(&entry) != 1 || ravo_db_xid_delete(&entry) != 1) state.SkipWithError("not stored");
    }
}

// ---- Timers ----

struct timed {
    osal_timer timer{};
    std::uint64_t *fired = nullptr;
};

void count_fired(void *arg) {
    ++*static_cast<timed *>(arg)->fired;
}

// All armed, then all fired; the time is that of one.
void timers(benchmark::State &state, std::size_t count) {
    std::uint64_t fired = 0;
    std::vector<timed> objects(count);
    for (timed &object : objects) object.fired = &fired;
    for (auto _ : state) {
        for (timed &object : objects)
            OSAL_ZEBOS_Create_Sec_Once_Timer(&object.timer, "bench", count_fired, /*seconds=*/0, 1, &object);
        event_base_loop(ravo::platform::loop_base(), EVLOOP_NONBLOCK);
    }
    if (fired != count * static_cast<std::size_t>(state.iterations())) state.SkipWithError("not all fired");
    state.SetItemsProcessed(static_cast<std::int64_t>(fired));
}

// ---- Interfaces ----

std::uint32_t address_of(unsigned vlan) {
    return htonl(0x0A000001U + (vlan << 8));
}

iface interface_of(unsigned vlan) {
    iface record{};
    std::snprintf(record.name, sizeof record.name, "vlan%u", vlan);
    record.ifindex = 1024 + vlan;
    record.if_ip = address_of(vlan);
    record.if_maclen = 6;
    return record;
}

void add_interfaces(unsigned count) {
    forget();
    ravo_db_init();
    for (unsigned vlan = 1; vlan <= count; ++vlan) {
        const iface record = interface_of(vlan);
        (void)ravo_db_if_add(&record);
    }
}

// step: how far one look-up is from the next; 0 asks for the same address again and again.
void address_hit(benchmark::State &state, unsigned count, unsigned step) {
    add_interfaces(count);
    iface found;
    unsigned vlan = 1;
    for (auto _ : state) {
        if (ravo_if_ifinfo_get_by_addr(&found, address_of(vlan)) != 1) state.SkipWithError("not found");
        vlan = (vlan + step - 1) % count + 1;
        if (step == 0) vlan = 1;
    }
    forget();
}

// Without the failure's line in the log, which costs much more.
void address_miss(benchmark::State &state, unsigned count) {
    add_interfaces(count);
    ravo::platform::log_set_threshold(ravo::platform::log_level_error + 1);
    iface found;
    unsigned other = 0;
    for (auto _ : state)
        if (ravo_if_ifinfo_get_by_addr(&found, address_of(8192 + other++ % 1024)) != 0) state.SkipWithError("found");
    ravo::platform::log_set_threshold(ravo::platform::log_level_warning);
    forget();
}

void name_hit(benchmark::State &state, unsigned count) {
    add_interfaces(count);
    std::vector<iface> keys;
    for (unsigned vlan = 1; vlan <= count; ++vlan) keys.push_back(interface_of(vlan));
    unsigned at = 0;
    for (auto _ : state) {
        at = (at + 1277) % count;
        if (ravo_db_if_get(&keys[at]) != 1) state.SkipWithError("not found");
    }
    forget();
}

std::string named(const char *what, std::size_t count) {
    return std::string(what) + ", " + std::to_string(count);
}

}  // namespace

void bench::register_tables() {
    for (const std::uint32_t count : {1000U, 10000U, 100000U, 1000000U}) {
        benchmark::RegisterBenchmark(named("transaction: found of", count).c_str(), transaction_hit, count);
        benchmark::RegisterBenchmark(named("transaction: not found of", count).c_str(), transaction_miss, count);
        benchmark::RegisterBenchmark(named("transaction: refresh one of", count).c_str(), transaction_refresh, count);
        benchmark::RegisterBenchmark(named("transaction: insert and delete beside", count).c_str(),
                                     transaction_insert_delete, count);
    }
    for (const std::size_t count : {1000U, 100000U})
        benchmark::RegisterBenchmark(named("timer: arm and fire one of", count).c_str(), timers, count);
    for (const unsigned count : {1U, 64U, 4094U}) {
        benchmark::RegisterBenchmark(named("address: same again of", count).c_str(), address_hit, count, 0U);
        benchmark::RegisterBenchmark(named("address: another of", count).c_str(), address_hit, count, 1277U);
        benchmark::RegisterBenchmark(named("address: none of", count).c_str(), address_miss, count);
        benchmark::RegisterBenchmark(named("interface: by name of", count).c_str(), name_hit, count);
    }
}

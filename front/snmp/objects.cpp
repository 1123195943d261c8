// SPDX-License-Identifier: Apache-2.0
// Two kinds of objects: scalars, whose instance ends in 0, and tables, whose instances are a column and an index. The
// table of each is here in the order of their identifiers, so that the next instance is found by looking at one after
// the other; within a table the rows are in order too, and the next one is found by halving.
#include "objects.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <span>

namespace ravo::snmp {

namespace {

constexpr unsigned long objects = 1;  // below the module

value integer(std::int64_t number) {
    return {kind::integer, number, {}};
}
value gauge(std::uint64_t number) {
    return {kind::gauge, static_cast<std::int64_t>(number), {}};
}
value counter64(std::uint64_t number) {
    return {kind::counter64, static_cast<std::int64_t>(number), {}};
}
value text(std::string bytes) {
    return {kind::text, 0, std::move(bytes)};
}
value address(std::uint32_t number) {
    return {kind::address, number, {}};
}
value truth(bool is) {
    return integer(is ? 1 : 2);
}

void put_address(oid_text *to, std::uint32_t number) {
    for (int shift = 24; shift >= 0; shift -= 8) to->push_back(number >> shift & 0xFF);
}

// ---- Scalars ----

struct scalar {
    unsigned long group;  // below the objects; 0: the scalar is there itself
    unsigned long number;
    part needs;
    bool (*read)(const picture &p, unsigned long number, value *out);
};

bool read_setting(const picture &p, unsigned long number, value *out) {
    if (number == 10) *out = integer(1);
    if (number == 11) *out = text(p.version);
    if (number >= 10) return true;
    *out = number == 7 || number == 9 ? gauge(static_cast<std::uint64_t>(p.settings[number]))
                                      : integer(p.settings[number]);
    return p.has_setting[number];
}

bool read_received(const picture &p, unsigned long number, value *out) {
    *out = {kind::counter32, p.received[number - 1], {}};
    return true;
}

bool read_transactions(const picture &p, unsigned long /*number*/, value *out) {
    *out = gauge(p.transactions_total);
    return true;
}

// ---- Tables ----

struct table {
    unsigned long number;  // below the objects
    unsigned long first_column;
    unsigned long last_column;
    part needs;
    std::size_t (*rows)(const picture &p);
    void (*index)(const picture &p, std::size_t row, oid_text *out);  // appends
    void (*read)(const picture &p, std::size_t row, unsigned long column, value *out);
};

void read_interface(const picture &p, std::size_t row, unsigned long column, value *out) {
    const interface_row &r = p.interfaces[row];
    if (column == 2) *out = text(interface_name(r.ifindex));
    if (column == 3) *out = address(r.address);
    if (column == 4) *out = text({r.mac.begin(), r.mac.end()});
    if (column == 5) *out = truth(r.local_relay);
}

void read_active(const picture & /*p*/, std::size_t /*row*/, unsigned long /*column*/, value *out) {
    *out = integer(1);
}

void index_outcome(const picture &p, std::size_t row, oid_text *out) {
    const outcome_row &r = p.outcomes[row];
    const std::string &word = p.outcome_words[r.word];
    out->push_back(r.ifindex);
    out->push_back(word.size());
    for (const char c : word) out->push_back(static_cast<unsigned char>(c));
}

void read_server(const picture &p, std::size_t row, unsigned long column, value *out) {
    const server_row &r = p.servers[row];
    if (column == 3) *out = counter64(r.requests);
    if (column == 4) *out = counter64(r.replies);
    if (column == 5) *out = gauge(r.median_us);
    if (column == 6) *out = gauge(r.p99_us);
    if (column == 7) *out = gauge(r.silent_seconds);
}

constexpr table interface_table = {
    2,
    2,
    5,
    part::interfaces,
    [](const picture &p) { return p.interfaces.size(); },
    [](const picture &p, std::size_t row, oid_text *out) { out->push_back(p.interfaces[row].ifindex); },
    read_interface};
constexpr table address_table = {3,
                                 3,
                                 3,
                                 part::addresses,
                                 [](const picture &p) { return p.addresses.size(); },
                                 [](const picture &p, std::size_t row, oid_text *out) {
                                     out->push_back(p.addresses[row].ifindex);
                                     put_address(out, p.addresses[row].address);
                                 },
                                 read_active};
constexpr table trust_table = {4,
                               2,
                               2,
                               part::trusted,
                               [](const picture &p) { return p.trusted.size(); },
                               [](const picture &p, std::size_t row, oid_text *out) { out->push_back(p.trusted[row]); },
                               read_active};
constexpr table outcome_table = {
    6,
    3,
    3,
    part::statistics,
    [](const picture &p) { return p.outcomes.size(); },
    index_outcome,
    [](const picture &p, std::size_t row, unsigned long, value *out) { *out = counter64(p.outcomes[row].messages); }};
constexpr table type_table = {
    7,
    3,
    3,
    part::statistics,
    [](const picture &p) { return p.types.size(); },
    [](const picture &p, std::size_t row, oid_text *out) {
        out->push_back(p.types[row].ifindex);
        out->push_back(p.types[row].type);
    },
    [](const picture &p, std::size_t row, unsigned long, value *out) { *out = counter64(p.types[row].messages); }};
constexpr table server_table = {8,
                                3,
                                7,
                                part::servers,
                                [](const picture &p) { return p.servers.size(); },
                                [](const picture &p, std::size_t row, oid_text *out) {
                                    out->push_back(p.servers[row].ifindex);
                                    put_address(out, p.servers[row].address);
                                },
                                read_server};
constexpr table transaction_table = {
    10,
    2,
    3,
    part::transactions,
    [](const picture &p) { return p.transactions.size(); },
    [](const picture &p, std::size_t row, oid_text *out) { out->push_back(p.transactions[row].xid); },
    [](const picture &p, std::size_t row, unsigned long column, value *out) {
        const transaction_row &r = p.transactions[row];
        *out = gauge(column == 2 ? r.module : r.port);
    }};

// All of them in the order of their identifiers: either is null.
struct place {
    const scalar *one;
    const table *many;
};

constexpr std::array settings = {
    scalar{1, 1, part::settings, read_setting},  scalar{1, 2, part::settings, read_setting},
    scalar{1, 3, part::settings, read_setting},  scalar{1, 4, part::settings, read_setting},
    scalar{1, 5, part::settings, read_setting},  scalar{1, 6, part::settings, read_setting},
    scalar{1, 7, part::settings, read_setting},  scalar{1, 9, part::settings, read_setting},
    scalar{1, 10, part::settings, read_setting}, scalar{1, 11, part::settings, read_setting}};
constexpr std::array counters = {
    scalar{5, 1, part::interfaces, read_received}, scalar{5, 2, part::interfaces, read_received},
    scalar{5, 3, part::interfaces, read_received}, scalar{5, 4, part::interfaces, read_received},
    scalar{5, 5, part::interfaces, read_received}, scalar{5, 6, part::interfaces, read_received},
    scalar{5, 7, part::interfaces, read_received}, scalar{5, 8, part::interfaces, read_received}};
constexpr scalar transaction_count = {0, 9, part::transactions, read_transactions};

constexpr auto places = [] {
    std::array<place, settings.size() + counters.size() + 8> out{};
    std::size_t at = 0;
    for (const scalar &s : settings) out[at++] = {&s, nullptr};
    for (const table *t : {&interface_table, &address_table, &trust_table}) out[at++] = {nullptr, t};
    for (const scalar &s : counters) out[at++] = {&s, nullptr};
    for (const table *t : {&outcome_table, &type_table, &server_table}) out[at++] = {nullptr, t};
    out[at++] = {&transaction_count, nullptr};
    out[at++] = {nullptr, &transaction_table};
    return out;
}();

oid_text name_of(const scalar &s) {
    if (s.group == 0) return {objects, s.number, 0};
    return {objects, s.group, s.number, 0};
}

oid_text name_of(const picture &p, const table &t, unsigned long column, std::size_t row) {
    oid_text name = {objects, t.number, 1, column};
    t.index(p, row, &name);
    return name;
}

// The first row of the column whose name comes behind this one; the number of rows for none.
std::size_t row_behind(const picture &p, const table &t, unsigned long column, const oid_text &name) {
    std::size_t low = 0;
    std::size_t high = t.rows(p);
    while (low < high) {
        const std::size_t middle = low + (high - low) / 2;
        if (name_of(p, t, column, middle) > name)
            high = middle;
        else
            low = middle + 1;
    }
    return low;
}

found next_in(const source &from, const scalar &s, const oid_text &name, instance *out) {
    out->name = name_of(s);
    if (out->name <= name) return found::no;
    if (!from.load(from.context, s.needs)) return found::unavailable;
    return s.read(*from.relay, s.number, &out->value) ? found::yes : found::no;
}

found next_in(const source &from, const table &t, const oid_text &name, instance *out) {
    // All of the table lies before the name.
    if (oid_text{objects, t.number + 1} <= name) return found::no;
    if (!from.load(from.context, t.needs)) return found::unavailable;
    for (unsigned long column = t.first_column; column <= t.last_column; ++column) {
        const std::size_t row = row_behind(*from.relay, t, column, name);
        if (row == t.rows(*from.relay)) continue;
        out->name = name_of(*from.relay, t, column, row);
        t.read(*from.relay, row, column, &out->value);
        return found::yes;
    }
    return found::no;
}

}  // namespace

found find_next(const source &from, const oid_text &name, instance *out) {
    instance next;  // the name may be part of what out points to
    for (const place &p : places) {
        const found is = p.one != nullptr ? next_in(from, *p.one, name, &next) : next_in(from, *p.many, name, &next);
        if (is == found::yes) *out = std::move(next);
        if (is != found::no) return is;
    }
    return found::no;
}

found find_exact(const source &from, const oid_text &name, value *out) {
    if (name.size() < 3) return found::no;
    // What is there is what comes next behind the name without its last number, or with it one less.
    oid_text before = name;
    if (before.back() == 0)
        before.pop_back();
    else
        --before.back();
    // Between the two there may be instances that are longer: they are left behind.
    instance next;
    next.name = before;
    found is = found::yes;
    while (is == found::yes && next.name < name) is = find_next(from, next.name, &next);
    if (is != found::yes) return is;
    if (next.name != name) return found::no;
    *out = std::move(next.value);
    return found::yes;
}

write_target find_target(const oid_text &name) {
    if (name == oid_text{objects, 1, 10, 0}) return {writable::save};
    if (name.size() < 5 || name[0] != objects || name[2] != 1) return {};
    const unsigned long ifindex = name[4];
    if (interface_name(static_cast<std::uint32_t>(std::min(ifindex, 0xFFFFFFFFUL))).empty()) return {};
    if (name[1] == trust_table.number && name[3] == 2 && name.size() == 5)
        return {writable::trust_row, static_cast<std::uint32_t>(ifindex)};
    if (name[1] != address_table.number || name[3] != 3 || name.size() != 9) return {};
    std::uint32_t server = 0;
    for (std::size_t i = 5; i < 9; ++i) {
        if (name[i] > 255) return {};
        server = server << 8 | static_cast<std::uint32_t>(name[i]);
    }
    return {writable::address_row, static_cast<std::uint32_t>(ifindex), server};
}

std::string interface_name(std::uint32_t ifindex) {
    constexpr std::uint32_t none = 1024;
    constexpr std::uint32_t last = none + 4094;
    return ifindex > none && ifindex <= last ? "vlan" + std::to_string(ifindex - none) : "";
}

std::string address_text(std::uint32_t number) {
    std::string out;
    for (int shift = 24; shift >= 0; shift -= 8)
        out += (out.empty() ? "" : ".") + std::to_string(number >> shift & 0xFF);
    return out;
}

}  // namespace ravo::snmp

// SPDX-License-Identifier: Apache-2.0
// A message over its port's limit has an outcome like any other; it counts for its port and, as far as its VLAN can be
// known from its tag or its port, for its VLAN. The port is named in the log, at most once a minute.

#include "channel/tally.h"

#include <cstdint>
#include <string>
#include <utility>

#include "books/books.h"
#include "inventory/inventory.h"
#include "log/log.h"
#include "port_number.h"

namespace ravo::platform {
namespace {

constexpr std::int64_t line_interval_s = 60;

// Takes over how much a count has grown.
std::uint64_t grown(std::uint64_t &told, std::uint64_t now) {
    return now - std::exchange(told, now);
}

void count_limited(tap &t, std::uint32_t vlan, std::uint64_t count) {
    if (count == 0) return;
    ingress in;
    (void)inventory_classify(t.kernel_ifindex, vlan != 0, static_cast<std::uint16_t>(vlan), &in);  // as far as it goes
    books_count(OUTCOME_PORT_LIMIT, in.vlan, in.port_ifindex, count);
    t.told.in_log += count;
}

// Counts of tags are looked through only when some port's have grown.
void take_tagged(const gate &at, tap_table &taps) {
    at.each_limited_tag([&](const gate_tag &tag, std::uint64_t count) {
        tap *t = taps.at_place(tag.port);
        if (t != nullptr) count_limited(*t, tag.vlan, grown(t->told.limited_by_tag[tag.vlan], count));
    });
}

// "port 1/1 (swp1)", or "device eth0" for what is no port.
std::string name_of(const tap &t) {
    ingress in;
    (void)inventory_classify(t.kernel_ifindex, false, 0, &in);
    if (in.port_ifindex == 0) return "device " + t.name;
    char number[PORT_NUMBER_TEXT_SIZE];
    return std::string("port ") + port_number_text(in.port_ifindex, number) + " (" + t.name + ")";
}

void tell(tap &t, std::int64_t now_s) {
    if (t.told.in_log == 0 || now_s < t.told.next_line_s) return;
    t.told.next_line_s = now_s + line_interval_s;
    log_line(log_level_warning, "%s sends more than its limit of messages: %llu dropped", name_of(t).c_str(),
             static_cast<unsigned long long>(std::exchange(t.told.in_log, 0)));
}

}  // namespace

std::uint64_t tally_taps(const gate &at, tap_table &taps, std::int64_t now_s) {
    std::uint64_t crowded = 0;
    bool tagged = false;
    taps.each([&](tap &t) {
        if (t.place == gate::no_place) return;
        const gate_port &now = at.counts(t.place);
        crowded += grown(t.told.crowded, now.crowded);
        count_limited(t, 0, grown(t.told.limited, now.limited));
        count_limited(t, GATE_NO_VLAN, grown(t.told.limited_uncounted, now.limited_uncounted));
        tagged = grown(t.told.limited_tagged, now.limited_tagged) != 0 || tagged;
    });
    if (tagged) take_tagged(at, taps);
    taps.each([&](tap &t) { tell(t, now_s); });
    return crowded;
}

}  // namespace ravo::platform

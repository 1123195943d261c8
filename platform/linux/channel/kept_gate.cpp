// SPDX-License-Identifier: Apache-2.0
// The gate's program and its four tables are kept under five names in the descriptor store. The next daemon takes all
// five or none: one that does not fit has them closed, and asks for new ones.
#include "channel/kept_gate.h"

#include <array>
#include <utility>

#include "channel/packet_rings.h"
#include "gate/gate.h"
#include "gate/gate_objects.h"
#include "log/log.h"
#include "process/descriptor_store.h"

namespace ravo::platform {
namespace {

struct kept_object {
    const char *name;
    descriptor gate_objects::*fd;
};

constexpr std::array<kept_object, 5> kept_objects{{{"gate-program", &gate_objects::program},
                                                   {"gate-devices", &gate_objects::devices},
                                                   {"gate-ports", &gate_objects::ports},
                                                   {"gate-tags", &gate_objects::limited_by_tag},
                                                   {"gate-queue", &gate_objects::queue}}};

bool is_left() {
    return store_has(kept_objects.front().name);
}

// One that is there already is not to be used any more.
void keep(const gate_objects &objects) {
    kept_gate_forget();
    for (const kept_object &each : kept_objects) store_keep(each.name, (objects.*each.fd).get());
}

}  // namespace

void kept_gate_begin(const std::string &lender) {
    gate_set_lender(lender);
    gate_set_keeper(keep);
    if (!is_left() && !packet_rings::were_apart()) gate_ask_early();
}

void kept_gate_take_over() {
    if (!is_left()) {
        if (packet_rings::were_apart()) gate_refused_before();
        return;
    }
    gate_objects left;
    for (const kept_object &each : kept_objects) left.*each.fd = store_take(each.name);
    const fault wrong = gate_take_over(std::move(left));
    if (!wrong) return;
    kept_gate_forget();
    log_line(log_level_start, "ravod: the program that limits ports, of the daemon before, is closed: %s",
             wrong.text.c_str());
}

void kept_gate_forget() {
    for (const kept_object &each : kept_objects) store_forget(each.name);
}

}  // namespace ravo::platform

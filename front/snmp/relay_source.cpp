// SPDX-License-Identifier: Apache-2.0
// Two links to the daemon, as transactions are shown in configuration mode alone. A part of the picture is good for a
// second, or for twenty times as long as the daemon took to answer, but for 30 s at most: so the daemon spends little
// of its time on managers, however many ask.
#include "relay_source.h"

#include <malloc.h>

#include <algorithm>
#include <iterator>

namespace ravo::snmp {

namespace {

using clock = std::chrono::steady_clock;

// A master agent waits a second for an answer by default.
constexpr std::chrono::milliseconds patience{800};
constexpr std::chrono::milliseconds fresh_enough{1000};
constexpr std::chrono::seconds fresh_longest{30};
constexpr int share = 20;  // a part that took the daemon long is good for this many times as long
constexpr std::size_t large_answer = 65536;

struct part_state {
    bool there = false;
    clock::time_point at{};
    clock::duration took{};
};

}  // namespace

struct relay_source {
    std::string socket;
    client::link_ptr reader;
    client::link_ptr configured;  // transactions are shown in configuration mode
    snmp::picture picture;
    std::array<part_state, parts> states;
};

void relay_source_delete::operator()(relay_source *s) const {
    delete s;
}

namespace {

client::link_ptr make_link(const std::string &socket, int mode) {
    client::link_options options;
    options.socket = socket;
    options.mode = mode;
    options.patience = patience;
    return client::link_make(options);
}

client::reply ask(client::link &l, const std::string &line, std::uint8_t view) {
    client::reply got;
    got.reason = "ravod does not answer";
    client::link_ask(
        l, line, [&got](client::reply &answer) { got = std::move(answer); }, view);
    client::link_settle(l, patience);
    return got;
}

// The number of trusted interfaces is shown by a command of its own, in the same way as the other settings.
void add_trusted_count(client::link &l, client::reply *settings) {
    client::reply got = ask(l, "show ip dhcp relay information trusted-sources", client::view_keyed);
    std::move(got.values.begin(), got.values.end(), std::back_inserter(settings->values));
}

bool is_fresh(const part_state &state) {
    const auto good_for =
        std::min<clock::duration>(std::max<clock::duration>(fresh_enough, state.took * share), fresh_longest);
    return state.there && clock::now() - state.at <= good_for;
}

bool load(void *context, part wanted) {
    auto *s = static_cast<relay_source *>(context);
    return is_fresh(s->states[static_cast<std::size_t>(wanted)]) || refresh(*s, wanted);
}

}  // namespace

relay_source_ptr relay_source_make(const std::string &socket) {
    relay_source_ptr s(new relay_source);
    s->socket = socket;
    s->reader = make_link(socket, 4);
    s->configured = make_link(socket, 5);
    return s;
}

source source_of(relay_source &s) {
    return {&s.picture, load, &s};
}

bool refresh(relay_source &s, part wanted) {
    part_state &state = s.states[static_cast<std::size_t>(wanted)];
    client::link &l = wanted == part::transactions ? *s.configured : *s.reader;
    const auto begun = clock::now();
    client::reply got = ask(l, std::string(command_of(wanted)), view_of(wanted));
    if (wanted == part::settings && got.answered) add_trusted_count(l, &got);
    // Of a daemon that does not know the command the part is empty; that is no fault.
    const bool known = got.answered && got.result == 0;
    state.there = got.answered && (!known || take_part(&s.picture, wanted, got));
    state.at = clock::now();
    state.took = state.at - begun;
    s.picture.version = client::link_look(l).daemon_version;
    if (got.text.size() > large_answer) malloc_trim(0);
    return state.there;
}

client::reply change(relay_source &s, const std::vector<std::string> &lines) {
    const client::link_ptr l = make_link(s.socket, 4);
    client::reply last;
    for (const std::string &line : lines) {
        last = ask(*l, line, 0);
        if (!last.answered || last.result != 0) break;
    }
    for (part_state &state : s.states) state.there = false;
    return last;
}

std::array<int, 2> descriptors_of(const relay_source &s) {
    return {client::link_descriptor(*s.reader), client::link_descriptor(*s.configured)};
}

void attend(relay_source &s) {
    client::link_attend(*s.reader);
    client::link_attend(*s.configured);
}

}  // namespace ravo::snmp

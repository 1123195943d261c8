// SPDX-License-Identifier: Apache-2.0
// Surface: one message of the layer-2 channel, handed to its receive handler with a relay behind it. The input's first
// eight bytes are the settings, the interface, and where the message came in; the rest is what the channel delivers.
//
// Contract: whatever the bytes, nothing outside the message's buffer is read, and the daemon lives. The message has
// exactly one outcome, and what is sent fits it. Option 82 that was added to a request comes out of its reply again and
// leaves the same bytes up to the end option. What is sent does not change with what lay in the buffers and on the
// stack before.

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "packet_property.h"
#include "pieces.h"
#include "poison.h"

namespace {

void start_relay() {
    fake::reset();
    ravo_db_init();
    if (RAVO_IF_Create_fd() != 0) std::abort();
}

packet::scenario read_scenario(const std::uint8_t *data, std::size_t size) {
    packet::scenario what;
    const std::uint8_t bits = data[0];
    what.relay.relay_enable = (bits & 1) != 0 ? 0 : 1;
    what.relay.option_state = (bits & 2) != 0 ? 0 : 1;
    what.relay.check = (bits & 4) != 0 ? 0 : 1;
    what.via.trusted = (bits & 8) != 0 ? 1 : 0;
    what.via.local_relay = (bits & 16) != 0 ? 1 : 0;
    if ((bits & 32) != 0) what.via.servers = {};
    if ((bits & 64) != 0) what.via.maclen = 0;
    // deliberate: a reply without relay address ends in an assertion where local relay stands without the check.
    if (what.via.local_relay == 1) what.relay.check = 1;
    what.relay.policy = data[1] % 5U;
    what.relay.hops = data[2] % 18U;
    what.vlan = (data[3] & 1) != 0 ? data[3] : 100;
    what.port = data[4] * 256U + data[5];
    fake::print_from((data[6] & 1) != 0 ? 101 : 104);
    what.received.assign(data + 8, data + size);
    // An address of an interface or of none is hard to hit: two bits choose it.
    if (what.received.size() >= 16 && (data[7] & 3) != 0) {
        const packet::bytes dst = (data[7] & 3) == 1   ? packet::bytes{255, 255, 255, 255}
                                  : (data[7] & 3) == 2 ? packet::bytes{192, 0, 2, 1}
                                                       : packet::bytes{192, 0, 2, 99};
        std::copy(dst.begin(), dst.end(), what.received.begin() + 12);
    }
    return what;
}

// Fills what a stray byte could come from. The message is refused for its flags.
void spoil(const poison::pattern &with) {
    fake::put_channel({packet::channel_bytes(poison::refused_message(with)), 5121, 10});
    ravo_l2_listen_hdlr(ravo_l2_sock_fd, nullptr);
    fake::forget();
    packet::forget_transactions();
    poison::paint_stack(with);
}

// All that leaves the relay for a message behind a pattern.
packet::bytes sent_behind(const poison::pattern &with, const packet::scenario &what) {
    spoil(with);
    (void)packet::outcome_of(what.received, what.vlan, what.port);
    packet::bytes all;
    for (const fake::datagram &sent : fake::datagrams) all.insert(all.end(), sent.payload.begin(), sent.payload.end());
    for (const fake::frame &sent : fake::frames) all.insert(all.end(), sent.payload.begin(), sent.payload.end());
    return all;
}

[[noreturn]] void fail(const std::string &what) {
    std::fprintf(stderr, "relay_message_fuzz: %s\n", what.c_str());
    std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    static const bool started = (start_relay(), true);
    if (!started || size < 8) return 0;
    const packet::scenario what = read_scenario(data, size);
    packet::forget_transactions();
    const std::string fault = packet::judge(what).fault;
    if (!fault.empty()) fail(fault);
    const packet::bytes first = sent_behind(poison::patterns[0], what);
    const packet::bytes second = sent_behind(poison::patterns[1], what);
    if (first != second) fail("a byte is sent that comes from elsewhere: " + packet::hex_diff(first, second));
    return 0;
}

// The options are changed as options; what is in front of them, as bytes.
extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t *data, std::size_t size, std::size_t max_size,
                                               unsigned seed) {
    pieces::dice draw(seed);
    constexpr std::size_t before = 8 + 24 + 240;
    if (size < before || draw.one_in(3)) return LLVMFuzzerMutate(data, size, max_size);
    const packet::bytes area = pieces::change_options(packet::bytes(data + before, data + size), draw);
    return pieces::put({area}, packet::bytes(data, data + before), data, max_size);
}

// SPDX-License-Identifier: Apache-2.0
// Micro-benchmarks of whole messages, from the frame to what is sent for it. Each turn counts what was sent, so that a
// message that is dropped on the way is an error and not a fast time.
#include <benchmark/benchmark.h>

#include "micro_box.h"
#include "micro_suites.h"
#include "ravo_db.h"
#include "ravo_db_xid.h"
#include "ravo_life.h"

namespace {

using namespace bench;

const octets discover = message(op_request, discover_options());
const octets offer = message(op_reply, joined({offer_options(), option82()}));

void expect_sent(benchmark::State &state, std::uint64_t each) {
    if (sent_count() != each * static_cast<std::uint64_t>(state.iterations())) state.SkipWithError("not sent");
}

// The same message again and again; `each` datagrams or frames are sent for it.
void same_message(benchmark::State &state, const settings &wanted, const arrival &what, std::uint64_t each) {
    start_box(wanted);
    for (auto _ : state) receive(what);
    expect_sent(state, each);
    ravo_db_exit();
}

// Requests and the replies that end their transactions, each of a new one, on the clients' interface or by turns on
// those that were added.
class transactions {
  public:
    explicit transactions(std::uint32_t first, unsigned interfaces = 1) : number_(first) {
        for (unsigned i = 0; i < interfaces; ++i) {
            const unsigned vlan = interfaces == 1 ? client_vlan : first_added + i;
            requests_.push_back(from_client(discover, vlan));
            replies_.push_back(from_server(message(op_reply, joined({offer_options(), option82(vlan)}), vlan), vlan));
            // The xid stands in frames whose checksum was computed without it: the kernel has verified it, as it says.
            requests_.back().aux.checksum_valid = true;
            replies_.back().aux.checksum_valid = true;
        }
    }
    void ask() { carry(requests_, number_++); }
    // Answers the request that came so many before the last one.
    void answer(std::uint32_t before) { carry(replies_, number_ - 1 - before); }
    void next() {
        ask();
        answer(0);
    }

  private:
    static void carry(std::vector<arrival> &by_turns, std::uint32_t number) {
        arrival &what = by_turns[number % by_turns.size()];
        set_xid(what.frame, message_in_frame, number * 2654435761U);
        receive(what);
    }

    std::uint32_t number_;
    std::vector<arrival> requests_, replies_;
};

constexpr std::uint32_t in_flight = 64;  // as in bench/run

// With others pending.
void exchange(benchmark::State &state, std::uint32_t pending) {
    start_box();
    for (std::uint32_t i = 0; i < pending; ++i) {
        xid_entry entry{};
        entry.xid = i * 2654435761U;
        (void)ravo_db_xid_update(&entry);
    }
    transactions all(pending);
    for (auto _ : state) all.next();
    expect_sent(state, 2);
    ravo_db_exit();
}

// Requests on 256 VLANs by turns, with so many interfaces configured.
void many_interfaces(benchmark::State &state, unsigned interfaces) {
    constexpr unsigned busy = 256;
    start_box();
    add_interfaces(interfaces);
    std::vector<arrival> requests;
    for (unsigned i = 0; i < busy; ++i) {
        requests.push_back(from_client(discover));
        requests.back().aux.checksum_valid = true;
        requests.back().vlan = static_cast<std::uint16_t>(100 + i * (interfaces / busy));
        set_xid(requests.back().frame, message_in_frame, i);
    }
    unsigned turn = 0;
    for (auto _ : state) receive(requests[turn++ % busy]);
    expect_sent(state, 1);
    ravo_db_exit();
}

}  // namespace

bool bench::carry(std::uint32_t count, unsigned interfaces) {
    start_box();
    if (interfaces > 1) add_interfaces(interfaces);
    transactions all(0, interfaces);
    for (std::uint32_t i = 0; i < in_flight; ++i) all.ask();
    for (std::uint32_t i = 0; i < count; ++i) {
        all.ask();
        all.answer(in_flight);
    }
    const bool whole = sent_count() == in_flight + 2 * std::uint64_t{count};
    ravo_db_exit();
    return whole;
}

void bench::register_messages() {
    const arrival request = from_client(discover);
    const arrival untrusted = from_client(message(op_request, joined({discover_options(), option82()})));
    const arrival reply = from_server(offer);
    constexpr settings plain{.option_state = 0, .check = 0};
    constexpr settings unchecked{.option_state = 1, .check = 0};
    benchmark::RegisterBenchmark("message: request, no option 82", same_message, plain, request, 1);
    benchmark::RegisterBenchmark("message: request, option 82, not checked", same_message, unchecked, request, 1);
    benchmark::RegisterBenchmark("message: request, option 82, repeated", same_message, settings{}, request, 1);
    benchmark::RegisterBenchmark("message: request, untrusted option 82, dropped", same_message, settings{}, untrusted,
                                 0);
    benchmark::RegisterBenchmark("message: reply, not checked", same_message, unchecked, reply, 1);
    for (const unsigned interfaces : {256U, 3995U})
        benchmark::RegisterBenchmark(("message: request on 256 VLANs, of " + std::to_string(interfaces)).c_str(),
                                     many_interfaces, interfaces);
    for (const std::uint32_t pending : {0U, 1000U, 100000U, 1000000U})
        benchmark::RegisterBenchmark(("message: request and reply beside, " + std::to_string(pending)).c_str(),
                                     exchange, pending);
}

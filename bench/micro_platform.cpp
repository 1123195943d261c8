// SPDX-License-Identifier: Apache-2.0
// Micro-benchmarks of what the Linux platform does for each message: frames decoded, books kept, traces filtered.
#include <benchmark/benchmark.h>

#include <array>

#include "books/books.h"
#include "channel/channel_frame.h"
#include "log/log.h"
#include "micro_box.h"
#include "micro_suites.h"
#include "trace.h"

namespace {

using namespace ravo::platform;
using bench::arrival;
using bench::octets;

// ---- Frames ----

void frame_decode(benchmark::State &state, const arrival &what) {
    std::array<std::uint8_t, 2048> buffer;
    for (auto _ : state) {
        dhcp_frame frame;
        if (channel_frame_decode(what.frame, what.aux, &frame) != frame_result::ok) state.SkipWithError("refused");
        benchmark::DoNotOptimize(channel_frame_copy(frame, buffer.data(), buffer.size()));
        benchmark::ClobberMemory();
    }
}

void frame_refused(benchmark::State &state, arrival what) {
    what.frame.back() ^= 1;
    for (auto _ : state) {
        dhcp_frame frame;
        if (channel_frame_decode(what.frame, what.aux, &frame) != frame_result::bad_udp_checksum)
            state.SkipWithError("not refused");
    }
}

arrival verified(arrival what) {
    what.aux.checksum_valid = true;
    return what;
}

// ---- Books ----

void books_message(benchmark::State &state, std::size_t recorder) {
    const arrival what = bench::from_client(bench::message(bench::op_request, bench::discover_options()));
    const std::span<const std::uint8_t> frame(what.frame);
    books_close();
    books_clear_counters();
    books_set_recorder(recorder);
    for (auto _ : state) {
        books_open(what.vlan, what.port, frame, frame.subspan(bench::message_in_frame));
        outcome_server(1);
        outcome_record(OUTCOME_RELAYED);
        books_close();
    }
    if (books_total().by_outcome[OUTCOME_RELAYED] != static_cast<std::uint64_t>(state.iterations()))
        state.SkipWithError("not booked");
    books_set_recorder(4096);
}

void books_outcome(benchmark::State &state) {
    const arrival what = bench::from_client(bench::message(bench::op_request, bench::discover_options()));
    books_open(what.vlan, what.port, what.frame, {});
    for (auto _ : state) {
        outcome_record(OUTCOME_RELAYED);
        benchmark::ClobberMemory();
    }
    books_close();
}

// ---- Traces ----

std::uint64_t evaluated = 0;

const char *argument() {
    ++evaluated;
    return "vlan10";
}

// A filtered trace must not evaluate its arguments.
void trace_filtered(benchmark::State &state) {
    log_set_threshold(log_level_warning);
    evaluated = 0;
    for (auto _ : state) {
        ravo_trace(ravo::level_trace, "%s (%d): Rx interface=%s\n", argument());
        benchmark::ClobberMemory();  // the level may have changed
    }
    if (evaluated != 0) state.SkipWithError("arguments evaluated");
}

void trace_printed(benchmark::State &state) {
    log_set_threshold(log_level_trace);
    evaluated = 0;
    for (auto _ : state) ravo_trace(ravo::level_trace, "%s (%d): Rx interface=%s\n", argument());
    if (evaluated != static_cast<std::uint64_t>(state.iterations())) state.SkipWithError("not printed");
    log_set_threshold(log_level_warning);
}

}  // namespace

void bench::register_platform() {
    const octets small = message(op_request, discover_options());
    octets large = small;
    large.resize(1400);
    benchmark::RegisterBenchmark("frame: decode, 300 bytes", frame_decode, from_client(small));
    benchmark::RegisterBenchmark("frame: decode, 1400 bytes", frame_decode, from_client(large));
    benchmark::RegisterBenchmark("frame: decode, checksum verified before", frame_decode, verified(from_client(small)));
    benchmark::RegisterBenchmark("frame: refuse, bad checksum", frame_refused, from_client(small));
    benchmark::RegisterBenchmark("books: one outcome", books_outcome);
    benchmark::RegisterBenchmark("books: a message, recorder of 1", books_message, std::size_t{1});
    benchmark::RegisterBenchmark("books: a message, recorder of 4096", books_message, std::size_t{4096});
    benchmark::RegisterBenchmark("books: a message, recorder of 1000000", books_message, std::size_t{1000000});
    benchmark::RegisterBenchmark("trace: filtered", trace_filtered);
    benchmark::RegisterBenchmark("trace: printed to /dev/null", trace_printed);
}

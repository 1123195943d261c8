// SPDX-License-Identifier: Apache-2.0
// Micro-benchmarks of the relay: what each step of a message's way costs by itself, without the kernel.
//
// A benchmark that does not do what its name says (a message that is dropped, an option that is not found) reports an
// error instead of a time. Here: the steps on a message's options; tables, ways and platform services stand in the
// files beside. `bench/micro` runs the program and prints medians.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <string_view>

#include "checksum.h"
#include "dhcp.h"
#include "log/log.h"
#include "micro_box.h"
#include "micro_suites.h"
#include "ravo_db.h"
#include "ravo_db_xid.h"
#include "ravo_if_check.h"
#include "ravo_if_client.h"
#include "ravo_if_option.h"
#include "ravo_life.h"

namespace {

using bench::octets;

constexpr std::size_t cookie_at = 236;
constexpr std::size_t options_at = 240;

// A message where the relay's procedures expect it.
struct held {
    message_buffer buffer;
    explicit held(const octets &bytes) { std::memcpy(buffer.data(), bytes.data(), bytes.size()); }
    std::uint8_t *options() { return buffer.data() + options_at; }
};

octets discover() {
    return bench::message(bench::op_request, bench::discover_options());
}

octets discover_with_option82() {
    return bench::message(bench::op_request, bench::joined({bench::discover_options(), bench::option82()}));
}

// As much as fits into a message that is still given an option 82.
octets full_message() {
    octets options = bench::discover_options();
    for (std::uint8_t code = 128; options.size() + 6 < 280; ++code)
        options.insert(options.end(), {code, 4, 1, 2, 3, 4});
    return bench::message(bench::op_request, options);
}

void valid_options(benchmark::State &state, const octets &bytes) {
    held msg(bytes);
    const auto length = static_cast<std::int32_t>(bytes.size() - cookie_at);
    for (auto _ : state)
        if (isValidOptions(msg.buffer.data() + cookie_at, length) != 1) state.SkipWithError("refused");
}

void valid_header(benchmark::State &state) {
    bench::start_box();
    held msg(discover());
    for (auto _ : state)
        if (isValidHeader(msg.buffer.data()) != 1) state.SkipWithError("refused");
}

void message_type(benchmark::State &state) {
    held msg(discover());
    std::uint8_t type = 0;
    for (auto _ : state)
        if (DHCP_getMessageType(msg.options(), &type) != 0 || type != dhcpDISCOVER) state.SkipWithError("not found");
}

void option82_absent(benchmark::State &state) {
    held msg(discover());
    std::uint8_t *found = nullptr;
    std::uint8_t type = 0;
    for (auto _ : state)
        if (ravo_find_agent_option(msg.options(), &found, &type) != 1) state.SkipWithError("found");
}

void option82_present(benchmark::State &state) {
    held msg(discover_with_option82());
    std::uint8_t *found = nullptr;
    std::uint8_t type = 0;
    for (auto _ : state)
        if (ravo_find_agent_option(msg.options(), &found, &type) != 0) state.SkipWithError("not found");
}

// Inserted, and taken out again so that the next turn finds the message as it was.
void option82_insert_remove(benchmark::State &state) {
    bench::start_box();
    held msg(discover());
    const iface &record = bench::client_interface();
    for (auto _ : state) {
        const std::uint32_t with = fillOptions(&record, msg.options(), RAVO_FILL_ADD, 10, bench::port_1_1);
        const std::uint32_t without = fillOptions(&record, msg.options(), RAVO_FILL_REMOVE, 10, bench::port_1_1);
        if (with != without + RAVO_AGENT_OPTION_SIZE) state.SkipWithError("not inserted and removed");
    }
}

void option82_check(benchmark::State &state) {
    bench::start_box();
    held msg(bench::message(bench::op_reply, bench::joined({bench::offer_options(), bench::option82()})));
    std::uint8_t *op82 = nullptr;
    std::uint8_t type = 0;
    (void)ravo_find_agent_option(msg.options(), &op82, &type);
    xid_entry entry{};
    entry.module = 1;
    entry.port = 1;
    for (auto _ : state) {
        (void)ravo_db_xid_update(&entry);  // the check takes the transaction out
        if (ravo_option_check_reply(&bench::client_interface(), op82, msg.buffer.data()) != 1)
            state.SkipWithError("refused");
    }
    ravo_db_exit();
}

void options_60_61(benchmark::State &state) {
    held msg(discover());
    for (auto _ : state) {
        std::uint8_t id[RAVO_CLIENT_ID_SIZE + 1] = {};
        char vendor[RAVO_VENDOR_CLASS_SIZE + 1] = {};
        std::uint32_t found60 = 0;
        std::uint32_t found61 = 0;
        ravo_find_option60_61(msg.options(), id, vendor, &found60, &found61);
        if (found60 != 1 || found61 != 1) state.SkipWithError("not found");
    }
}

void udp_checksum(benchmark::State &state) {
    octets frame = bench::from_client(discover()).frame;
    std::uint8_t *udp = frame.data() + 34;
    for (auto _ : state) {
        udpChecksum(udp, frame.data() + 14, udp + 8);
        benchmark::ClobberMemory();
    }
}

void register_options() {
    benchmark::RegisterBenchmark("header: valid", valid_header);
    benchmark::RegisterBenchmark("options: valid, DISCOVER", valid_options, discover());
    benchmark::RegisterBenchmark("options: valid, full message", valid_options, full_message());
    benchmark::RegisterBenchmark("options: message type", message_type);
    benchmark::RegisterBenchmark("options: 60 and 61", options_60_61);
    benchmark::RegisterBenchmark("option 82: look for, absent", option82_absent);
    benchmark::RegisterBenchmark("option 82: look for, present", option82_present);
    benchmark::RegisterBenchmark("option 82: insert and remove", option82_insert_remove);
    benchmark::RegisterBenchmark("option 82: remember and check", option82_check);
    benchmark::RegisterBenchmark("checksum: UDP, 300 bytes", udp_checksum);
}

}  // namespace

int main(int argc, char **argv) {
    if (ravo::platform::log_open("/dev/null", ravo::platform::log_level_warning)) return 1;
    if (argc == 4 && std::string_view(argv[1]) == "--carry") {
        const auto count = static_cast<std::uint32_t>(std::atoi(argv[2]));
        return bench::carry(count, static_cast<unsigned>(std::atoi(argv[3]))) ? 0 : 1;
    }
    register_options();
    bench::register_tables();
    bench::register_platform();
    bench::register_messages();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}

// SPDX-License-Identifier: Apache-2.0
// The micro-benchmarks, file by file: each function registers those of its file, in the order they are to be run.
#ifndef BENCH_MICRO_SUITES_H
#define BENCH_MICRO_SUITES_H

#include <cstdint>

namespace bench {

void register_tables();    // transactions, interfaces, timers
void register_platform();  // traces, books, flight recorder, frames
void register_messages();  // whole messages through the receive handler

// Carries so many transactions and nothing else, for a count of instructions, on one interface or by turns on several.
// Returns whether all were sent on.
bool carry(std::uint32_t count, unsigned interfaces);

}  // namespace bench

#endif

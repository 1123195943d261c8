// SPDX-License-Identifier: Apache-2.0
// The micro-benchmarks, file by file: each function registers those of its file, in the order they are to be run.
#ifndef BENCH_MICRO_SUITES_H
#define BENCH_MICRO_SUITES_H

namespace bench {

void register_tables();    // transactions, interfaces, timers
void register_platform();  // traces, books, flight recorder, frames
void register_messages();  // whole messages through the receive handler

}  // namespace bench

#endif

// SPDX-License-Identifier: Apache-2.0
// The daemon frame and the service status.
#ifndef FAKE_FRAME_H
#define FAKE_FRAME_H

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "vex_init.h"

namespace fake {

// Each status that was reported: "28 2 \"\"" (protocol, state, text).
extern std::vector<std::string> statuses;

// The records that VEX_INIT_Sys_Init was given, and what it returns.
extern std::vector<std::array<std::uintptr_t, VEX_INIT_WORDS>> frame_runs;
extern int frame_result;

void reset_frame();

}  // namespace fake

#endif

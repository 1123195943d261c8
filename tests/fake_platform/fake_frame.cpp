// SPDX-License-Identifier: Apache-2.0
// The frame runs nothing: a test calls the callbacks of the record itself.
#include "fake_frame.h"

#include <algorithm>

#include "sysinf_lib.h"

namespace fake {

std::vector<std::string> statuses;
std::vector<std::array<std::uintptr_t, VEX_INIT_WORDS>> frame_runs;
int frame_result = 0;

namespace {

std::array<std::uintptr_t, VEX_INIT_WORDS> record{};

}  // namespace

void reset_frame() {
    statuses.clear();
    frame_runs.clear();
    frame_result = 0;
    record = {};
}

}  // namespace fake

std::uintptr_t *VEX_INIT_alloc() {
    fake::record = {};
    return fake::record.data();
}

int VEX_INIT_Sys_Init(std::uintptr_t *record) {
    auto &run = fake::frame_runs.emplace_back();
    std::copy_n(record, VEX_INIT_WORDS, run.begin());
    return fake::frame_result;
}

int SYSINF_LIB_Proto_Status_Set(std::uint32_t protocol, std::uint32_t state, const char *text) {
    fake::statuses.push_back(std::to_string(protocol) + " " + std::to_string(state) + " \"" + text + "\"");
    return 0;
}

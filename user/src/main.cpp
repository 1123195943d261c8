// SPDX-License-Identifier: Apache-2.0
// The relay daemon: hands itself over to the platform's daemon frame, which runs it.
#include <cstdint>

#include "ravo_access.h"
#include "ravo_main.h"
#include "vex_init.h"

int main(int, char **) {
    relay_access_register(&ravo_access);
    std::uintptr_t *record = VEX_INIT_alloc();
    ravo_register(record);
    // deliberate: the frame reports its own faults; whatever it found, the daemon ended in order.
    [[maybe_unused]] const int status = VEX_INIT_Sys_Init(record);
    return 0;
}

// SPDX-License-Identifier: Apache-2.0
// Daemon frame and print service.
//
// The platform provides: a registration record, the daemon's life (event loop, signals, options of the
// process, start-up configuration) and one print function. The daemon provides three callbacks, written
// into the record, which the platform calls once each while VEX_INIT_Sys_Init runs.
#ifndef PLATFORM_VEX_INIT_H
#define PLATFORM_VEX_INIT_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

struct cli_globals;  // what the command library hands to the command install callback (cli.h)
struct nsm_globals;  // what the interface service hands to the interface set-up callback (nsm.h)

// The registration record is an array of this many pointer-sized words.
#define VEX_INIT_WORDS 16

// Positions in the registration record.
enum vex_init_word {
    VEX_INIT_MODULE = 0,     // module identifier of the daemon
    VEX_INIT_FLAG = 9,       // frame flag, always 1
    VEX_INIT_COMMANDS = 10,  // vex_init_commands: installs the daemon's commands
    VEX_INIT_NSM = 13,       // vex_init_nsm: connects the interface service
    VEX_INIT_START = 14,     // vex_init_start: finishes start-up
};

// The daemon's callbacks as the frame calls them. Words 10, 13 and 14 hold them converted to uintptr_t.
typedef int (*vex_init_commands)(struct cli_globals *globals);
typedef int (*vex_init_nsm)(struct nsm_globals *globals);
typedef int (*vex_init_start)(void *a, void *b);

// Returns the registration record, all words zero. The record belongs to the frame and lives as long as the
// process; there is one.
uintptr_t *VEX_INIT_alloc(void);

// Runs the daemon: reads the options of the process, sets up logging and the event loop, calls the three
// callbacks (commands, interfaces, start-up), delivers the interfaces and addresses that exist as events,
// replays the start-up configuration, opens the management socket, and serves events until a signal ends it.
// record: the record of VEX_INIT_alloc with its words filled. Returns the exit status the frame found: 0
// after an orderly end. Faults that keep the daemon from starting end the process with status 1 and one
// line on standard error.
int VEX_INIT_Sys_Init(uintptr_t *record);

// The lowest level that is printed now. Levels: 0 start-up and crash lines (always printed), 101 trace,
// 103 warning, 104 failure. Written by the platform only; read through vex_prints.
extern int vex_print_threshold;

// Tells whether a line of this level would be printed, so that a caller can skip the evaluation of a
// trace's arguments altogether.
static inline int vex_prints(int level) {
    return level == 0 || level >= vex_print_threshold;
}

// The print service. destination: 32 for the daemon's diagnostics; second and fourth argument: 0; level:
// as above; format: as printf, the daemon's lines carry their own line ends (some have none: the next
// line then continues them). Returns the number of bytes formatted, 0 when the level is filtered.
// May be called from a signal handler that does not return.
int vexprintf(int destination, int reserved1, int level, int reserved2, const char *format, ...)
    __attribute__((format(printf, 5, 6), cold));

#ifdef __cplusplus
}
#endif

#endif

// SPDX-License-Identifier: Apache-2.0
// Tries a platform's services as the relay uses them. Part of the kit for other platforms: link it with the platform,
// and call it in a run of its own, without the relay.
#ifndef RAVO_CONFORMANCE_H
#define RAVO_CONFORMANCE_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

// Told of a promise of the boundary that the platform does not keep. service: the function or group; what: in words.
typedef void (*ravo_conformance_fault)(const char *service, const char *what);

// Tries memory, ordered trees, interface names, numbers in commands and the armed mark of timers; leaves nothing
// behind. Returns the number of faults, 0 for a platform that keeps these promises.
int ravo_conformance(ravo_conformance_fault fault);

struct cli_tree;

// What only the platform can do for the rest. A member that is NULL, or 0, has the part that needs it left out.
struct ravo_conformance_driver {
    void (*serve)(uint32_t milliseconds);        // serves the event loop for that long, or somewhat longer
    struct cli_tree *tree;                       // where commands are installed
    int (*command)(int mode, const char *line);  // runs a line in a session of this mode, with privilege 15; its result
    const char *interface;                       // name of a VLAN interface that can be moved, and is away now
    void (*interface_up)(void);                  // has it come up with an address; starts the service if need be
    void (*interface_gone)(void);                // has it go
    int channel;                                 // 1: the layer-2 channel can be opened, and nobody sends
};

// Tries readers and timers that fire (serve; two seconds), results of the socket calls, the channel, commands and their
// words (tree and command), hooks (interface and its two functions, and serve). The commands of mode 5 that it installs
// stay and begin with "conformance"; the hooks stay too. Returns the number of faults.
int ravo_conformance_running(const struct ravo_conformance_driver *driver, ravo_conformance_fault fault);

#ifdef __cplusplus
}
#endif

#endif

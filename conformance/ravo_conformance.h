// SPDX-License-Identifier: Apache-2.0
// Tries a platform's services as the relay uses them. Part of the kit for other platforms: link it with the platform
// alone, and call it before the relay starts.
#ifndef RAVO_CONFORMANCE_H
#define RAVO_CONFORMANCE_H

#ifdef __cplusplus
extern "C" {
#endif

// Told of a promise of the boundary that the platform does not keep. service: the function or group; what: in words.
typedef void (*ravo_conformance_fault)(const char *service, const char *what);

// Tries memory, ordered trees, interface names, numbers in commands and the armed mark of timers; leaves nothing
// behind. Returns the number of faults, 0 for a platform that keeps these promises.
int ravo_conformance(ravo_conformance_fault fault);

#ifdef __cplusplus
}
#endif

#endif

// SPDX-License-Identifier: Apache-2.0
// Service status: the daemon tells the platform whether its service runs.
#ifndef PLATFORM_SYSINF_LIB_H
#define PLATFORM_SYSINF_LIB_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

// States of a service.
enum sysinf_state {
    SYSINF_STATE_ON = 1,
    SYSINF_STATE_OFF = 2,
};

// Reports the state of a service. protocol: number of the service, 28 for the DHCP relay; state: above;
// text: further text, never NULL, empty for the relay; it is copied. Returns 0; the daemon ignores the result.
int SYSINF_LIB_Proto_Status_Set(uint32_t protocol, uint32_t state, const char *text);

#ifdef __cplusplus
}
#endif

#endif

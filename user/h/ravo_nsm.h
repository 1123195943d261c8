// SPDX-License-Identifier: Apache-2.0
// Following the switch's interfaces and addresses.
#ifndef RAVO_NSM_H
#define RAVO_NSM_H

#include "nsm.h"

// Sets up the client of the interface service and installs the four hooks. Returns the result of starting the client,
// or -1 when it cannot be created.
[[nodiscard]] int ravo_nsm_init(struct nsm_globals *globals);

// The hooks. Each returns 0.
int ravo_nsm_if_up(struct interface *ifp);
int ravo_nsm_addr_add_callback(struct connected *ifc);
int ravo_nsm_if_addr_delete(struct connected *ifc);
int ravo_nsm_if_down(struct connected *ifc);
int ravo_nsm_if_del(struct interface *ifp);

#endif

// SPDX-License-Identifier: Apache-2.0
// The relay's data for the platform's own commands (relay_access.h).
#ifndef RAVO_ACCESS_H
#define RAVO_ACCESS_H

#include "relay_access.h"

// The relay's functions, to be registered with the platform.
extern const relay_access ravo_access;

#endif

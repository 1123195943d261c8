// SPDX-License-Identifier: Apache-2.0
// What is found, as it is found: for the sources of this library.
#ifndef CONFORMANCE_REPORT_H
#define CONFORMANCE_REPORT_H

#include "ravo_conformance.h"

namespace conformance {

// Begins anew; whom to tell.
void begin(ravo_conformance_fault fault);

// A promise: tells of a service what is wrong with it when the promise was not kept.
void expect(bool kept, const char *service, const char *what);

// How many were not kept since begin.
int faults();

}  // namespace conformance

#endif

// SPDX-License-Identifier: Apache-2.0
// What the checks found: each broken promise goes to the function that the caller of a conformance run gave, and is
// counted.
#include "report.h"

namespace conformance {

namespace {

ravo_conformance_fault tell = nullptr;
int found = 0;

}  // namespace

void begin(ravo_conformance_fault fault) {
    tell = fault;
    found = 0;
}

void expect(bool kept, const char *service, const char *what) {
    if (kept) return;
    ++found;
    tell(service, what);
}

int faults() {
    return found;
}

}  // namespace conformance

// SPDX-License-Identifier: Apache-2.0
// The ports' numbers in a file, from one life of the process to the next.
#ifndef PLATFORM_LINUX_INVENTORY_INVENTORY_MEMORY_H
#define PLATFORM_LINUX_INVENTORY_INVENTORY_MEMORY_H

#include <string>

#include "inventory/inventory_ports.h"

namespace ravo::platform {

// Takes in what the file remembers; it need not exist. Lines that say nothing sensible are logged and left out.
void ports_recall(port_table *table, const std::string &path);

// Writes the table, if it changed since. Failures are logged, the first of several.
void ports_remember(port_table *table, const std::string &path);

}  // namespace ravo::platform

#endif

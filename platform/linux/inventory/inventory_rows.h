// SPDX-License-Identifier: Apache-2.0
// What "show interfaces brief" shows, from the model.
#ifndef PLATFORM_LINUX_INVENTORY_INVENTORY_ROWS_H
#define PLATFORM_LINUX_INVENTORY_INVENTORY_ROWS_H

#include <functional>
#include <vector>

#include "inventory/inventory_model.h"

namespace ravo::platform {

// As inventory_rows.
std::vector<inventory_row> model_rows(const inventory_model &model, const std::function<void()> &between = {});

}  // namespace ravo::platform

#endif

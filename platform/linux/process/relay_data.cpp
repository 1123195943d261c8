// SPDX-License-Identifier: Apache-2.0
// Keeps the table of functions through which the platform's commands read the relay's data.
#include "process/relay_data.h"

#include "port_number.h"

namespace {

const relay_access *registered = nullptr;

}  // namespace

void relay_access_register(const relay_access *access) {
    registered = access;
}

const relay_access *ravo::platform::relay_data() {
    return registered;
}

bool ravo::platform::relay_names_port(std::uint32_t number) {
    if (registered == nullptr) return false;
    const port_place place = port_number_place(number);
    relay_transaction entry{};
    for (int found = registered->transaction_first(&entry); found == 1; found = registered->transaction_next(&entry))
        if (entry.module == place.module && entry.port == place.port) return true;
    return false;
}

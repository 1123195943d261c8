// Keeps the table of functions through which the platform's commands read the relay's data.
#include "process/relay_data.h"

namespace {

const relay_access *registered = nullptr;

}  // namespace

void relay_access_register(const relay_access *access) {
    registered = access;
}

const relay_access *ravo::platform::relay_data() {
    return registered;
}

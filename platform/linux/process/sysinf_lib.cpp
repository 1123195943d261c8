// SPDX-License-Identifier: Apache-2.0
// Service status: what the daemon reports about its services is kept for the management plane and passed to the init
// system, which also learns about readiness and that the event loop still turns. What the init system has no room for
// is sent a little later, as it is then.
#include "sysinf_lib.h"

#include <event2/event.h>

#include <map>
#include <memory>

#include "base/loop.h"
#include "base/owners.h"
#include "process/init_system.h"
#include "process/service_status.h"

namespace ravo::platform {

namespace {

constexpr std::uint32_t protocol_dhcp_relay = 28;

struct reported {
    std::uint32_t state;
    std::string text;
};

std::map<std::uint32_t, reported> services;
event_ptr watchdog;

constexpr timeval retry_interval{.tv_sec = 0, .tv_usec = 100000};
event_ptr retry;
bool ready_untold = false;

std::string name_of(std::uint32_t protocol) {
    return protocol == protocol_dhcp_relay ? "DHCP relay" : "service " + std::to_string(protocol);
}

// One that is lost does no harm: the next comes well within the interval.
void on_watchdog(evutil_socket_t /*fd*/, short /*what*/, void * /*arg*/) {
    (void)init_system_tell("WATCHDOG=1");
}

void tell_state();

void on_retry(evutil_socket_t /*fd*/, short /*what*/, void * /*arg*/) {
    tell_state();
}

void tell_state() {
    if (init_system_tell((ready_untold ? "READY=1\nSTATUS=" : "STATUS=") + service_status_line())) {
        ready_untold = false;
        return;
    }
    if (retry == nullptr) retry.reset(evtimer_new(loop_base(), on_retry, nullptr));
    if (retry != nullptr) event_add(retry.get(), &retry_interval);
}

}  // namespace

std::vector<service_state> service_states() {
    std::vector<service_state> out;
    for (const auto &[protocol, service] : services)
        out.push_back({protocol, service.state, name_of(protocol), service.text});
    return out;
}

std::string service_status_line() {
    std::string line;
    for (const auto &[protocol, service] : services) {
        if (!line.empty()) line += ", ";
        line += name_of(protocol) + (service.state == SYSINF_STATE_ON ? " on" : " off");
        if (!service.text.empty()) line += " (" + service.text + ")";
    }
    return line;
}

void service_ready() {
    ready_untold = true;
    tell_state();
}

void service_stopping() {
    retry.reset();
    (void)init_system_tell("STOPPING=1");
}

void service_watchdog_start() {
    const std::uint64_t half = init_system_watchdog() / 2;
    if (half == 0) return;
    const struct timeval period { static_cast<time_t>(half / 1000000), static_cast<suseconds_t>(half % 1000000) };
    watchdog.reset(event_new(loop_base(), -1, EV_PERSIST, on_watchdog, nullptr));
    if (watchdog != nullptr) event_add(watchdog.get(), &period);
}

void service_watchdog_stop() {
    watchdog.reset();
}

}  // namespace ravo::platform

int SYSINF_LIB_Proto_Status_Set(std::uint32_t protocol, std::uint32_t state, const char *text) {
    ravo::platform::services[protocol] = {state, text};
    ravo::platform::tell_state();
    return 0;
}

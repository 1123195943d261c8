// SPDX-License-Identifier: Apache-2.0
// The Linux platform's services keep what the boundary promises.
#include <arpa/inet.h>
#include <event2/event.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "all_commands.h"
#include "base/loop.h"
#include "cli/command_line.h"
#include "interfaces/nsm_feed.h"
#include "nsm.h"
#include "osal/osal_events.h"
#include "ravo_conformance.h"

namespace {

using namespace ravo::platform;

std::vector<std::string> found;

void note(const char *service, const char *what) {
    found.push_back(std::string(service) + ": " + what);
}

// Serves the loop for that long. A timer of the loop's own ends it.
void serve(std::uint32_t milliseconds) {
    const timeval span{milliseconds / 1000, static_cast<suseconds_t>(milliseconds % 1000) * 1000};
    event_base_loopexit(loop_base(), &span);
    event_base_dispatch(loop_base());
}

// Runs a line in a session of this mode.
int command(int mode, const char *line) {
    ravo::cli::session_output output;
    output.text = [](std::string_view) { return 0; };
    const ravo::cli::session_ptr session = ravo::cli::session_open(std::move(output), 15, "tester");
    if (mode == CLI_MODE_CONFIGURATION) (void)ravo::cli::session_run(*session, "configure terminal");
    return ravo::cli::session_run(*session, line);
}

void interface_up() {
    address_record address;
    address.address = address.peer = inet_addr("192.0.2.1");
    address.prefix_length = 24;
    const std::vector<address_record> addresses = {address};
    nsm_client *client = nsm_client_create(nullptr);
    ASSERT_NE(client, nullptr);
    ASSERT_EQ(nsm_client_start(client), 0);
    nsm_deliver_existing();
    const interface_state state = {40, true, {2, 0, 0, 0, 0, 1}, &addresses};
    nsm_feed(100, &state);
}

void interface_gone() {
    nsm_feed(100, nullptr);
}

struct Conformance : testing::Test {
    Conformance() { found.clear(); }
};

TEST_F(Conformance, TheLinuxPlatformHasNoFault) {
    EXPECT_EQ(ravo_conformance(note), 0);
    EXPECT_THAT(found, testing::IsEmpty());
}

TEST_F(Conformance, TheLinuxPlatformHasNoFaultWhileItRuns) {
    install_platform();
    ravo_conformance_driver driver{};
    driver.serve = serve;
    driver.tree = ravo::cli::library_globals()->tree;
    driver.command = command;
    driver.interface = "vlan100";
    driver.interface_up = interface_up;
    driver.interface_gone = interface_gone;
    EXPECT_EQ(ravo_conformance_running(&driver, note), 0);
    EXPECT_THAT(found, testing::IsEmpty());
    readers_free();
    timers_free();
    loop_free();
}

TEST_F(Conformance, WithoutADriverTheResultsOfTheCallsAreTried) {
    const ravo_conformance_driver nobody{};
    EXPECT_EQ(ravo_conformance_running(&nobody, note), 0);
    EXPECT_THAT(found, testing::IsEmpty());
}

}  // namespace

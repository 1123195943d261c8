// SPDX-License-Identifier: Apache-2.0
// Service status: what the init system is told, and what is kept for the management plane.
#include "process/service_status.h"

#include <event2/event.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "base/loop.h"
#include "process/init_system.h"
#include "sysinf_lib.h"

namespace {

// The init system's end of the notification socket.
struct ServiceStatus : testing::Test {
    std::string folder;
    int fd = -1;
    ServiceStatus() {
        char name[] = "/tmp/service_test.XXXXXX";
        folder = mkdtemp(name);
        const std::string path = folder + "/notify";
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof(address.sun_path) - 1);
        fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        EXPECT_EQ(bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address)), 0);
        setenv("NOTIFY_SOCKET", path.c_str(), 1);
    }
    ~ServiceStatus() override {
        unsetenv("NOTIFY_SOCKET");
        unsetenv("WATCHDOG_USEC");
        close(fd);
        std::filesystem::remove_all(folder);
    }
    // The next message; empty when none has been sent.
    std::string told() const {
        char text[512];
        const ssize_t got = recv(fd, text, sizeof(text), MSG_DONTWAIT);
        return {text, static_cast<std::size_t>(got > 0 ? got : 0)};
    }
};

TEST_F(ServiceStatus, RelayStateIsToldAndKept) {
    EXPECT_EQ(SYSINF_LIB_Proto_Status_Set(28, SYSINF_STATE_OFF, ""), 0);
    EXPECT_EQ(told(), "STATUS=DHCP relay off");
    EXPECT_EQ(SYSINF_LIB_Proto_Status_Set(28, SYSINF_STATE_ON, ""), 0);
    EXPECT_EQ(told(), "STATUS=DHCP relay on");
    const auto states = ravo::platform::service_states();
    ASSERT_EQ(states.size(), 1U);
    EXPECT_EQ(states[0].protocol, 28U);
    EXPECT_EQ(states[0].state, 1U);
    EXPECT_EQ(states[0].text, "");
    ravo::platform::service_ready();
    EXPECT_EQ(told(), "READY=1\nSTATUS=DHCP relay on");
    ravo::platform::service_stopping();
    EXPECT_EQ(told(), "STOPPING=1");
}

TEST_F(ServiceStatus, TextIsCopiedAndSeveralServicesShareTheLine) {
    char text[] = "busy";
    EXPECT_EQ(SYSINF_LIB_Proto_Status_Set(28, SYSINF_STATE_ON, ""), 0);
    EXPECT_EQ(SYSINF_LIB_Proto_Status_Set(99, SYSINF_STATE_OFF, text), 0);
    std::memset(text, 'x', sizeof(text) - 1);
    EXPECT_EQ(ravo::platform::service_status_line(), "DHCP relay on, service 99 off (busy)");
}

TEST_F(ServiceStatus, WatchdogIsOursOrNobodys) {
    using ravo::platform::init_system_watchdog;
    EXPECT_EQ(init_system_watchdog(), 0U);
    setenv("WATCHDOG_USEC", "30000000", 1);
    EXPECT_EQ(init_system_watchdog(), 30000000U);
    setenv("WATCHDOG_PID", std::to_string(getpid()).c_str(), 1);
    EXPECT_EQ(init_system_watchdog(), 30000000U);
    for (const char *other : {"1", "", "x", "99999999999999999999"}) {
        setenv("WATCHDOG_PID", other, 1);
        EXPECT_EQ(init_system_watchdog(), 0U) << other;
    }
    unsetenv("WATCHDOG_PID");
    for (const char *bad : {"", "-1", "30s", " 30000000", "99999999999999999999"}) {
        setenv("WATCHDOG_USEC", bad, 1);
        EXPECT_EQ(init_system_watchdog(), 0U) << bad;
    }
}

TEST_F(ServiceStatus, AnInitSystemThatHangsIsNotWaitedForAndToldLater) {
    // Nobody reads: after some messages there is no room, and all calls return all the same.
    for (int i = 0; i < 1000; ++i) EXPECT_EQ(SYSINF_LIB_Proto_Status_Set(28, SYSINF_STATE_OFF, ""), 0);
    const std::string off = "STATUS=" + ravo::platform::service_status_line();
    ravo::platform::service_ready();
    EXPECT_EQ(SYSINF_LIB_Proto_Status_Set(28, SYSINF_STATE_ON, ""), 0);
    int before = 0;
    std::string next = told();
    for (; next == off; next = told()) ++before;
    EXPECT_EQ(next, "");
    EXPECT_LT(before, 1000);
    event_base_loop(ravo::platform::loop_base(), EVLOOP_ONCE);
    EXPECT_EQ(told(), "READY=1\nSTATUS=" + ravo::platform::service_status_line());
    EXPECT_EQ(told(), "");
    ravo::platform::service_stopping();
    EXPECT_EQ(told(), "STOPPING=1");
    ravo::platform::loop_free();
}

TEST_F(ServiceStatus, AnAbstractSocketIsAnInitSystemsToo) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string name = folder;
    name.copy(address.sun_path + 1, sizeof(address.sun_path) - 2);
    const int abstract = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
    ASSERT_EQ(bind(abstract, reinterpret_cast<const sockaddr *>(&address), length), 0);
    setenv("NOTIFY_SOCKET", ("@" + name).c_str(), 1);
    ravo::platform::service_stopping();
    char text[64];
    EXPECT_EQ(recv(abstract, text, sizeof text, MSG_DONTWAIT), 10);
    close(abstract);
}

TEST_F(ServiceStatus, WithoutAnInitSystemNothingHappens) {
    for (const char *name : {"", "/", "relative", "/tmp/of-nobody"}) {
        setenv("NOTIFY_SOCKET", name, 1);
        EXPECT_EQ(SYSINF_LIB_Proto_Status_Set(28, SYSINF_STATE_ON, ""), 0);
    }
    unsetenv("NOTIFY_SOCKET");
    ravo::platform::service_ready();
    EXPECT_EQ(event_base_get_num_events(ravo::platform::loop_base(), EVENT_BASE_COUNT_ADDED), 0);
    ravo::platform::loop_free();
}

TEST_F(ServiceStatus, WatchdogIsFedFromTheEventLoop) {
    setenv("WATCHDOG_USEC", "20000", 1);
    ravo::platform::service_watchdog_start();
    for (int i = 0; i < 2; ++i) {
        event_base_loop(ravo::platform::loop_base(), EVLOOP_ONCE);
        EXPECT_EQ(told(), "WATCHDOG=1");
    }
    ravo::platform::service_watchdog_stop();
    ravo::platform::loop_free();
}

TEST_F(ServiceStatus, WithoutAWatchdogNothingIsScheduled) {
    ravo::platform::service_watchdog_start();
    EXPECT_EQ(event_base_get_num_events(ravo::platform::loop_base(), EVENT_BASE_COUNT_ADDED), 0);
    ravo::platform::loop_free();
}

}  // namespace

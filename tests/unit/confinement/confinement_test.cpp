// SPDX-License-Identifier: Apache-2.0
// What is left to the process when all is given up, and where captures may go.
#include "confinement/confinement.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>
#include <vector>

#include "child.h"
#include "confinement/capabilities.h"

using namespace ravo::platform;
using testing::ElementsAre;

namespace {

constexpr std::uint64_t always = capability_bit(CAP_NET_RAW) | capability_bit(CAP_NET_BIND_SERVICE);
constexpr std::uint64_t admin = capability_bit(CAP_NET_ADMIN);

std::uint64_t left_with(const confinement_wishes &wishes) {
    std::uint64_t left = 0;
    const child::result result = child::run([&] {
        if (confine({}, wishes) || prctl(PR_GET_NO_NEW_PRIVS, 0, 0, 0, 0) == 0) return 1;
        left = capabilities_permitted();
        return write(STDERR_FILENO, &left, sizeof left) == sizeof left ? 0 : 1;
    });
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.told.size(), sizeof left) << result.told;
    if (result.told.size() == sizeof left) result.told.copy(reinterpret_cast<char *>(&left), sizeof left);
    return left;
}

TEST(Confinement, CapabilitiesFollowTheDescription) {
    if ((capabilities_permitted() & (always | admin)) != (always | admin)) GTEST_SKIP() << "has none to give up";
    EXPECT_EQ(left_with({}) & (always | admin), always);
    EXPECT_EQ(left_with({.ports_are_limited = true}) & (always | admin), always | admin);
    EXPECT_EQ(left_with({.trap = true}) & (always | admin), always | admin);
    EXPECT_EQ(left_with({.trap = true}) & capability_bit(CAP_SYS_ADMIN), 0U);
}

TEST(Confinement, CallsAndFilesAreRefused) {
    const child::result result = child::run([] {
        if (confine({}, {})) return 1;
        if (unlink("/etc/no-such-file") == 0) return 2;
        if (confinement_filters_calls && (setuid(0) == 0 || errno != EPERM)) return 3;
        return open("/etc/passwd", O_RDONLY | O_CLOEXEC) >= 0 ? 0 : 4;
    });
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.told, confinement_filters_calls ? "ravod: forbidden system call: setuid\n" : "");
}

TEST(Confinement, FoldersForCaptures) {
    unsetenv("LOGS_DIRECTORY");
    EXPECT_THAT(confinement_capture_folders({}), ElementsAre("/var/log/ravo"));
    EXPECT_THAT(confinement_capture_folders({"/srv/a", "/var/log/ravo"}), ElementsAre("/srv/a", "/var/log/ravo"));
    setenv("LOGS_DIRECTORY", "/logs/one:/logs/two", 1);
    EXPECT_THAT(confinement_capture_folders({}), ElementsAre("/logs/one", "/logs/two", "/var/log/ravo"));
    unsetenv("LOGS_DIRECTORY");
}

TEST(Confinement, OwnFoldersAreThoseOfTheOptions) {
    frame_options options;
    options.management_socket = "/run/x/ravod.sock";
    options.state_folder = "/var/lib/x";
    const auto folders = confinement_own_folders(options);
    std::vector<std::string> paths;
    for (const own_folder &folder : folders) paths.push_back(folder.path);
    EXPECT_THAT(paths, ElementsAre("/run/x", "/var/lib/x"));
}

}  // namespace

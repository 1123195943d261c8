// SPDX-License-Identifier: Apache-2.0
// Root becomes another user with the capabilities it is to keep, or stays, or is told why it cannot.
#include "confinement/daemon_user.h"

#include <gtest/gtest.h>
#include <linux/capability.h>
#include <pwd.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "child.h"
#include "confinement/capabilities.h"

using namespace ravo::platform;

namespace {

constexpr std::uint64_t kept = capability_bit(CAP_NET_RAW) | capability_bit(CAP_NET_BIND_SERVICE);
constexpr const char *somebody = "nobody";

frame_options as(const std::string &user, bool given = true) {
    frame_options options;
    options.user = user;
    options.user_given = given;
    return options;
}

// Tells the text of a child on standard error.
int told(const std::string &text) {
    return write(STDERR_FILENO, text.data(), text.size()) == static_cast<ssize_t>(text.size()) ? 0 : 1;
}

struct DaemonUser : testing::Test {
    uid_t uid = 0;
    void SetUp() override {
        const passwd *entry = getpwnam(somebody);
        if (geteuid() != 0 || entry == nullptr) GTEST_SKIP() << "only root can become user " << somebody;
        uid = entry->pw_uid;
    }
};

TEST_F(DaemonUser, RootBecomesItWithTheCapabilitiesAlone) {
    const child::result result = child::run([this] {
        const user_change change = user_become(as(somebody), kept, {});
        if (change.wrong || !change.remark.empty()) return told(change.wrong.text + change.remark);
        uid_t real, effective, saved;
        (void)getresuid(&real, &effective, &saved);
        const bool changed = real == uid && effective == uid && saved == uid && setuid(0) != 0;
        return changed && capabilities_permitted() == kept && prctl(PR_CAPBSET_READ, CAP_SYS_ADMIN, 0, 0, 0) == 0 ? 0
                                                                                                                  : 1;
    });
    EXPECT_EQ(result.status, 0) << result.told;
}

TEST_F(DaemonUser, OrderToDieWithTheStarterHoldsOn) {
    const child::result result = child::run([] {
        if (prctl(PR_SET_PDEATHSIG, SIGKILL, 0, 0, 0) != 0) return 1;
        if (user_become(as(somebody), kept, {}).wrong) return 2;
        int order = 0;
        return prctl(PR_GET_PDEATHSIG, &order, 0, 0, 0) == 0 && order == SIGKILL ? 0 : 3;
    });
    EXPECT_EQ(result.status, 0);
}

TEST_F(DaemonUser, RootStaysRootWhenItIsToldTo) {
    const child::result result = child::run([] {
        const user_change change = user_become(as("root"), kept, {});
        if (change.wrong || !change.remark.empty()) return 1;
        return geteuid() == 0 && capabilities_permitted() != kept ? 0 : 2;
    });
    EXPECT_EQ(result.status, 0);
}

TEST_F(DaemonUser, OneThatIsNotThereIsAFaultWhenItWasAskedFor) {
    EXPECT_EQ(user_check(as("no-such-user")).text, "option --user: there is no user \"no-such-user\"");
    EXPECT_EQ(user_check({}).text, "");
    EXPECT_EQ(user_check(as("root")).text, "");
    EXPECT_EQ(user_become(as("no-such-user"), kept, {}).wrong.text, "option --user: there is no user \"no-such-user\"");
    const user_change change = user_become(as("no-such-user", /*given=*/false), kept, {});
    EXPECT_EQ(change.wrong.text, "");
    EXPECT_EQ(change.remark,
              "there is no user \"no-such-user\": ravod keeps root's rights over files; see --user in ravod(8)");
    EXPECT_EQ(geteuid(), 0U);
    EXPECT_EQ(user_of_daemon(as("no-such-user")), 0U);
    EXPECT_EQ(user_of_daemon(as(somebody)), uid);
}

TEST_F(DaemonUser, WhoIsNotRootStaysWhoHeIs) {
    const child::result stays = child::run([this] {
        if (setuid(uid) != 0) return 1;
        const user_change change = user_become(as("ravo", /*given=*/false), kept, {});
        return !change.wrong && change.remark.empty() && user_of_daemon(as("root")) == uid ? 0 : 2;
    });
    EXPECT_EQ(stays.status, 0);
    const child::result asks = child::run([this] {
        if (setuid(uid) != 0) return 1;
        (void)told(user_become(as("root"), kept, {}).wrong.text);
        return user_become(as(somebody), kept, {}).wrong ? 2 : 0;
    });
    EXPECT_EQ(asks.status, 0) << "asking for oneself is no fault";
    EXPECT_EQ(asks.told, "option --user: only root can become user \"root\"");
}

TEST_F(DaemonUser, MissingFoldersAreMadeAndGivenToIt) {
    char name[] = "/tmp/daemon_user_test.XXXXXX";
    const std::string folder = mkdtemp(name);
    std::filesystem::create_directory(folder + "/there");
    const child::result result = child::run([&] {
        umask(0077);
        const user_change change =
            user_become(as(somebody), kept, {{folder + "/run", 0755}, {folder + "/there", 0700}, {"", 0700}});
        return change.wrong ? told(change.wrong.text) : 0;
    });
    EXPECT_EQ(result.told, "");
    struct stat made {
    }, there{};
    ASSERT_EQ(stat((folder + "/run").c_str(), &made), 0);
    EXPECT_EQ(made.st_uid, uid);
    EXPECT_EQ(made.st_mode & 07777U, 0755U);
    ASSERT_EQ(stat((folder + "/there").c_str(), &there), 0);
    EXPECT_EQ(there.st_uid, 0U) << "who made it keeps it";
    std::filesystem::remove_all(folder);
}

}  // namespace

// SPDX-License-Identifier: Apache-2.0
#include "notify.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <string>
#include <utility>

namespace {

using ravo::client::notify_manager;

// A service manager that listens at a path, or at an abstract name that begins with "@".
class Notify : public testing::Test {
  protected:
    int manager_ = -1;
    std::string path_;

    void listen_at(const std::string &path) {
        path_ = path;
        manager_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        const auto [address, size] = address_of(path);
        ASSERT_EQ(bind(manager_, reinterpret_cast<const sockaddr *>(&address), size), 0);
        setenv("NOTIFY_SOCKET", path.c_str(), 1);
    }
    static std::pair<sockaddr_un, socklen_t> address_of(const std::string &path) {
        sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
        std::copy(path.begin(), path.end(), address.sun_path);
        if (path.front() == '@') address.sun_path[0] = '\0';
        return {address, static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size())};
    }
    std::string heard() const {
        char text[64];
        const ssize_t size = recv(manager_, text, sizeof text, MSG_DONTWAIT);
        return size < 0 ? "nothing" : std::string(text, static_cast<std::size_t>(size));
    }
    void TearDown() override {
        unsetenv("NOTIFY_SOCKET");
        if (manager_ >= 0) close(manager_);
        if (path_.starts_with('/')) unlink(path_.c_str());
    }
};

TEST_F(Notify, AManagerAtAPathIsTold) {
    listen_at(testing::TempDir() + "ravo-notify-" + std::to_string(getpid()));
    notify_manager("READY=1");
    EXPECT_EQ(heard(), "READY=1");
    EXPECT_EQ(heard(), "nothing");
}

TEST_F(Notify, AManagerWithAnAbstractNameIsTold) {
    listen_at("@ravo-notify-" + std::to_string(getpid()));
    notify_manager("STOPPING=1");
    EXPECT_EQ(heard(), "STOPPING=1");
}

TEST_F(Notify, WhatIsNoNameIsLeftAlone) {
    listen_at("@ravo-notify-" + std::to_string(getpid()));
    unsetenv("NOTIFY_SOCKET");
    notify_manager("READY=1");
    for (const std::string &name : {std::string(), std::string("vsock:2:1"), "@" + std::string(200, 'x')}) {
        setenv("NOTIFY_SOCKET", name.c_str(), 1);
        notify_manager("READY=1");
    }
    EXPECT_EQ(heard(), "nothing");
}

}  // namespace

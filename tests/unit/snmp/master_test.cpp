// SPDX-License-Identifier: Apache-2.0
#include "master.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

namespace {

using ravo::snmp::no_master_text;

const std::string looked_for = "; it is looked for every few seconds";

struct Master : testing::Test {
    std::string folder = "/tmp/ravo-master-XXXXXX";
    std::string path;
    void SetUp() override {
        ASSERT_NE(mkdtemp(folder.data()), nullptr);
        path = folder + "/master";
    }
    void TearDown() override {
        unlink(path.c_str());
        rmdir(folder.c_str());
    }
    // A socket at the path; listens: whether somebody answers.
    int bind_socket(bool listens) const {
        sockaddr_un at{.sun_family = AF_UNIX, .sun_path = {}};
        path.copy(at.sun_path, sizeof at.sun_path - 1);
        const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
        EXPECT_EQ(bind(fd, reinterpret_cast<const sockaddr *>(&at), sizeof at), 0);
        EXPECT_EQ(listens ? listen(fd, 1) : 0, 0);
        return fd;
    }
};

TEST_F(Master, NamesThePathTheErrorAndTheRemedy) {
    EXPECT_EQ(no_master_text(path), "no master agent at " + path +
                                        ": No such file or directory; snmpd has to run, with \"master agentx\" in its "
                                        "configuration" +
                                        looked_for);
    const int fd = bind_socket(false);
    EXPECT_EQ(no_master_text("unix:" + path),
              "no master agent at unix:" + path +
                  ": Connection refused; snmpd has to run, with \"master agentx\" in its "
                  "configuration" +
                  looked_for);
    close(fd);
}

TEST_F(Master, SaysThatNobodyAnsweredWhereSomebodyListens) {
    const int fd = bind_socket(true);
    EXPECT_EQ(no_master_text(path).substr(0, ("no master agent at " + path).size() + 11),
              "no master agent at " + path + ": no answer");
    close(fd);
}

TEST_F(Master, TellsWhoseFolderItIsToAMemberOfNoGroup) {
    close(bind_socket(false));
    ASSERT_EQ(chmod(path.c_str(), 0), 0);
    ASSERT_EQ(geteuid() == 0 ? seteuid(65534) : 0, 0);
    const std::string text = no_master_text(path);
    ASSERT_EQ(getuid() == 0 ? seteuid(0) : 0, 0);
    EXPECT_EQ(text, "no master agent at " + path +
                        ": Permission denied; let group ravo-snmp into its folder and socket (ravo-snmp(8), NOTES)" +
                        looked_for);
}

TEST_F(Master, KnowsNothingOfOtherAddressesAndOfPathsThatAreTooLong) {
    EXPECT_EQ(no_master_text("tcp:localhost:705"),
              "no master agent at tcp:localhost:705: no answer; snmpd has to run, with \"master agentx\" in its "
              "configuration" +
                  looked_for);
    const std::string longest = "/" + std::string(200, 'x');
    EXPECT_TRUE(no_master_text(longest).starts_with("no master agent at " + longest +
                                                    ": File name too long; snmpd has to run"));
    EXPECT_TRUE(no_master_text("").starts_with("no master agent at /var/agentx/master: "));
}

}  // namespace

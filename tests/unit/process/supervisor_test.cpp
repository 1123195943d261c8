// SPDX-License-Identifier: Apache-2.0
// The supervisor: after which ends it starts its child again, what it passes on, and how long it waits.
#include "process/supervisor.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>

#include "base/owners.h"
#include "child.h"
#include "process/init_system.h"

namespace {

using namespace ravo::platform;
using std::chrono::milliseconds;
using testing::MatchesRegex;

TEST(Supervisor, WaitsOnlyForWhatDiesAtOnceAgainAndAgain) {
    EXPECT_EQ(supervisor_wait(0), milliseconds(0));
    EXPECT_EQ(supervisor_wait(3), milliseconds(0));
    EXPECT_EQ(supervisor_wait(4), milliseconds(100));
    EXPECT_EQ(supervisor_wait(5), milliseconds(200));
    EXPECT_EQ(supervisor_wait(9), milliseconds(3200));
    EXPECT_EQ(supervisor_wait(10), milliseconds(5000));
    EXPECT_EQ(supervisor_wait(4000000000), milliseconds(5000));
}

struct SupervisorOf : testing::Test {
    std::string folder;
    SupervisorOf() {
        char name[] = "/tmp/supervisor_test.XXXXXX";
        folder = mkdtemp(name);
    }
    ~SupervisorOf() override { std::filesystem::remove_all(folder); }

    // A shell's script under a supervisor, in a process of its own. In it "say X" sends the supervisor a letter, "runs"
    // is how often it was started, and "supervisor" its process. stop_at: the line of the supervisor at which it gets
    // SIGTERM, 0: none.
    child::result run(const std::string &script, int stop_at = 0) const {
        const std::string begin = "cd " + folder +
                                  "; echo >>starts; runs=$(wc -l <starts); supervisor=$PPID\n"
                                  "say() { printf $1 >&$RAVO_SUPERVISOR; }\n";
        return child::run([&] {
            // A shell cannot catch what whoever started the test ignores, as a shell does for its own background jobs.
            for (const int number : {SIGHUP, SIGINT, SIGTERM}) std::signal(number, SIG_DFL);
            // On a machine with much else to do a shell may take seconds to begin: all its deaths count as those at
            // once.
            constexpr std::chrono::hours short_life{1};
            const auto report = [stop_at, lines = 0](const std::string &line) mutable {
                (void)!write(STDERR_FILENO, (line + "\n").c_str(), line.size() + 1);
                if (++lines == stop_at) kill(getpid(), SIGTERM);
            };
            const int status = supervise("/bin/sh", {"-c", begin + script}, report, short_life);
            // Nobody is left behind.
            return waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD ? status : 99;
        });
    }
    std::ptrdiff_t starts() const {
        std::ifstream file(folder + "/starts");
        return std::count(std::istreambuf_iterator<char>(file), {}, '\n');
    }
};

TEST_F(SupervisorOf, AnOrderlyEndIsTheEnd) {
    const child::result result = run("say r; exit 0");
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.told, "");
    EXPECT_EQ(starts(), 1);
}

TEST_F(SupervisorOf, AStartThatFailsIsTheEnd) {
    const child::result result = run("exit 3");
    EXPECT_EQ(result.status, 3);
    EXPECT_EQ(result.told, "");
    EXPECT_EQ(starts(), 1);
}

TEST_F(SupervisorOf, AProgramThatCannotBeStartedIsTheEnd) {
    const child::result result = child::run([] { return supervise("/none/such", {}, [](const std::string &) {}); });
    EXPECT_EQ(result.status, 127);
    EXPECT_EQ(result.told, "ravod: /none/such cannot be started: No such file or directory\n");
}

TEST_F(SupervisorOf, WhatCouldBeStartedOnceIsTriedAgain) {
    std::filesystem::copy_file("/bin/sh", folder + "/program");
    const std::string script =
        "[ -e found ] && exit 0\nmv program elsewhere\nprintf r >&$RAVO_SUPERVISOR\nkill -KILL $$";
    const child::result result = child::run([&] {
        return supervise(folder + "/program", {"-c", "cd " + folder + "\n" + script}, [this](const std::string &line) {
            (void)!write(STDERR_FILENO, (line + "\n").c_str(), line.size() + 1);
            if (line.find("status 127") == std::string::npos) return;
            std::filesystem::rename(folder + "/elsewhere", folder + "/program");
            std::ofstream(folder + "/found") << "";
        });
    });
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.told, MatchesRegex("ravod: ended with SIGKILL after [0-9]+ ms, started again\n"
                                          "ravod: .*/program cannot be started: No such file or directory\n"
                                          "ravod: ended with status 127 after [0-9]+ ms, started again\n"));
}

TEST_F(SupervisorOf, AStartThatFailsBehindOneThatDidNotIsTriedAgain) {
    const child::result result = run("case $runs in 1) say r; kill -KILL $$;; 2) exit 1;; *) exit 0;; esac");
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.told, MatchesRegex("ravod: ended with SIGKILL after [0-9]+ ms, started again\n"
                                          "ravod: ended with status 1 after [0-9]+ ms, started again\n"));
    EXPECT_EQ(starts(), 3);
}

TEST_F(SupervisorOf, AFileThatHasToBeMendedFirstIsTheEnd) {
    const child::result result = run("[ $runs = 2 ] && exit 78\nsay r; kill -KILL $$");
    EXPECT_EQ(result.status, 78);
    EXPECT_EQ(starts(), 2);
}

TEST_F(SupervisorOf, WhoDiesIsStartedAgain) {
    for (const char *death : {"kill -KILL $$", "kill -ABRT $$", "say r; exit 1", "say c; exit 1"}) {
        std::filesystem::remove(folder + "/starts");
        const child::result result = run(std::string("[ $runs = 3 ] && exit 0\n") + death);
        EXPECT_EQ(result.status, 0) << death;
        EXPECT_THAT(result.told, MatchesRegex("(ravod: ended with (SIGKILL|SIGABRT|status 1) after [0-9]+ ms, started "
                                              "again\n){2}"));
        EXPECT_EQ(starts(), 3) << death;
    }
}

TEST_F(SupervisorOf, WhoDiesAtOnceAgainAndAgainIsStartedLater) {
    const child::result result = run("[ $runs = 6 ] && exit 0\nkill -KILL $$");
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.told, MatchesRegex("(ravod: ended with SIGKILL after [0-9]+ ms, started again\n){3}"
                                          "ravod: ended with SIGKILL after [0-9]+ ms, started again in 100 ms\n"
                                          "ravod: ended with SIGKILL after [0-9]+ ms, started again in 200 ms\n"));
}

TEST_F(SupervisorOf, WhatIsToBeKeptIsGivenToTheNext) {
    const std::string keep =
        "python3 -c 'import os, socket, array\n"
        "ear = socket.socket(fileno=int(os.environ[\"RAVO_SUPERVISOR\"]))\n"
        "ear.sendmsg([b\"FDSTORE=1\\nFDNAME=kept\"], [(1, 1, array.array(\"i\", [7]))])'";
    const child::result result = run("if [ $runs = 1 ]; then echo hello >file; exec 7<file; " + keep +
                                     "; kill -KILL $$; fi\n"
                                     "echo $LISTEN_FDS $LISTEN_FDNAMES $(cat <&3) >&2; [ $LISTEN_PID = $$ ] || exit 3\n"
                                     "[ $runs = 2 ] && kill -KILL $$; exit 0");
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.told, MatchesRegex("ravod: ended with SIGKILL .*\n1 kept hello\nravod: ended with SIGKILL .*\n"
                                          "1 kept\n"))
        << "the second one has read it";
}

TEST_F(SupervisorOf, SignalsToStopArePassedOn) {
    for (const char *signal : {"TERM", "INT"}) {
        const child::result result = run(std::string("trap 'exit 7' ") + signal + "; say r; kill -" + signal +
                                         " $supervisor; while :; do sleep 0.01; done");
        EXPECT_EQ(result.status, 7) << "the status is the child's, which is not started again";
        EXPECT_EQ(result.told, "");
    }
}

TEST_F(SupervisorOf, WhoDiesWhileItIsToStopIsNotStartedAgain) {
    const child::result result = run("say r; kill -TERM $supervisor; while :; do sleep 0.01; done");
    EXPECT_EQ(result.status, 128 + SIGTERM);
    EXPECT_EQ(starts(), 1);
}

TEST_F(SupervisorOf, AHangupIsPassedOnToWhoHasStarted) {
    EXPECT_EQ(run("trap 'exit 0' HUP; say r; kill -HUP $supervisor; while :; do sleep 0.01; done").status, 0);
    EXPECT_EQ(run("trap 'exit 4' HUP; kill -HUP $supervisor; sleep 0.3; exit 5").status, 5);
}

TEST_F(SupervisorOf, AStopEndsTheWait) {
    const child::result result = run("kill -KILL $$", /*stop_at=*/5);
    EXPECT_EQ(result.status, 128 + SIGKILL);
    EXPECT_EQ(starts(), 5);
}

TEST_F(SupervisorOf, TheChildFindsItsSupervisor) {
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends), 0);
    setenv("RAVO_SUPERVISOR", std::to_string(ends[1]).c_str(), 1);
    supervised_begins();
    EXPECT_EQ(std::getenv("RAVO_SUPERVISOR"), nullptr) << "no child of its own is to find it";
    supervised_is_ready();
    supervised_crashes();
    for (const char letter : {'r', 'c'}) {
        char said[3] = {};
        EXPECT_EQ(read(ends[0], said, 2), 1);
        EXPECT_EQ(said[0], letter);
    }
    const descriptor file(memfd_create("file", MFD_CLOEXEC));
    EXPECT_TRUE(init_system_tell_store("FDSTORE=1\nFDNAME=x", file.get()));
    char said[64] = {};
    EXPECT_EQ(read(ends[0], said, sizeof said), 18);
    EXPECT_STREQ(said, "FDSTORE=1\nFDNAME=x");
    init_system_stores_at(-1);
    close(ends[0]);
    close(ends[1]);
}

TEST_F(SupervisorOf, WhatIsNoSupervisorIsNotWrittenTo) {
    const child::result result = child::run([&] {
        for (const char *name : {"", "x", "2", "-1", "99"}) {
            setenv("RAVO_SUPERVISOR", name, 1);
            supervised_begins();
            supervised_is_ready();
        }
        return 0;
    });
    EXPECT_EQ(result.told, "");
}

}  // namespace

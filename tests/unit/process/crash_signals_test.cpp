// SPDX-License-Identifier: Apache-2.0
// The signals of a fault: each is noted, whoever caught it before gets it, and the process ends.
#include "process/crash_signals.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>

namespace {

using ravo::platform::crash_signals_catch;
using testing::ExitedWithCode;
using testing::KilledBySignal;

// "noted 11;" on standard error.
void note(int signal) {
    char text[] = "noted 00;";
    text[6] = static_cast<char>('0' + signal / 10);
    text[7] = static_cast<char>('0' + signal % 10);
    (void)!write(STDERR_FILENO, text, sizeof text - 1);
}

void quietly() {
    const rlimit none{0, 0};
    setrlimit(RLIMIT_CORE, &none);
    for (const int signal : {SIGABRT, SIGBUS, SIGFPE, SIGILL, SIGSEGV}) std::signal(signal, SIG_DFL);
}

// As the relay's: it tells, and exits.
void report(int /*signal*/, siginfo_t * /*info*/, void * /*context*/) {
    (void)!write(STDERR_FILENO, "report;", 7);
    std::quick_exit(1);
}

void catch_like_the_relay() {
    quietly();
    struct sigaction action {};
    action.sa_sigaction = report;
    action.sa_flags = SA_SIGINFO;
    sigaction(SIGSEGV, &action, nullptr);
    crash_signals_catch(note);
}

__attribute__((noinline)) int use_up_the_stack(int depth) {
    volatile char room[4096];
    room[0] = static_cast<char>(depth);
    if (depth < 0) return 0;  // which it never is
    const int below = use_up_the_stack(depth + 1);
    return below + room[0];
}

TEST(CrashSignalsDeathTest, EachIsNotedAndEndsTheProcess) {
    for (const auto &[signal, told] : {std::pair{SIGABRT, "^noted 06;$"},
                                       {SIGBUS, "^noted 07;$"},
                                       {SIGFPE, "^noted 08;$"},
                                       {SIGILL, "^noted 04;$"},
                                       {SIGSEGV, "^noted 11;$"}})
        EXPECT_EXIT(
            {
                quietly();
                crash_signals_catch(note);
                raise(signal);
            },
            KilledBySignal(signal), told);
}

TEST(CrashSignalsDeathTest, AnAbortThatSomebodyCaughtIsHisAfterwards) {
    EXPECT_EXIT(
        {
            quietly();
            std::signal(SIGABRT, [](int) { (void)!write(STDERR_FILENO, "his;", 4); });
            crash_signals_catch(note);
            std::abort();
        },
        KilledBySignal(SIGABRT), "^noted 06;his;$");
}

TEST(CrashSignalsDeathTest, AFaultIsReportedByWhoCaughtItBefore) {
    EXPECT_EXIT(
        {
            catch_like_the_relay();
            raise(SIGSEGV);
        },
        ExitedWithCode(1), "^noted 11;report;$");
}

TEST(CrashSignalsDeathTest, AStackThatIsUsedUpIsReported) {
    EXPECT_EXIT(
        {
            catch_like_the_relay();
            use_up_the_stack(0);
        },
        ExitedWithCode(1), "^noted 11;report;$");
}

TEST(CrashSignalsDeathTest, AnExitIsNotedAndRunsToItsEnd) {
    EXPECT_EXIT(
        {
            std::atexit([] { (void)!write(STDERR_FILENO, "end;", 4); });
            quietly();
            crash_signals_catch(note);
            std::exit(3);
        },
        ExitedWithCode(3), "^noted 00;end;$");
}

TEST(CrashSignalsDeathTest, WhatHangsIsEndedByTheAlarm) {
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EXIT(
        {
            quietly();
            std::signal(SIGALRM, SIG_DFL);
            struct sigaction action {};
            action.sa_sigaction = [](int, siginfo_t *, void *) {
                for (;;) pause();
            };
            action.sa_flags = SA_SIGINFO;
            sigaction(SIGSEGV, &action, nullptr);
            crash_signals_catch(note);
            raise(SIGSEGV);
        },
        KilledBySignal(SIGALRM), "^noted 11;$");
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(30));
}

}  // namespace

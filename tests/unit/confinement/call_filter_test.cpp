// SPDX-License-Identifier: Apache-2.0
// The filter of system calls: what it forbids fails with EPERM and is told by name, once; what is needed goes on.
#include "confinement/call_filter.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/ptrace.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <functional>
#include <string>
#include <thread>

#include "child.h"

using ravo::platform::call_filter_install;

namespace {

// Returns the errno of a call under the filter, 0 when it succeeds; 200 when there is no filter.
child::result filtered(const std::function<long()> &call, bool bpf = false) {
    return child::run([&] {
        if (call_filter_install(bpf)) return 200;
        return call() >= 0 ? 0 : errno;
    });
}

void expect_forbidden(const child::result &result, const std::string &name) {
    EXPECT_EQ(result.status, EPERM) << name;
    EXPECT_EQ(result.told, "ravod: forbidden system call: " + name + "\n");
}

void expect_allowed(const child::result &result) {
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.told, "");
}

TEST(CallFilter, OtherProgramsAreNotStarted) {
    char name[] = "/bin/true";
    char *const words[] = {name, nullptr};
    expect_forbidden(filtered([&] { return execve(name, words, nullptr); }), "execve");
    expect_forbidden(filtered([&] { return syscall(SYS_fork); }), "fork");
    expect_forbidden(filtered([&] { return syscall(SYS_clone, SIGCHLD, 0, 0, 0, 0); }), "clone");
}

TEST(CallFilter, OtherProcessesAreNotTouched) {
    expect_forbidden(filtered([] { return ptrace(PTRACE_TRACEME, 0, nullptr, nullptr); }), "ptrace");
    expect_forbidden(filtered([] { return kill(getppid(), SIGUSR1); }), "kill");
    expect_forbidden(filtered([] { return syscall(SYS_tgkill, getppid(), getppid(), SIGUSR1); }), "tgkill");
    expect_forbidden(filtered([] { return syscall(SYS_process_vm_readv, 1, nullptr, 0, nullptr, 0, 0); }),
                     "process_vm_readv");
}

TEST(CallFilter, SocketsAreOfTheRelaysFamilies) {
    for (const int family : {AF_UNIX, AF_INET, AF_NETLINK})
        expect_allowed(filtered([&] { return socket(family, family == AF_NETLINK ? SOCK_RAW : SOCK_DGRAM, 0); }));
    for (const int family : {AF_INET6, AF_VSOCK, AF_ALG, AF_CAN})
        expect_forbidden(filtered([&] { return socket(family, SOCK_DGRAM, 0); }), "socket");
}

TEST(CallFilter, NoMemoryIsWrittenAndRun) {
    const auto map = [](int protection) {
        return reinterpret_cast<long>(mmap(nullptr, 4096, protection, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)) == -1 ? -1L
                                                                                                                 : 0L;
    };
    expect_allowed(filtered([&] { return map(PROT_READ | PROT_WRITE); }));
    expect_allowed(filtered([&] { return map(PROT_READ | PROT_EXEC); }));
    expect_forbidden(filtered([&] { return map(PROT_READ | PROT_WRITE | PROT_EXEC); }), "mmap");
    void *page = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    expect_forbidden(filtered([&] { return mprotect(page, 4096, PROT_READ | PROT_EXEC); }), "mprotect");
    munmap(page, 4096);
}

TEST(CallFilter, RightsAreNotRegained) {
    expect_forbidden(filtered([] { return setuid(0); }), "setuid");
    expect_forbidden(filtered([] { return syscall(SYS_capset, nullptr, nullptr); }), "capset");
    expect_forbidden(filtered([] { return unshare(CLONE_NEWNET); }), "unshare");
    expect_forbidden(filtered([] { return syscall(SYS_bpf, 0, nullptr, 0); }), "bpf");
    expect_forbidden(filtered([] { return syscall(SYS_io_uring_setup, 1, nullptr); }), "io_uring_setup");
}

TEST(CallFilter, ProgramsForTheKernelOnlyWhereTheyAreWanted) {
    const child::result result = filtered([] { return syscall(SYS_bpf, 9999, nullptr, 0); }, /*bpf=*/true);
    EXPECT_EQ(result.status, EINVAL);  // the kernel's own word for such a command
    EXPECT_EQ(result.told, "");
}

TEST(CallFilter, TheSameCallIsToldOnce) {
    const child::result result = filtered([] {
        for (int i = 0; i < 3; ++i)
            if (setuid(0) == 0) return 0L;
        (void)!setgid(0);
        return -1L;
    });
    EXPECT_EQ(result.told, "ravod: forbidden system call: setuid\nravod: forbidden system call: setgid\n");
}

TEST(CallFilter, UnknownNumberIsToldAsNumber) {
    expect_forbidden(filtered([] { return syscall(9999); }), "9999");
}

TEST(CallFilter, HoldsForThreadsAndAllowsThem) {
    expect_forbidden(filtered([] {
                         long result = 0;
                         int error = 0;
                         std::thread other([&] {
                             result = setuid(0);
                             error = errno;
                         });
                         other.join();
                         errno = error;
                         return result;
                     }),
                     "setuid");
}

TEST(CallFilter, HoldsForThreadsThatAreThere) {
    expect_forbidden(child::run([] {
                         int error = 0;
                         std::atomic<bool> go{false};
                         std::thread other([&] {
                             while (!go) std::this_thread::yield();
                             error = setuid(0) == 0 ? 0 : errno;
                         });
                         const bool good = !call_filter_install(false);
                         go = true;
                         other.join();
                         return good ? error : 200;
                     }),
                     "setuid");
}

TEST(CallFilter, AbortStillEndsTheProcessBySignal) {
    const child::result result = filtered([]() -> long { std::abort(); });
    EXPECT_EQ(result.status, -1);
    EXPECT_EQ(result.told.find("forbidden"), std::string::npos) << result.told;
}

TEST(CallFilter, NobodyReadingIsNotWaitedFor) {
    const child::result result = filtered([] {
        int ends[2];
        if (pipe(ends) != 0) return 0L;
        dup2(ends[1], STDERR_FILENO);
        fcntl(ends[1], F_SETFL, O_NONBLOCK);
        char filler[4096] = {};
        while (write(ends[1], filler, sizeof filler) > 0) continue;
        fcntl(ends[1], F_SETFL, 0);
        return static_cast<long>(setuid(0));
    });
    EXPECT_EQ(result.status, EPERM);
}

}  // namespace

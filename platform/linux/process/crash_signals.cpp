// SPDX-License-Identifier: Apache-2.0
// Nothing here takes memory once the handlers are set. The relay's report ends in a quick exit, which runs nothing but
// what was asked for by that name: the handlers of ordinary exits, and the ends of static records, would give memory
// back.
#include "process/crash_signals.h"

#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstddef>
#include <cstdlib>

#include "log/log.h"

namespace ravo::platform {

namespace {

constexpr std::array<int, 5> faults = {SIGABRT, SIGBUS, SIGFPE, SIGILL, SIGSEGV};
constexpr std::size_t stack_size = std::size_t{256} << 10;
constexpr unsigned grace = 3;  // seconds for the last words

void (*note_end)(int signal);
std::array<struct sigaction, faults.size()> before;

std::size_t place_of(int signal) {
    std::size_t at = 0;
    while (at + 1 < faults.size() && faults[at] != signal) ++at;
    return at;
}

// A handler of the relay's for a segmentation fault ends the process; it is called here, where there is a stack. Any
// other gets the signal anew when this one returns, as does the system where there is none.
void on_fault(int signal, siginfo_t *info, void *context) {
    note_end(signal);
    (void)alarm(grace);
    log_crash_begins();
    const struct sigaction &earlier = before[place_of(signal)];
    sigaction(signal, &earlier, nullptr);
    if (signal == SIGSEGV && (earlier.sa_flags & SA_SIGINFO) != 0)
        earlier.sa_sigaction(signal, info, context);
    else
        log_crash_ends();
    (void)raise(signal);
}

void on_exit_of_process() {
    note_end(0);
}

// With a page below that nobody may touch. Without memory for it the handlers run where the fault was.
void take_stack() {
    const std::size_t page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    void *at = mmap(nullptr, page + stack_size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0);
    if (at == MAP_FAILED) return;
    (void)mprotect(at, page, PROT_NONE);
    const stack_t stack{.ss_sp = static_cast<char *>(at) + page, .ss_flags = 0, .ss_size = stack_size};
    (void)sigaltstack(&stack, nullptr);
}

}  // namespace

void crash_signals_catch(void (*note)(int signal)) {
    note_end = note;
    take_stack();
    (void)std::atexit(on_exit_of_process);
    (void)std::at_quick_exit(log_crash_ends);
    struct sigaction action {};
    action.sa_sigaction = on_fault;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK;
    for (std::size_t i = 0; i < faults.size(); ++i) sigaction(faults[i], &action, &before[i]);
}

}  // namespace ravo::platform

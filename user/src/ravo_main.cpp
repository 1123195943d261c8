// SPDX-License-Identifier: Apache-2.0
// Start-up of the relay and its crash report.
//
// The daemon has no main loop of its own: it fills the frame's registration record with three callbacks. The frame
// calls them to install the commands, to connect the interface service and to finish start-up; from then on the relay
// only reacts to commands, interface events, messages and timers. A segmentation fault is reported with a backtrace
// before the process ends.
#include "ravo_main.h"

#include <execinfo.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "cli.h"
#include "ravo_cli.h"
#include "ravo_life.h"
#include "ravo_nsm.h"
#include "trace.h"

namespace {

constexpr std::uintptr_t module_identifier = 13;
constexpr std::uintptr_t frame_flag = 1;

constexpr int frames_limit = 20;

// deliberate: these lines report fixed line numbers, by which they are known.
constexpr int handler_line = 114;
constexpr int failure_line = 117;

// Prints the names of frames. They come through a pipe, since the other way to have them takes memory, and what broke
// may be the memory's own.
void print_frames(void *const *frames, int count) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) return;
    for (int i = 0; i < count; ++i) {
        char text[1024];
        backtrace_symbols_fd(&frames[i], 1, ends[1]);
        const ssize_t got = read(ends[0], text, sizeof text - 1);
        text[std::max<ssize_t>(got, 0)] = '\0';
        text[std::strcspn(text, "\n")] = '\0';
        ravo_print(ravo::level_start, "RAVO: %s\n", text);
    }
    close(ends[0]);
    close(ends[1]);
}

template <typename Callback>
std::uintptr_t word_of(Callback callback) {
    return reinterpret_cast<std::uintptr_t>(callback);
}

}  // namespace

void ravo_register(std::uintptr_t *record) {
    const vex_init_commands install_commands = ravo_cli_install;
    const vex_init_nsm connect_interfaces = ravo_nsm_init;
    const vex_init_start start = ravo_sys_init;
    record[VEX_INIT_MODULE] = module_identifier;
    record[VEX_INIT_FLAG] = frame_flag;
    record[VEX_INIT_COMMANDS] = word_of(install_commands);
    record[VEX_INIT_NSM] = word_of(connect_interfaces);
    record[VEX_INIT_START] = word_of(start);
}

// The library logs the definitions it cannot parse, so its results say nothing new.
int ravo_cli_install(struct cli_globals *globals) {
    cli_tree *tree = globals->tree;
    cli_install_config(tree, CLI_MODE_RELAY_SECTION, ravo_config_write);
    cli_install_reset(tree, RAVO_IF_Reset);
    if_range_cli_init(tree);
    cli_install_default(tree, CLI_MODE_INTERFACE);
    for (ravo_command &command : ravo_commands)
        cli_install_gen(tree, command.mode, command.privilege, /*flags=*/0, &command.element);
    return 0;
}

int ravo_sys_init(void *, void *) {
    installSignalHandlers();
    ravo_db_init();
    return 1;
}

int installSignalHandlers() {
    struct sigaction action {};
    sigemptyset(&action.sa_mask);
    action.sa_sigaction = ravo_crash_handler;
    action.sa_flags = SA_SIGINFO;
    void *frame = nullptr;
    (void)backtrace(&frame, 1);  // the first one may load what it needs
    ravo_print(ravo::level_start, "RAVO: %s %d sig=%d\n", __func__, handler_line, SIGSEGV);
    if (sigaction(SIGSEGV, &action, nullptr) < 0) {
        ravo_print(ravo::level_start, "RAVO sigaction failed, line %d, %d/%s\n", failure_line, errno,
                   std::strerror(errno));
        std::exit(1);
    }
    return 0;
}

// What runs here takes no memory: the fault may have come while that was being taken.
void ravo_crash_handler(int signo, siginfo_t *info, void *) {
    ravo_print(ravo::level_start, "RAVO Segmentation Fault!\n");
    ravo_print(ravo::level_start, "RAVO info.si_signo = %d\n", signo);
    ravo_print(ravo::level_start, "RAVO info.si_errno = %d\n", info->si_errno);
    ravo_print(ravo::level_start, "RAVO info.si_addr  = %p\n", info->si_addr);

    void *frames[frames_limit];
    const int count = backtrace(frames, frames_limit);
    ravo_print(ravo::level_start, "\n\n RAVO Obtained %d stack frames.\n", count);
    print_frames(frames, count);
    std::quick_exit(1);
}

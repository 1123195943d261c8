// SPDX-License-Identifier: Apache-2.0
// The daemon frame's own state, as other services see it.
#ifndef PLATFORM_LINUX_PROCESS_FRAME_H
#define PLATFORM_LINUX_PROCESS_FRAME_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "fault.h"

namespace ravo::platform {

struct frame_options {
    std::string switch_file = "/etc/ravo/switch.toml";
    bool switch_file_given = false;
    std::string startup_config = "/etc/ravo/startup-config";
    bool startup_config_given = false;
    std::string management_socket = "/run/ravo/ravod.sock";
    std::string user = "ravo";  // as whom it runs when root starts it
    bool user_given = false;
    std::string gate_socket = "/run/ravo-gate.sock";
    std::string state_folder;  // empty: as the init system says
    int log_threshold = 103;
    std::string log_target = "stderr";
    std::size_t memory_budget = 128u << 20;  // bytes for the relay's records, 0: no limit
    bool supervise = false;                  // start the daemon as a child, and again when it crashes
    bool check = false;
    bool lend_gate = false;
    bool version = false;
    bool help = false;
};

// The options in force. Before VEX_INIT_Sys_Init they are the defaults.
const frame_options &frame_get_options();
void frame_set_options(const frame_options &options);

// Reads the words of a command line, without the program's name, into *out. Both "--option VALUE" and "--option=VALUE"
// are taken; of an option given twice the last counts. The fault, if any: one line with the reason, *out being
// unchanged.
fault frame_parse_options(const std::vector<std::string> &words, frame_options *out);

// The text of --help.
std::string frame_help();

// Tells which capability the process lacks. effective: its effective capabilities, bit by number as in
// <linux/capability.h>; first_free_port: the lowest port that needs no privilege. The fault, if any: one line
// that names the first missing one and what to do.
fault frame_missing_capability(std::uint64_t effective, unsigned first_free_port);

// Sets how the switch description is read again, and does that: for SIGHUP and for commands that changed it.
void frame_set_reload(std::function<void()> reload);
void frame_reload();

// Whole seconds since the daemon started.
unsigned long frame_uptime();

// Serves events until frame_stop is called, or at once when it was called before. Returns its status.
int frame_run();

// Ends the event loop in order, with this exit status.
void frame_stop(int status);

}  // namespace ravo::platform

#endif

// The daemon frame's own state, as other services see it.
#ifndef PLATFORM_LINUX_FRAME_H
#define PLATFORM_LINUX_FRAME_H

#include <string>

namespace ravo::platform {

struct frame_options {
    std::string switch_file = "/etc/ravo/switch.toml";
    bool switch_file_given = false;
    std::string startup_config = "/etc/ravo/startup-config";
    bool startup_config_given = false;
    std::string management_socket = "/run/ravo/ravod.sock";
    int log_threshold = 103;
    std::string log_target = "stderr";
    bool check = false;
};

// The options in force. Before VEX_INIT_Sys_Init they are the defaults.
const frame_options &frame_get_options();

// Whole seconds since the daemon started.
unsigned long frame_uptime();

// Ends the event loop in order, with this exit status.
void frame_stop(int status);

}  // namespace ravo::platform

#endif

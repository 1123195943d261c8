// SPDX-License-Identifier: Apache-2.0
// The relay on its Linux platform inside a test: interfaces come from the test instead of the kernel, commands go in as
// in a shell. No packet is read or sent as long as "ip dhcp relay" is not given.
#ifndef TESTS_WHOLE_RELAY_H
#define TESTS_WHOLE_RELAY_H

#include <arpa/inet.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "all_commands.h"
#include "cli/command_line.h"
#include "interfaces/nsm_feed.h"
#include "log/log.h"
#include "ravo_access.h"
#include "ravo_main.h"
#include "relay_access.h"
#include "settings/kept_settings.h"

struct nsm_globals {};
int ravo_nsm_init(struct nsm_globals *globals);

namespace whole_relay {

// Starts the relay in this process, once.
inline void start() {
    static const bool started = [] {
        static nsm_globals interfaces;
        relay_access_register(&ravo_access);
        install_platform();
        (void)ravo_cli_install(ravo::cli::library_globals());
        (void)ravo_nsm_init(&interfaces);
        (void)ravo_sys_init(nullptr, nullptr);
        ravo::cli::kept_begin();
        ravo::platform::nsm_deliver_existing();
        return true;
    }();
    (void)started;
}

struct device {
    std::string address = {};  // "10.20.0.1", empty for none
    bool up = true;
    int kernel_ifindex = 0;  // 0: the number of the VLAN's interface
};

// The interface of a VLAN as it is now.
inline void there(std::uint16_t vlan, const device &now) {
    std::vector<ravo::platform::address_record> addresses;
    if (!now.address.empty()) {
        ravo::platform::address_record made;
        made.address = made.peer = inet_addr(now.address.c_str());
        made.prefix_length = 24;
        addresses.push_back(made);
    }
    const ravo::platform::interface_state state = {
        now.kernel_ifindex == 0 ? 1024 + vlan : now.kernel_ifindex, now.up, {2, 0, 0, 0, 0, 1}, &addresses};
    ravo::platform::nsm_feed(vlan, &state);
}

inline void gone(std::uint16_t vlan) {
    ravo::platform::nsm_feed(vlan, nullptr);
}

// Gives commands from global configuration mode on. Returns what was printed.
inline std::string configure(const std::vector<std::string> &lines, int privilege = 31) {
    std::string text;
    ravo::cli::session_output output;
    output.text = [&text](std::string_view piece) {
        text += piece;
        return 0;
    };
    const auto session = ravo::cli::session_open(std::move(output), privilege, "tester");
    (void)ravo::cli::session_run(*session, "configure terminal");
    for (const std::string &line : lines) (void)ravo::cli::session_run(*session, line);
    return text;
}

// What one command prints in privileged execution mode.
inline std::string show(const std::string &line) {
    return configure({"do " + line});
}

// The lines of the log from here on, as long as this lives.
class log_lines {
  public:
    log_lines()
        : id_(ravo::platform::log_add_listener(ravo::platform::log_level_start,
                                               [this](const ravo::platform::log_event &event) {
                                                   if (event.line.starts_with("settings: "))
                                                       lines_.emplace_back(event.line);
                                               })) {}
    log_lines(const log_lines &) = delete;
    log_lines &operator=(const log_lines &) = delete;
    ~log_lines() { ravo::platform::log_remove_listener(id_); }
    std::vector<std::string> take() { return std::exchange(lines_, {}); }

  private:
    std::vector<std::string> lines_;
    int id_;
};

}  // namespace whole_relay

#endif

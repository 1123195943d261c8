// SPDX-License-Identifier: Apache-2.0
// Which rights the daemon needs follows from its options and from the switch description; everything else is given up
// here, in an order in which each step still has the right it takes: capabilities, new privileges, files, system calls.
#include "confinement/confinement.h"

#include <linux/capability.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "base/files.h"
#include "confinement/call_filter.h"
#include "confinement/capabilities.h"
#include "confinement/file_rules.h"
#include "process/state_folder.h"

namespace ravo::platform {

namespace {

constexpr const char *default_log_folder = "/var/log/ravo";

constexpr std::uint64_t always_needed = capability_bit(CAP_NET_RAW) | capability_bit(CAP_NET_BIND_SERVICE);
constexpr std::uint64_t for_the_gate = capability_bit(CAP_BPF);  // loaded whenever relaying is switched on
// For filters on ports, and for socket buffers that are large enough where ports may send much.
constexpr std::uint64_t for_ports = capability_bit(CAP_NET_ADMIN);
// Who stays root is to have root's rights over files, also to give the management socket to its group.
constexpr std::uint64_t for_files_of_root =
    capability_bit(CAP_CHOWN) | capability_bit(CAP_DAC_OVERRIDE) | capability_bit(CAP_FOWNER);

std::uint64_t needed_capabilities(const confinement_wishes &wishes) {
    std::uint64_t needed = always_needed | for_the_gate;
    if (wishes.trap || wishes.ports_are_limited) needed |= for_ports;
    if (geteuid() == 0) needed |= for_files_of_root;
    return needed;
}

// Folders in a variable of the environment, as systemd gives them: several are parted by colons.
void add_from_environment(const char *name, std::vector<std::string> &folders) {
    const char *text = std::getenv(name);
    std::string rest = text == nullptr ? "" : text;
    while (!rest.empty()) {
        const std::size_t end = rest.find(':');
        const std::string folder = rest.substr(0, end);
        rest = end == std::string::npos ? "" : rest.substr(end + 1);
        if (!folder.empty()) folders.push_back(folder);
    }
}

file_wishes wishes_of(const frame_options &options, const confinement_wishes &wishes) {
    file_wishes files{.written = confinement_capture_folders(wishes.capture_folders)};
    // A command of the daemon's replaces the switch description, too.
    for (const std::string &file : {options.startup_config, options.switch_file, options.management_socket})
        for (const std::string &place : {file, behind_links(file)}) files.written.push_back(folder_of(place));
    if (options.log_target != "stderr" && options.log_target != "syslog")
        files.written.push_back(folder_of(behind_links(options.log_target)));
    add_from_environment("RUNTIME_DIRECTORY", files.written);
    return files;
}

}  // namespace

std::uint64_t confinement_first_capabilities() {
    return always_needed | for_the_gate | for_ports;
}

std::vector<own_folder> confinement_own_folders(const frame_options &options) {
    return {{.path = folder_of(options.management_socket), .mode = 0755}, {.path = options.state_folder, .mode = 0750}};
}

std::vector<std::string> confinement_capture_folders(const std::vector<std::string> &wished) {
    std::vector<std::string> folders = {default_log_folder};
    add_from_environment("LOGS_DIRECTORY", folders);
    if (!state_folder().empty()) folders.push_back(state_folder());
    folders.insert(folders.end(), wished.begin(), wished.end());
    std::sort(folders.begin(), folders.end());
    folders.erase(std::unique(folders.begin(), folders.end()), folders.end());
    return folders;
}

fault confine(const frame_options &options, const confinement_wishes &wishes) {
    // An init system that forbids the call has chosen the set itself.
    if (const int failed = capabilities_keep(needed_capabilities(wishes)); failed != 0 && failed != EPERM)
        return {std::string("cannot give up capabilities: ") + std::strerror(failed)};
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0)
        return {std::string("cannot forgo new privileges: ") + std::strerror(errno)};
    fault wrong = file_rules_install(wishes_of(options, wishes));
    if (!wrong && confinement_filters_calls) wrong = call_filter_install(/*bpf=*/true);
    return wrong;
}

}  // namespace ravo::platform

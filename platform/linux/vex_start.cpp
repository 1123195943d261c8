// SPDX-License-Identifier: Apache-2.0
// From the command line to a process that is ready to open its services. Options that only ask for something are
// answered here, and end the process; under --supervise this process becomes the supervisor. Otherwise it becomes the
// daemon's user before it opens a file. Whatever prevents a start ends it with one line on standard error that says
// what to do.
#include "vex_start.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "base/files.h"
#include "base/loop.h"
#include "configuration/configuration.h"
#include "confinement/confinement.h"
#include "confinement/daemon_user.h"
#include "confinement/trusted_file.h"
#include "gate/gate_objects.h"
#include "interfaces/nsm_feed.h"
#include "inventory/inventory.h"
#include "inventory/switch_description.h"
#include "log/log.h"
#include "management/management.h"
#include "memory/memmgr_budget.h"
#include "process/start_text.h"
#include "process/supervisor.h"

namespace ravo::platform {

namespace {

void tell(const std::string &line) {
    std::fputs((line + "\n").c_str(), stderr);
    std::fflush(stderr);
}

// ---- What the process was given ----

constexpr std::size_t most_of_proc = 4u << 20;  // more than a command line may have

std::vector<std::string> command_line_words() {
    std::string all;
    const int failed = read_file("/proc/self/cmdline", most_of_proc, &all);
    if (failed == ENOENT || (failed == 0 && all.empty()))
        refuse("ravod: cannot read its options from /proc/self/cmdline; mount /proc");
    if (failed != 0)
        refuse(std::string("ravod: cannot read its options from /proc/self/cmdline: ") + strerrordesc_np(failed));
    std::vector<std::string> words;
    for (std::size_t at = 0; at < all.size();) {
        words.emplace_back(all.c_str() + at);
        at += words.back().size() + 1;
    }
    words.erase(words.begin());
    return words;
}

std::uint64_t effective_capabilities() {
    constexpr const char *name = "\nCapEff:";
    std::string status;
    const int failed = read_file("/proc/self/status", most_of_proc, &status);
    if (failed != 0)
        refuse(std::string("ravod: cannot read its capabilities from /proc/self/status: ") + strerrordesc_np(failed));
    const std::size_t at = status.find(name);
    return at == std::string::npos ? 0 : std::strtoull(status.c_str() + at + std::strlen(name), nullptr, 16);
}

unsigned first_free_port() {
    constexpr unsigned usual = 1024;
    std::string text;
    if (read_file("/proc/sys/net/ipv4/ip_unprivileged_port_start", most_of_proc, &text) != 0) return usual;
    unsigned port = usual;
    (void)std::from_chars(text.data(), text.data() + text.size(), port);
    return port;
}

// ---- --check ----

// Learns which devices there are, whose names stand for interfaces. Returns what keeps it from that.
fault look_around(const switch_description &description) {
    nsm_follow_inventory();
    inventory_describe(description);
    return inventory_open();
}

// The lines of the startup configuration are judged as they are at a start, by a relay that lives in this process
// alone: without sockets, and without a word to the log, the init system or a running daemon.
int check_files(const frame_options &options, const relay_start &relay) {
    unsetenv("NOTIFY_SOCKET");
    fault wrong = log_open("/dev/null", log_level_error);
    switch_description description;
    std::vector<std::string> faults =
        switch_description_check(options.switch_file, !options.switch_file_given, &description);
    if (!wrong) wrong = look_around(faults.empty() ? description : switch_description{});
    if (wrong) faults.push_back("ravod: " + wrong.text);
    if (const fault nobody = user_check(options)) faults.push_back("ravod: " + nobody.text);
    for (const std::string &file : {options.switch_file, options.startup_config}) {
        const fault untrusted = trusted_file_fault(file, user_of_daemon(options));
        if (untrusted) faults.push_back(untrusted.text);
    }
    for (const std::string &line : faults) tell(line);
    memmgr_set_budget(options.memory_budget);
    relay.install_commands();
    relay.connect_and_start();
    nsm_deliver_existing();
    const int bad_lines =
        cli::replay_file(options.startup_config, !options.startup_config_given, /*check_only=*/true, tell);
    inventory_close();
    loop_free();
    return faults.empty() && bad_lines == 0 ? 0 : 1;
}

// ---- --lend-gate ----

// The asker gets an answer also when it is a refusal, and then logs it.
int lend_gate() {
    unsetenv("NOTIFY_SOCKET");
    const fault wrong = gate_lend(STDIN_FILENO);
    if (wrong) tell("ravod: " + wrong.text);
    return wrong ? 1 : 0;
}

// ---- Start ----

void check_capabilities() {
    const fault missing = frame_missing_capability(effective_capabilities(), first_free_port());
    if (missing) refuse("ravod: " + missing.text);
}

// Answers the options that only ask for something.
void answer_and_leave(const frame_options &options, const relay_start &relay) {
    if (options.help) std::fputs(frame_help().c_str(), stdout);
    if (options.version && !options.help) std::puts("ravod " RAVO_VERSION);
    if (options.help || options.version) std::exit(0);
    if (options.check) std::exit(check_files(options, relay));
    if (options.lend_gate) std::exit(lend_gate());
}

// From here on this process does nothing but wait for the one that it starts.
[[noreturn]] void supervise_daemon(const frame_options &options, std::vector<std::string> words) {
    std::erase(words, "--supervise");
    const int status = supervise("/proc/self/exe", words, [&](const std::string &line) {
        // Opened each time: the child makes the file, as its own user, and may be told to open a new one.
        const fault wrong = log_open(options.log_target, options.log_threshold);
        if (wrong) tell(line);
        log_line(log_level_start, "%s", line.c_str());
        log_close();
    });
    std::exit(status);
}

// Before a file is opened, so that none has to be given to the user afterwards. Returns what there is to say of it.
std::string become_user(const frame_options &options) {
    user_change change = user_become(options, confinement_first_capabilities(), confinement_own_folders(options));
    if (change.wrong) refuse("ravod: " + change.wrong.text);
    return std::move(change.remark);
}

}  // namespace

int status_of_configuration() {
    return std::getenv("NOTIFY_SOCKET") != nullptr ? 78 : 1;
}

void refuse(const std::string &line, int status) {
    const std::string whole = line + start_remedy(line);
    if (frame_get_options().log_target != "stderr") log_line(log_level_error, "%s", whole.c_str());
    tell(whole);
    std::exit(status);
}

void fill_standard_streams() {
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
        if (fcntl(fd, F_GETFD) < 0) (void)open("/dev/null", O_RDWR);  // the lowest free number, which is this one
}

std::string start_read_options(const relay_start &relay) {
    frame_options options;
    const std::vector<std::string> words = command_line_words();
    const fault wrong = frame_parse_options(words, &options);
    if (wrong) refuse("ravod: " + wrong.text);
    answer_and_leave(options, relay);
    if (options.supervise) supervise_daemon(options, words);
    supervised_begins();
    check_capabilities();
    std::string remark = become_user(options);
    if (const fault no_log = log_open(options.log_target, options.log_threshold)) refuse("ravod: " + no_log.text);
    log_take_event_library();
    frame_set_options(options);
    memmgr_set_budget(options.memory_budget);
    return remark;
}

void start_check(const frame_options &options) {
    const uid_t daemon = user_of_daemon(options);
    for (const std::string &file : {options.switch_file, options.startup_config}) {
        const fault wrong = trusted_file_fault(file, daemon);
        if (wrong) refuse(wrong.text, status_of_configuration());
    }
    const fault taken = management_check(options.management_socket);
    if (taken) refuse("ravod: " + taken.text);
}

}  // namespace ravo::platform

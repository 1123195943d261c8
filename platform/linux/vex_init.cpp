// SPDX-License-Identifier: Apache-2.0
// The daemon's life, from the options (vex_start) to the exit status:
//
//   options -> (--help, --version, --check) -> log -> may we do this at all? -> switch description -> inventory
//           -> the daemon's callbacks: commands, interfaces, start-up -> existing interfaces as events
//           -> start-up configuration -> management socket -> ready -> event loop -> orderly end
//
// Whatever keeps the daemon from starting is one line on standard error and exit status 1. Nothing outside the process
// is changed before the last of the checks passed, so a second daemon leaves the first one alone.
#include "vex_init.h"

#include <event2/event.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "base/clock.h"
#include "base/loop.h"
#include "base/owners.h"
#include "books/black_box.h"
#include "books/book_counts.h"
#include "books/books.h"
#include "books/crash_book.h"
#include "books/pcapng.h"
#include "boundary.h"
#include "channel/channel.h"
#include "channel/kept_gate.h"
#include "cli/command_line.h"
#include "commands/commands.h"
#include "configuration/configuration.h"
#include "confinement/confinement.h"
#include "confinement/daemon_user.h"
#include "confinement/trusted_file.h"
#include "interfaces/nsm_feed.h"
#include "inventory/inventory.h"
#include "inventory/switch_description.h"
#include "log/log.h"
#include "log/log_subject.h"
#include "management/management.h"
#include "osal/kept_transactions.h"
#include "osal/osal_events.h"
#include "osal/transaction_room.h"
#include "port_number.h"
#include "process/crash_signals.h"
#include "process/descriptor_store.h"
#include "process/frame.h"
#include "process/limits.h"
#include "process/relay_data.h"
#include "process/service_status.h"
#include "process/start_text.h"
#include "process/state_folder.h"
#include "process/supervisor.h"
#include "settings/kept_settings.h"
#include "trap/trap.h"
#include "vex_start.h"

static_assert(RAVO_BOUNDARY_VERSION == 2, "this platform is written for version 2 of the boundary");

// The interface service is one for the whole process and needs nothing handed to it.
struct nsm_globals {};

namespace {

namespace platform = ravo::platform;

using platform::event_ptr;
using platform::refuse;
using ravo::fault;

std::uintptr_t registration[VEX_INIT_WORDS];

// ---- The daemon's callbacks ----

template <typename callback>
callback word_as(std::size_t position) {
    return reinterpret_cast<callback>(registration[position]);
}

// What the callbacks return is not a verdict: the daemon ends the process itself when it cannot go on.
void install_commands() {
    cli_globals *globals = ravo::cli::library_globals();
    ravo::cli::install_platform_commands(globals->tree);
    ravo::cli::install_configuration_commands(globals->tree);
    platform::install_management_commands(globals->tree);
    if (const auto commands = word_as<vex_init_commands>(VEX_INIT_COMMANDS)) (void)commands(globals);
    for (const std::string &text : ravo::cli::missing_commands())
        platform::log_line(platform::log_level_error, "commands: the daemon has no \"%s\"", text.c_str());
}

void connect_and_start() {
    static nsm_globals interfaces;
    if (const auto connect = word_as<vex_init_nsm>(VEX_INIT_NSM)) (void)connect(&interfaces);
    if (const auto start = word_as<vex_init_start>(VEX_INIT_START)) (void)start(nullptr, nullptr);
}

// ---- Start ----

// Everything that takes rights is possible from here on as far as the description asks for it, and nothing more.
void give_up_rights(const platform::frame_options &options, const platform::switch_description &description) {
    const fault wrong = platform::confine(options, {.ports_are_limited = platform::describes_limits(description),
                                                    .trap = platform::describes_trap(description),
                                                    .capture_folders = description.capture.folders});
    if (wrong) refuse("ravod: " + wrong.text);
    // Threads begin their lives confined.
    platform::log_start_writer();
    platform::log_hold_repeats();
}

// Puts a description in force.
void describe(const platform::switch_description &description) {
    platform::inventory_describe(description);
    platform::trap_describe(description);
    platform::channel_describe(description);
    platform::pcapng_set_folders(platform::confinement_capture_folders(description.capture.folders));
    ravo::cli::kept_switch(description.settings.keep);
    const platform::described_management &sessions = description.management;
    platform::management_limit({sessions.sessions, sessions.per_user, sessions.idle_minutes});
    const std::uint32_t wanted = description.channel.recorder;
    if (platform::books_recorder_size() != wanted && !platform::books_set_recorder(wanted))
        platform::log_line(platform::log_level_error, "no memory for a recorder of %u messages; it holds %zu", wanted,
                           platform::books_recorder_size());
}

// A number that waits for its reply must not be given to another port meanwhile.
void remember_ports() {
    platform::inventory_remember(platform::state_path("ports"), platform::relay_names_port);
}

void open_inventory(const platform::frame_options &options) {
    platform::switch_description description;
    if (const fault unread =
            platform::switch_description_read(options.switch_file, !options.switch_file_given, &description))
        refuse(unread.text, platform::status_of_configuration());
    if (const fault no_state = platform::state_open(options.state_folder))
        platform::log_line(platform::log_level_start, "%s", no_state.text.c_str());
    platform::trap_remove_stale();
    give_up_rights(options, description);
    platform::nsm_follow_inventory();
    platform::kept_gate_begin(options.gate_socket);
    platform::channel_know_relay(platform::relay_data());
    describe(description);
    remember_ports();
    const fault wrong = platform::inventory_open();
    if (wrong) refuse("ravod: " + wrong.text);
}

void note_end(int signal) {
    platform::black_box_died(signal);
    platform::sends_hand_over();  // the messages before it were relayed
    if (signal != 0) platform::supervised_crashes();
}

// Where the message in hand is noted: beside the socket, in a folder that a boot empties. The port of a message that
// ended the daemon before is held from here on. Returns what was in hand then.
platform::black_box_crash open_black_box(const platform::frame_options &options) {
    platform::black_box_crash crash;
    const fault wrong = platform::black_box_open(options.management_socket + ".box", &crash);
    if (wrong) platform::log_line(platform::log_level_warning, "%s", wrong.text.c_str());
    platform::crash_signals_catch(note_end);
    if (const fault anew = platform::counts_open(options.management_socket + ".counts"))
        platform::log_line(platform::log_level_warning, "%s", anew.text.c_str());
    if (const fault unknown = platform::crash_book_open(platform::state_folder()))
        platform::log_line(platform::log_level_warning, "%s", unknown.text.c_str());
    return crash;
}

// Takes its time on the disk, so it comes when the others' messages are collected already.
void enter_crash(const platform::black_box_crash &crash) {
    if (!crash.happened) return;
    const std::string kept = platform::crash_book_enter(crash);
    platform::log_line(platform::log_level_error, "crash: ravod died while it handled a message of %s: %s",
                       platform::black_box_text(crash).c_str(), kept.c_str());
}

void tell_start(const std::string &path, std::size_t commands, int failed) {
    using what = platform::inventory_row::what;
    platform::start_figures figures{.commands = commands, .failed = failed > 0 ? static_cast<std::size_t>(failed) : 0};
    for (const platform::inventory_row &row : platform::inventory_rows()) {
        figures.interfaces += row.kind == what::interface ? 1 : 0;
        figures.ports += row.kind == what::port ? 1 : 0;
    }
    platform::log_line(platform::log_level_start, "%s", platform::start_text(path, figures).c_str());
}

// What the daemon before remembered of clients that wait for their answers.
void take_over_transactions(const platform::frame_options &options) {
    std::vector<platform::kept_transaction> found;
    const fault wrong = platform::kept_transactions_open(options.management_socket + ".transactions", &found);
    if (wrong) platform::log_line(platform::log_level_warning, "%s", wrong.text.c_str());
    const relay_access *relay = platform::relay_data();
    if (found.empty() || relay == nullptr) return;
    const std::uint64_t now = platform::clock_coarse_ms();
    const std::size_t taken = platform::kept_transactions_restore(found, [&](const platform::kept_transaction &each) {
        const port_place from = port_number_place(each.port);
        const relay_transaction transaction{.xid = each.xid, .module = from.module, .port = from.port};
        if (relay->transaction_add(&transaction) != 1) return false;
        const std::int64_t left = std::int64_t{each.seconds} - static_cast<std::int64_t>((now - each.since) / 1000);
        platform::channel_know_transaction(each.xid, each.port, left);
        return true;
    });
    platform::log_line(platform::log_level_start, "ravod: %zu open transactions of the daemon before go on", taken);
}

// How the start went comes first, then what was wrong, line by line; the lines that are good are in force.
void replay_startup_configuration(const platform::frame_options &options) {
    const std::string &path = options.startup_config;
    std::size_t commands = 0;
    std::vector<std::string> faults;
    const auto report = [&faults](const std::string &line) { faults.push_back(line); };
    const int failed = ravo::cli::replay_file(path, /*optional=*/true, /*check_only=*/false, report, &commands);
    tell_start(path, commands, failed);
    for (const std::string &line : faults) platform::log_line(platform::log_level_error, "%s", line.c_str());
    // The first save creates the file, so its absence keeps nothing from starting; but a path that was typed may be
    // wrong.
    if (options.startup_config_given && access(path.c_str(), F_OK) != 0 && errno == ENOENT)
        platform::log_line(platform::log_level_warning,
                           "%s: no such startup configuration; starting without one, \"write memory\" creates it",
                           path.c_str());
}

// ---- Signals ----

void on_end_signal(evutil_socket_t /*signo*/, short /*what*/, void * /*arg*/) {
    platform::frame_stop(0);
}

void read_description_again() {
    const platform::frame_options &options = platform::frame_get_options();
    platform::switch_description description;
    fault wrong = platform::trusted_file_fault(options.switch_file, platform::user_of_daemon(options));
    if (!wrong)
        wrong = platform::switch_description_read(options.switch_file, !options.switch_file_given, &description);
    if (wrong) {
        platform::log_line(platform::log_level_error, "%s (the switch description in use stays)", wrong.text.c_str());
        return;
    }
    describe(description);
    platform::log_line(platform::log_level_start, "ravod: switch description read again: %zu ports, %zu interfaces",
                       description.ports.size(), description.interfaces.size());
}

void on_reload_signal(evutil_socket_t /*signo*/, short /*what*/, void * /*arg*/) {
    const fault wrong = platform::log_reopen();
    if (wrong) platform::log_line(platform::log_level_error, "%s", wrong.text.c_str());
    platform::frame_reload();
}

std::vector<event_ptr> catch_signals() {
    constexpr struct {
        int signo;
        event_callback_fn handler;
    } rows[] = {{SIGTERM, on_end_signal}, {SIGINT, on_end_signal}, {SIGHUP, on_reload_signal}};
    std::vector<event_ptr> events;
    for (const auto &row : rows) {
        events.emplace_back(evsignal_new(platform::loop_base(), row.signo, row.handler, nullptr));
        if (events.back() == nullptr || event_add(events.back().get(), nullptr) != 0)
            refuse(std::string("ravod: cannot catch signal ") + sigabbrev_np(row.signo) + ": " +
                   strerrordesc_np(errno));
    }
    // A peer that closed its end is noticed where it is written to.
    signal(SIGPIPE, SIG_IGN);
    return events;
}

// ---- End ----

void end_in_order(std::vector<event_ptr> signals) {
    platform::service_stopping();
    platform::kept_transactions_close();  // they are the next daemon's
    platform::management_close();
    ravo::cli::advice_end();
    ravo::cli::unconfirmed_end();
    platform::readers_free();
    platform::transaction_room_close();
    platform::timers_free();
    platform::channel_leave();
    platform::black_box_close();
    platform::counts_close();
    platform::inventory_close();
    platform::service_watchdog_stop();
    platform::store_close();
    signals.clear();
    platform::log_tell_repeats();
    platform::loop_free();
    platform::log_close();
    libevent_global_shutdown();
}

}  // namespace

std::uintptr_t *VEX_INIT_alloc() {
    return registration;
}

int VEX_INIT_Sys_Init(std::uintptr_t * /*record: the one of VEX_INIT_alloc*/) {
    platform::fill_standard_streams();
    platform::store_begin();
    const std::string remark =
        platform::start_read_options({.install_commands = install_commands, .connect_and_start = connect_and_start});
    const platform::frame_options &options = platform::frame_get_options();
    platform::start_check(options);
    platform::limits_raise_descriptors();
    std::vector<event_ptr> signals = catch_signals();
    platform::frame_set_reload(read_description_again);
    platform::transaction_room_open();
    open_inventory(options);
    install_commands();
    connect_and_start();
    if (!remark.empty()) platform::log_line(platform::log_level_trace, "%s", remark.c_str());
    const platform::black_box_crash crash = open_black_box(options);
    platform::log_set_ordinary(platform::books_answered_already);
    ravo::cli::kept_begin();
    platform::nsm_deliver_existing();
    replay_startup_configuration(options);
    platform::store_end_of_start();
    take_over_transactions(options);
    enter_crash(crash);
    platform::log_settle();  // who has waited for an answer finds in the log how the start went
    const fault wrong = platform::management_open(options.management_socket);
    if (wrong) refuse("ravod: " + wrong.text);
    ravo::cli::unconfirmed_resume();
    ravo::cli::advice_begin();
    platform::service_watchdog_start();
    platform::service_ready();
    platform::supervised_is_ready();
    const int status = platform::frame_run();
    end_in_order(std::move(signals));
    // main does not look at the result, so a status other than 0 ends the process here.
    if (status != 0) std::exit(status);
    return 0;
}

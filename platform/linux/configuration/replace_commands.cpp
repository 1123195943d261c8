// SPDX-License-Identifier: Apache-2.0
// Commands that replace the running configuration, and show what differs and which versions are saved.
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "base/files.h"
#include "base/time_text.h"
#include "cli/command_row.h"
#include "cli/help_texts.h"
#include "cli/session.h"
#include "configuration/configuration.h"
#include "configuration/configuration_model.h"
#include "configuration/replace.h"
#include "configuration/unconfirmed.h"
#include "log/log.h"
#include "process/frame.h"

namespace ravo::cli {

namespace {

int fail(session &s, const std::string &reason) {
    (void)emit(s, "% " + reason + "\n");
    return 1;
}

std::string count_text(std::size_t lines) {
    return std::to_string(lines) + (lines == 1 ? " line" : " lines");
}

void print_difference(session &s, const std::vector<difference_line> &lines) {
    std::string text;
    for (const difference_line &line : lines) text += line.sign + line.text + "\n";
    (void)emit(s, text);
}

// ---- Replacing ----

struct replace_wish {
    bool dry_run = false;
    int minutes = 0;  // to confirm it in; 0: it stays
};

// The words behind the source: [dry-run] [confirm <1-1440>].
replace_wish wish_of(int argc, char **argv, int first) {
    replace_wish out;
    for (int i = first; i < argc; ++i) {
        const std::string_view word = argv[i];
        if (word == "dry-run") out.dry_run = true;
        if (word == "confirm" && i + 1 < argc) out.minutes = std::atoi(argv[i + 1]);
    }
    return out;
}

// Puts the configuration in force. before: what was.
int carry_out(session &s, const configuration &before, const configuration &wanted, std::size_t changes, int minutes) {
    const fault wrong = make_running(wanted);
    if (wrong) return fail(s, wrong.text);
    platform::log_line(platform::log_level_start, "configuration: %s changed by %s, the whole was replaced",
                       count_text(changes).c_str(), s.user.c_str());
    if (minutes == 0) return 0;
    const fault remark = unconfirmed_begin(text_of(before), minutes);
    if (remark) (void)emit(s, "% " + remark.text + "\n");
    (void)emit(s, "It goes back in " + std::to_string(minutes) + (minutes == 1 ? " minute" : " minutes") +
                      " unless \"configure confirm\" comes before\n");
    return 0;
}

// Where a text comes from, for messages about its lines.
struct text_source {
    std::string place = "line ";  // what is before the number of a line
    bool is_open = true;          // messages may quote a line
};

int replace_by(session &s, std::string_view text, const replace_wish &wish, const text_source &from = {}) {
    configuration wanted;
    const int faults = read_model(text, &wanted, [&](std::size_t number, const std::string &reason) {
        (void)emit(s, "% " + from.place + std::to_string(number) + ": " +
                          (from.is_open ? reason : "no line of a configuration") + "\n");
    });
    if (faults != 0) return fail(s, "Nothing was changed");
    const turns_undivided whole;
    const configuration before = running_model();
    const std::vector<difference_line> lines = difference(before, wanted);
    const std::size_t changes = count_changes(lines);
    print_difference(s, lines);
    if (changes != 0 && !wish.dry_run) {
        const int result = carry_out(s, before, wanted, changes, wish.minutes);
        if (result != 0) return result;
    }
    const std::string_view done = wish.dry_run ? " would be changed\n" : " changed\n";
    (void)emit(s, changes == 0 ? "unchanged\n" : count_text(changes) + std::string(done));
    return 0;
}

int replace_by_file(struct cli *cli, const std::string &path, const replace_wish &wish) {
    session &s = session_of(cli);
    std::string text;
    const int failed = platform::read_file(path, configuration_limit, &text);
    if (failed != 0) return fail(s, path + " cannot be read: " + std::strerror(failed));
    return replace_by(s, text, wish);
}

const std::string &startup_path() {
    return platform::frame_get_options().startup_config;
}

// Why a file may not be read for somebody: the daemon can read files that are not for everybody who may give this
// command, so it reads those beside the saved configuration alone. Nor is it said which others exist.
fault refuse_place(const std::string &path) {
    if (!path.starts_with('/')) return {"\"" + path + "\" is no whole path, such as /etc/ravo/FILE"};
    const std::string folder = platform::real_path(platform::folder_of(startup_path()));
    const std::string at = platform::real_path(platform::folder_of(path));
    const std::string real = platform::real_path(path);
    const bool inside = !folder.empty() && !at.empty() && platform::is_below(at, folder);
    if (inside && (real.empty() || platform::is_below(real, folder))) return {};
    return {path + " is not in " + platform::folder_of(startup_path()) + ", from where configurations are read"};
}

// Tells whether everybody may read a file.
bool is_for_all(const std::string &path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 && (status.st_mode & S_IROTH) != 0;
}

int replace_by_path(struct cli *cli, int argc, char **argv) {
    session &s = session_of(cli);
    const std::string path = argv[0];
    const fault wrong = refuse_place(path);
    if (wrong) return fail(s, wrong.text);
    std::string text;
    const int failed = platform::read_file(path, configuration_limit, &text);
    if (failed != 0) return fail(s, path + " cannot be read: " + std::strerror(failed));
    return replace_by(s, text, wish_of(argc, argv, 1), {path + ":", is_for_all(path)});
}

int replace_by_startup(struct cli *cli, int argc, char **argv) {
    return replace_by_file(cli, startup_path(), wish_of(argc, argv, 0));
}

int replace_by_saved(struct cli *cli, int argc, char **argv) {
    return replace_by_file(cli, startup_path() + "." + argv[0], wish_of(argc, argv, 1));
}

int replace_by_lines(struct cli *cli, int argc, char **argv) {
    session &s = session_of(cli);
    const auto text = std::make_shared<std::string>();
    s.collector = [text, wish = wish_of(argc, argv, 0)](session &from, std::string_view line) {
        if (line != ".") {
            if (text->size() + line.size() < configuration_limit) {
                text->append(line).append("\n");
                return 0;
            }
            from.collector = nullptr;
            return fail(from, "The configuration is too long; nothing was changed");
        }
        from.collector = nullptr;
        return replace_by(from, *text, wish);
    };
    return 0;
}

int confirm(struct cli *cli, int /*argc*/, char ** /*argv*/) {
    session &s = session_of(cli);
    if (!unconfirmed_confirm()) return fail(s, "No configuration waits to be confirmed");
    platform::log_line(platform::log_level_start, "configuration: confirmed by %s", s.user.c_str());
    (void)emit(s, "The configuration stays\n");
    return 0;
}

// ---- Showing ----

// What differs between what is saved and what runs. The fault: why that is not known.
fault unsaved(std::vector<difference_line> *lines) {
    std::string text;
    const int failed = platform::read_file(startup_path(), configuration_limit, &text);
    if (failed != 0 && failed != ENOENT) return {startup_path() + " cannot be read: " + std::strerror(failed)};
    configuration saved;
    (void)read_model(text, &saved, [](std::size_t, const std::string &) {});
    *lines = difference(saved, running_model());
    return {};
}

int show_differences(struct cli *cli, int /*argc*/, char ** /*argv*/) {
    session &s = session_of(cli);
    std::vector<difference_line> lines;
    const fault wrong = unsaved(&lines);
    if (wrong) return fail(s, wrong.text);
    print_difference(s, lines);
    const std::size_t changes = count_changes(lines);
    (void)emit(s, changes == 0
                      ? "The running configuration is saved\n"
                      : count_text(changes) + (changes == 1 ? " differs" : " differ") + " from what is saved\n");
    if (const auto left = unconfirmed_left())
        (void)emit(s, "It goes back in " + std::to_string(*left) + " s unless \"configure confirm\" comes before\n");
    return 0;
}

int differences_json(struct cli *cli, int /*argc*/, char ** /*argv*/, json_writer &out) {
    std::vector<difference_line> lines;
    const fault wrong = unsaved(&lines);
    if (wrong) return fail(session_of(cli), wrong.text);
    json_open(out, "", '{');
    json_open(out, "lines", '[');
    for (const difference_line &line : lines) json_string(out, "", line.sign + line.text);
    json_close(out, ']');
    json_number(out, "differing", static_cast<std::int64_t>(count_changes(lines)));
    if (const auto left = unconfirmed_left()) json_number(out, "unconfirmed_seconds", *left);
    json_close(out, '}');
    return 0;
}

struct saved_version {
    int number;  // 0: the one in use
    std::int64_t time_us;
    std::int64_t bytes;
    std::string path;
};

std::vector<saved_version> all_versions() {
    std::vector<saved_version> out;
    for (int number = 0; number <= saved_versions; ++number) {
        const std::string path = startup_path() + (number == 0 ? "" : "." + std::to_string(number));
        struct stat status {};
        if (stat(path.c_str(), &status) != 0) continue;
        out.push_back({number, status.st_mtim.tv_sec * std::int64_t{1000000} + status.st_mtim.tv_nsec / 1000,
                       status.st_size, path});
    }
    return out;
}

int show_history(struct cli *cli, int /*argc*/, char ** /*argv*/) {
    cli->print(cli->print_handle, "%-7s  %-23s  %9s  %s\n", "Version", "Saved", "Bytes", "File");
    for (const saved_version &each : all_versions())
        cli->print(cli->print_handle, "%-7s  %-23s  %9lld  %s\n",
                   each.number == 0 ? "in use" : std::to_string(each.number).c_str(),
                   platform::time_text(each.time_us).c_str(), static_cast<long long>(each.bytes), each.path.c_str());
    return 0;
}

int history_json(struct cli * /*cli*/, int /*argc*/, char ** /*argv*/, json_writer &out) {
    json_open(out, "", '{');
    json_open(out, "versions", '[');
    for (const saved_version &each : all_versions()) {
        json_open(out, "", '{');
        json_number(out, "version", each.number);
        json_string(out, "saved", platform::time_text_utc(each.time_us));
        json_number(out, "bytes", each.bytes);
        json_string(out, "file", each.path);
        json_close(out, '}');
    }
    json_close(out, ']');
    json_close(out, '}');
    return 0;
}

constexpr char configure_word[] = "Enter configuration mode";
constexpr char replace_word[] = "Make the running configuration what a text says, all of it or nothing";
constexpr char dry_word[] = "Only show what would change";
constexpr char confirm_word[] = "Go back unless \"configure confirm\" comes in time";
constexpr char minutes_word[] = "Minutes";
constexpr char configuration_word[] = "Configurations";
constexpr command_traits of_files = {.effect = command_effect::files};
// What is asked for is read in turns, and carried out in one piece.
constexpr command_traits replaces = {.effect = command_effect::files, .in_turns = true};

constexpr command_row rows[] = {
    {.text = "configure replace terminal [dry-run] [confirm <1-1440>]",
     .help = {configure_word, replace_word, "The lines that follow, up to one with a dot alone", dry_word, confirm_word,
              minutes_word},
     .handler = replace_by_lines,
     .traits = of_files},
    {.text = "configure replace startup-config [dry-run] [confirm <1-1440>]",
     .help = {configure_word, replace_word, "What is saved", dry_word, confirm_word, minutes_word},
     .handler = replace_by_startup,
     .traits = replaces},
    {.text = "configure replace saved <1-5> [dry-run] [confirm <1-1440>]",
     .help = {configure_word, replace_word, "What was saved before", "Version; 1 is the one before what is saved now",
              dry_word, confirm_word, minutes_word},
     .handler = replace_by_saved,
     .traits = replaces},
    {.text = "configure replace FILE [dry-run] [confirm <1-1440>]",
     .help = {configure_word, replace_word, "The whole path of a file beside the saved configuration", dry_word,
              confirm_word, minutes_word},
     .handler = replace_by_path,
     .traits = replaces},
    {.text = "configure confirm",
     .help = {configure_word, "The configuration stays, which would go back by itself"},
     .handler = confirm,
     .traits = of_files},
    {.text = "show configuration differences",
     .help = {help::show, configuration_word, "What is running (+) and not saved (-)"},
     .handler = show_differences,
     .traits = {.effect = command_effect::looks, .json = differences_json, .schema = "differences"}},
    {.text = "show configuration history",
     .help = {help::show, configuration_word, "The versions that are saved"},
     .handler = show_history,
     .traits = {.effect = command_effect::looks, .json = history_json, .schema = "history"}},
};

}  // namespace

void install_replace_commands(cli_tree *tree) {
    install_rows(tree, rows);
}

}  // namespace ravo::cli

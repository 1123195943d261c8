// SPDX-License-Identifier: Apache-2.0
// Options come before or behind the file's name; "--" ends them, so that a file may have any name.
#include "options.h"

#include <charconv>
#include <string_view>
#include <system_error>

#include "client.h"

namespace ravo::client {

namespace {

// Finds the value of an option that needs one: behind "=" or the next word. Returns false when there is none.
bool take_value(std::string_view name, const std::vector<std::string> &words, std::size_t *at, std::string *value) {
    const std::string &word = words[*at];
    if (word.size() > name.size()) {  // "--name=VALUE", "-cVALUE"
        *value = word.substr(name.size() + (name.starts_with("--") ? 1 : 0));
        return true;
    }
    if (*at + 1 == words.size()) return false;
    *value = words[++*at];
    return true;
}

bool is_option(const std::string &word, std::string_view name) {
    if (!word.starts_with(name)) return false;
    return !name.starts_with("--") || word.size() == name.size() || word[name.size()] == '=';
}

fault take_file(const std::string &word, shell_options *out) {
    if (out->has_file) return {"more than one file: \"" + out->file + "\" and \"" + word + "\""};
    out->has_file = true;
    out->file = word;
    return {};
}

fault take_minutes(const std::string &value, int *out) {
    constexpr int most = 1440;
    const auto [end, fault] = std::from_chars(value.data(), value.data() + value.size(), *out);
    if (fault == std::errc{} && end == value.data() + value.size() && *out >= 1 && *out <= most) return {};
    return {"option --confirm needs minutes from 1 to 1440, not \"" + value + "\""};
}

// Reads an option of --replace, the rest of take_option; what is none of these is unknown.
fault take_replace_option(const std::vector<std::string> &words, std::size_t *at, shell_options *out) {
    const std::string &word = words[*at];
    std::string value;
    if (word == "--dry-run") {
        out->dry_run = true;
    } else if (is_option(word, "--confirm")) {
        if (!take_value("--confirm", words, at, &value)) return {"option --confirm needs minutes"};
        return take_minutes(value, &out->confirm);
    } else if (is_option(word, "--replace")) {
        if (!take_value("--replace", words, at, &value) || value.empty()) return {"option --replace needs a file"};
        if (out->has_replace) return {"more than one file to replace by"};
        out->has_replace = true;
        out->replace = value;
    } else {
        return {"unknown option \"" + word + "\""};
    }
    return {};
}

// Reads the option at *at and moves *at to its last word.
fault take_option(const std::vector<std::string> &words, std::size_t *at, shell_options *out) {
    const std::string &word = words[*at];
    std::string value;
    if (word == "--help" || word == "-h") {
        out->help = true;
    } else if (word == "--stop-on-error") {
        out->stop_on_error = true;
    } else if (word == "--version") {
        out->version = true;
    } else if (is_option(word, "--management")) {
        if (!take_value("--management", words, at, &value) || value.empty())
            return {"option --management needs the path of a socket"};
        out->socket = value;
    } else if (is_option(word, "-c")) {
        if (!take_value("-c", words, at, &value)) return {"option -c needs a command"};
        out->commands.push_back(value);
    } else {
        return take_replace_option(words, at, out);
    }
    return {};
}

// What does not go together.
fault contradiction(const shell_options &options) {
    if (!options.has_replace && (options.dry_run || options.confirm != 0))
        return {"--dry-run and --confirm belong to --replace"};
    if (options.has_replace && (options.has_file || !options.commands.empty()))
        return {"--replace goes without commands and without another file"};
    return {};
}

}  // namespace

fault parse_options(const std::vector<std::string> &words, shell_options *out) {
    out->socket = default_socket;
    bool options_ended = false;
    for (std::size_t at = 0; at < words.size(); ++at) {
        const std::string &word = words[at];
        if (!options_ended && word == "--") {
            options_ended = true;
            continue;
        }
        const bool option = !options_ended && word.size() > 1 && word.front() == '-';
        if (fault wrong = option ? take_option(words, &at, out) : take_file(word, out)) return wrong;
    }
    return contradiction(*out);
}

const char *help_text() {
    return "Usage: ravosh [--management SOCKET] [--stop-on-error] [-c COMMAND]... [FILE]\n"
           "       ravosh [--management SOCKET] --replace FILE [--dry-run] [--confirm MINUTES]\n"
           "The command line of ravod, the DHCPv4 relay agent.\n"
           "\n"
           "  --management SOCKET  the daemon's management socket (/run/ravo/ravod.sock)\n"
           "  -c COMMAND           run this command; more of them run in order in the same session\n"
           "  FILE                 run the commands in this file, one a line (-: standard input)\n"
           "  --stop-on-error      end with the first command that fails\n"
           "  --replace FILE       make the running configuration what the file says, all of it or nothing,\n"
           "                       and print the difference (-: standard input)\n"
           "  --dry-run            only print it\n"
           "  --confirm MINUTES    go back after that time unless \"configure confirm\" comes before\n"
           "  --version            print the version\n"
           "  -h, --help           print this\n"
           "\n"
           "Without commands it is interactive on a terminal, else it reads commands from standard input.\n"
           "Exit status: 0 if every command returned 0, 1 if one did not, 2 if the daemon could not be\n"
           "reached or the usage was wrong.\n";
}

}  // namespace ravo::client

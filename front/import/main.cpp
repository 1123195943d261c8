// SPDX-License-Identifier: Apache-2.0
// ravo-import: the settings of another relay, as ravo's configuration. It reads one text and prints one; it talks to
// nobody.
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "new_relay.h"
#include "old_relay.h"

namespace {

using ravo::fault;

constexpr int exit_good = 0;
constexpr int exit_failed = 1;
constexpr int exit_usage = 2;
constexpr std::size_t most_bytes = 65536;  // a command line or a small file

constexpr const char *help =
    "Usage: ravo-import [FILE]\n"
    "Prints what ISC dhcrelay was told as ravo's start-up configuration, and behind a line \"# switch.toml\" as its\n"
    "switch description. What has no equal is told in lines with \"!\" or \"#\".\n"
    "\n"
    "  FILE       /etc/default/isc-dhcp-relay, or a file with a command line; without it, or with -, standard input\n"
    "  --version  print the version\n"
    "  --help     print this\n";

// Reads a stream to its end.
fault read_all(std::FILE *from, std::string *text) {
    std::array<char, 4096> part{};
    std::size_t count = 0;
    while ((count = std::fread(part.data(), 1, part.size(), from)) > 0) {
        text->append(part.data(), count);
        if (text->size() > most_bytes) return {"is longer than 64 KiB; that is no command line"};
    }
    if (std::ferror(from) != 0) return {std::strerror(errno)};
    if (text->find('\0') != text->npos) return {"has bytes in it that are no text"};
    return {};
}

fault read_input(const std::string &file, std::string *text) {
    if (file == "-") return read_all(stdin, text);
    std::FILE *from = std::fopen(file.c_str(), "re");
    if (from == nullptr) return {std::strerror(errno)};
    fault wrong = read_all(from, text);
    std::fclose(from);
    return wrong;
}

int print(const std::string &text) {
    const bool good = std::fputs(text.c_str(), stdout) >= 0 && std::fflush(stdout) == 0;
    if (!good) std::fprintf(stderr, "ravo-import: standard output: %s\n", std::strerror(errno));
    return good ? exit_good : exit_failed;
}

int convert(const std::string &file) {
    std::string text;
    ravo::moving::old_relay old;
    fault wrong = read_input(file, &text);
    if (!wrong) wrong = ravo::moving::read_old_relay(text, &old);
    if (!wrong) return print(ravo::moving::startup_configuration(old) + ravo::moving::switch_description(old));
    std::fprintf(stderr, "ravo-import: %s: %s\n", file == "-" ? "standard input" : file.c_str(), wrong.text.c_str());
    return exit_failed;
}

}  // namespace

int main(int argc, char **argv) {
    const std::string word = argc > 1 ? argv[1] : "-";
    if (word == "--help" || word == "-h") return print(help);
    if (word == "--version") return print("ravo-import " RAVO_VERSION "\n");
    if (argc > 2 || (word.starts_with("-") && word != "-")) {
        std::fprintf(stderr, "ravo-import: it takes one file, not \"%s\"; see ravo-import --help\n", argv[argc - 1]);
        return exit_usage;
    }
    return convert(word);
}

// SPDX-License-Identifier: Apache-2.0
// Words come in, settings go out. A file of variables is put together to the command line that the service would run,
// so that both forms are read by the same walk over words. Names and values end up in files and remarks, so only
// letters that can do no harm there are taken.
#include "old_relay.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstddef>
#include <map>
#include <system_error>

#include "shell_line.h"

namespace ravo::moving {

namespace {

using words_of = std::vector<std::string>;

constexpr unsigned most_hops = 255;

// Options for which nothing can be written, and which only a person can judge.
constexpr std::array<std::string_view, 4> flags = {"-4", "-d", "-q", "--no-pid"};
constexpr std::array<std::string_view, 7> with_value = {"-A", "-U", "-g", "-p", "-rp", "-pf", "-tf"};
constexpr std::array<std::string_view, 5> of_dhcpv6 = {"-6", "-l", "-u", "-I", "-s"};

template <std::size_t N>
bool is_one_of(const std::array<std::string_view, N> &names, std::string_view word) {
    return std::find(names.begin(), names.end(), word) != names.end();
}

// A device's name goes into files: nothing else may be hidden in it.
fault check_device(const std::string &name) {
    constexpr std::size_t longest = 15;
    constexpr std::string_view letters = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789._-@+";
    if (!name.empty() && name.size() <= longest && name.find_first_not_of(letters) == name.npos) return {};
    return {"\"" + name + "\" is no name of a device; write the name that \"ip link\" shows"};
}

fault take_device(const std::string &value, std::vector<std::string> *devices) {
    if (std::find(devices->begin(), devices->end(), value) == devices->end()) devices->push_back(value);
    return check_device(value);
}

fault take_count(const std::string &value, unsigned *count) {
    const char *end = value.data() + value.size();
    const auto [read, fault] = std::from_chars(value.data(), end, *count);
    if (fault == std::errc{} && read == end && *count <= most_hops) return {};
    return {"-c needs a number from 0 to 255, not \"" + value + "\""};
}

fault take_policy(const std::string &value, std::string *policy) {
    constexpr std::array<std::string_view, 4> policies = {"append", "replace", "forward", "discard"};
    *policy = value;
    return {is_one_of(policies, value) ? "" : "-m needs append, replace, forward or discard, not \"" + value + "\""};
}

fault take_server(const std::string &word, old_relay *out) {
    constexpr std::string_view letters = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789.-_";
    if (word.empty() || word.find_first_not_of(letters) != word.npos)
        return {"\"" + word + "\" is neither an address nor the name of a server"};
    if (std::find(out->servers.begin(), out->servers.end(), word) == out->servers.end()) out->servers.push_back(word);
    return {};
}

// An option with its value.
fault take_valued(const std::string &name, const std::string &value, old_relay *out) {
    if (name == "-i") return take_device(value, &out->both);
    if (name == "-id") return take_device(value, &out->clients);
    if (name == "-iu") return take_device(value, &out->uplinks);
    if (name == "-c") return take_count(value, &out->count);
    if (name == "-m") return take_policy(value, &out->policy);
    out->options.push_back({name, value});
    return {};
}

bool needs_value(std::string_view name) {
    constexpr std::array<std::string_view, 5> ours = {"-i", "-id", "-iu", "-c", "-m"};
    return is_one_of(ours, name) || is_one_of(with_value, name);
}

fault read_words(const words_of &words, old_relay *out) {
    for (std::size_t at = 0; at < words.size(); ++at) {
        const std::string &word = words[at];
        fault wrong;
        if (is_one_of(of_dhcpv6, word)) {
            wrong = {word + " is of DHCPv6, which ravo does not relay; give it the command line for IPv4"};
        } else if (needs_value(word)) {
            if (at + 1 == words.size()) return {word + " needs a value"};
            ++at;
            wrong = take_valued(word, words[at], out);
        } else if (word == "-a") {
            out->adds_option = true;
        } else if (word == "-D") {
            out->checks_replies = true;
        } else if (is_one_of(flags, word)) {
            out->options.push_back({word, {}});
        } else if (word.starts_with("-")) {
            wrong = {"unknown option \"" + word + "\"; see dhcrelay(8), and leave it out if it is of no weight"};
        } else {
            wrong = take_server(word, out);
        }
        if (wrong) return wrong;
    }
    return {};
}

// NAME=VALUE: the name, empty when the word is none.
std::string variable_of(const std::string &word) {
    const std::size_t equals = word.find('=');
    constexpr std::string_view letters = "ABCDEFGHIJKLMNOPQRSTUVWXYZ_abcdefghijklmnopqrstuvwxyz0123456789";
    if (equals == word.npos || word.find_first_not_of(letters) != equals) return {};
    return word.substr(0, equals);
}

// The variables as the service puts them together: devices, options, servers.
fault read_variables(const words_of &words, old_relay *out) {
    std::map<std::string, std::string> values;
    for (const std::string &word : words) {
        if (word == "export") continue;
        const std::string name = variable_of(word);
        if (name.empty()) return {"\"" + word + "\" is no NAME=VALUE; values with blanks stand in quotes"};
        values[name] = word.substr(name.size() + 1);
    }
    words_of line;
    words_of devices;
    fault wrong = split_words(values["INTERFACES"], &devices);
    for (const std::string &device : devices) line.insert(line.end(), {"-i", device});
    if (!wrong) wrong = split_words(values["OPTIONS"], &line);
    if (!wrong) wrong = split_words(values["SERVERS"], &line);
    return wrong ? wrong : read_words(line, out);
}

// A command line without its program.
fault read_command(words_of words, old_relay *out) {
    constexpr std::string_view unit = "ExecStart=";
    if (words.front().starts_with(unit)) words.front().erase(0, unit.size());
    if (words.front().empty() || words.front() == "dhcrelay" || words.front().ends_with("/dhcrelay"))
        words.erase(words.begin());
    return {read_words(words, out)};
}

}  // namespace

fault read_old_relay(std::string_view text, old_relay *out) {
    words_of words;
    if (const fault wrong = split_words(text, &words)) return wrong;
    if (words.empty()) return {"there is neither a command line nor a variable in it"};
    for (const std::string &word : words)
        if (word.find('$') != word.npos) return {"\"" + word + "\" has a variable in it; write its value instead"};
    const std::string name = variable_of(words.front());
    const bool is_command = name.empty() ? words.front() != "export" : name == "ExecStart";
    const fault wrong = is_command ? read_command(words, out) : read_variables(words, out);
    if (!wrong && out->servers.empty()) return {"no server is named; dhcrelay would not start either"};
    return wrong;
}

}  // namespace ravo::moving

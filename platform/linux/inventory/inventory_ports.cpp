// SPDX-License-Identifier: Apache-2.0
// Port numbers.
//
// Two tables, one the inverse of the other. A transaction that waits for its reply and a circuit id that a server
// stored both name a port by its number, so a device that goes and comes back must have the one it had, and a number
// that another device had is not given again while a transaction names it.
#include "inventory/inventory_ports.h"

#include <algorithm>
#include <charconv>
#include <optional>
#include <utility>

#include "log/log.h"

namespace ravo::platform {

namespace {

constexpr std::int64_t never_seen = 1;  // of a described device: away since ever

// ---- The two tables ----

void give(port_table *table, const std::string &device, std::uint32_t number, port_reason reason) {
    table->of_device[device] = {number, reason, 0};
    table->device_of[number] = device;
    table->changed = true;
}

// absent_us: 0 for a device that is there.
void set_absent(port_table *table, given_port *given, std::int64_t absent_us) {
    if (given->absent_us != 0) table->absent.erase({given->absent_us, given->number});
    given->absent_us = absent_us;
    if (absent_us != 0) table->absent.insert({absent_us, given->number});
}

void take_back(port_table *table, const std::string &device) {
    const auto found = table->of_device.find(device);
    if (found == table->of_device.end()) return;
    set_absent(table, &found->second, 0);
    const std::uint32_t number = found->second.number;
    table->search_from = std::min(table->search_from, number);
    table->taken_back.insert(number);
    table->device_of.erase(number);
    table->of_device.erase(found);
    table->changed = true;
}

// ---- What a device claims ----

bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

bool is_letter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

// The port of module 1 whose number these digits are, 0 for none.
std::uint32_t port_of_digits(std::string_view digits) {
    std::uint32_t port = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), port);
    if (error != std::errc() || end != digits.data() + digits.size()) return 0;
    return port >= 1 && port < PORT_NUMBER_PORTS ? port_number_of(1, port) : 0;
}

std::uint32_t claim_by_kernel_index(const port_device &device) {
    const int number = device.kernel_ifindex;
    return number >= static_cast<int>(first_port_number) && number <= static_cast<int>(last_kernel_port_number)
               ? static_cast<std::uint32_t>(number)
               : 0;
}

std::uint32_t claim_by_physical_name(const port_device &device) {
    const std::string_view name = device.physical_name;
    return name.starts_with('p') ? port_of_digits(name.substr(1)) : 0;
}

std::uint32_t claim_by_name(const port_device &device) {
    const std::string_view name = device.name;
    const auto digits = std::find_if_not(name.begin(), name.end(), is_letter);
    if (digits == name.begin() || digits == name.end() || !std::all_of(digits, name.end(), is_digit)) return 0;
    return port_of_digits(name.substr(static_cast<std::size_t>(digits - name.begin())));
}

struct claim_rule {
    port_reason reason;
    std::uint32_t (*claim)(const port_device &device);
};
constexpr claim_rule claim_rules[] = {{port_reason::kernel_index, claim_by_kernel_index},
                                      {port_reason::physical_name, claim_by_physical_name},
                                      {port_reason::name, claim_by_name}};

// The kernel gives a number to one device at a time: whoever has this one for its kernel number was renamed or is gone.
void release_kernel_index(port_table *table, std::uint32_t number) {
    const auto owner = table->device_of.find(number);
    if (owner == table->device_of.end()) return;
    const std::string device = owner->second;
    if (table->of_device[device].reason == port_reason::kernel_index) take_back(table, device);
}

// Gives the devices what they claim by a rule, where that is free and no two claim the same. Returns the others.
std::vector<port_device> give_claimed(port_table *table, const std::vector<port_device> &devices,
                                      const claim_rule &rule) {
    std::unordered_map<std::uint32_t, int> claimants;
    for (const port_device &device : devices) ++claimants[rule.claim(device)];
    std::vector<port_device> left;
    for (const port_device &device : devices) {
        const std::uint32_t number = rule.claim(device);
        if (number != 0 && rule.reason == port_reason::kernel_index) release_kernel_index(table, number);
        if (number == 0 || claimants[number] > 1 || table->device_of.contains(number))
            left.push_back(device);
        else
            give(table, device.name, number, rule.reason);
    }
    return left;
}

// ---- The next free number ----

bool may_be_given(const port_table &table, std::uint32_t number, const port_in_use &in_use) {
    return !table.device_of.contains(number) && (!table.taken_back.contains(number) || !in_use || !in_use(number));
}

std::uint32_t lowest_free(port_table *table, const port_in_use &in_use) {
    std::uint32_t &from = table->search_from;
    while (from <= last_port_number && table->device_of.contains(from)) ++from;
    for (std::uint32_t number = from; number <= last_port_number; ++number)
        if (may_be_given(*table, number, in_use)) return number;
    return 0;
}

// With all numbers given, the one whose device has been away the longest.
std::uint32_t longest_absent(port_table *table, const port_in_use &in_use) {
    for (const auto &[since, number] : table->absent) {
        const std::string device = table->device_of[number];
        if (table->described.contains(device) || (in_use && in_use(number))) continue;
        const std::uint32_t freed = number;  // the entry goes
        take_back(table, device);
        return freed;
    }
    return 0;
}

void give_next_free(port_table *table, const port_device &device, const port_in_use &in_use) {
    std::uint32_t number = lowest_free(table, in_use);
    if (number == 0) number = longest_absent(table, in_use);
    if (number == 0) {
        log_line(log_level_error, "interfaces: no port number is left for %s", device.name.c_str());
        return;
    }
    give(table, device.name, number, port_reason::next_free);
}

void warn_kernel_index_taken(const port_table &table, const port_device &device) {
    const std::uint32_t claimed = claim_by_kernel_index(device);
    const auto owner = table.device_of.find(claimed);
    if (claimed == 0 || owner == table.device_of.end() || owner->second == device.name) return;
    log_line(log_level_warning,
             "interfaces: %s cannot be port number %u, which %s has; it gets %u (a [[port]] entry in the switch "
             "description settles it)",
             device.name.c_str(), claimed, owner->second.c_str(), port_table_number(table, device.name));
}

// ---- Devices that have a number ----

void note_there(port_table *table, const port_device &device, given_port *given) {
    set_absent(table, given, 0);
    const bool by_index = given->reason == port_reason::kernel_index;
    if (!by_index || claim_by_kernel_index(device) == given->number) return;
    given->reason = port_reason::earlier;
    table->changed = true;
}

// ---- Text ----

struct reason_word {
    port_reason reason;
    std::string_view word;  // for a person
    std::string_view key;   // in the file
};
constexpr reason_word reason_words[] = {{port_reason::description, "description", "description"},
                                        {port_reason::kernel_index, "kernel index", "index"},
                                        {port_reason::physical_name, "port name", "port-name"},
                                        {port_reason::name, "name", "name"},
                                        {port_reason::next_free, "next free", "free"},
                                        {port_reason::earlier, "earlier", "earlier"}};

const reason_word &word_of(port_reason reason) {
    return *std::find_if(std::begin(reason_words), std::end(reason_words),
                         [&](const reason_word &row) { return row.reason == reason; });
}

std::string_view next_word(std::string_view *line) {
    const std::string_view word = line->substr(0, line->find(' '));
    line->remove_prefix(std::min(line->size(), word.size() + 1));
    return word;
}

struct written_port {
    std::string device;
    given_port given;
};

std::optional<written_port> read_port_line(std::string_view line) {
    written_port out;
    out.device = next_word(&line);
    out.given.number = port_number_parse(std::string(next_word(&line)).c_str());
    const std::string_view key = next_word(&line);
    const auto *const row = std::find_if(std::begin(reason_words), std::end(reason_words),
                                         [&](const reason_word &each) { return each.key == key; });
    const auto [end, error] = std::from_chars(line.data(), line.data() + line.size(), out.given.absent_us);
    if (out.device.empty() || out.given.number == 0 || row == std::end(reason_words) || error != std::errc() ||
        end != line.data() + line.size() || out.given.absent_us < 0)
        return std::nullopt;
    out.given.reason = row->reason;
    return out;
}

}  // namespace

std::string_view port_reason_word(port_reason reason) {
    return word_of(reason).word;
}

bool natural_less(std::string_view a, std::string_view b) {
    while (!a.empty() && !b.empty()) {
        if (!is_digit(a.front()) || !is_digit(b.front())) {
            if (a.front() != b.front()) return a.front() < b.front();
            a.remove_prefix(1);
            b.remove_prefix(1);
            continue;
        }
        const auto run = [](std::string_view *text) {
            const auto end = std::find_if_not(text->begin(), text->end(), is_digit);
            std::string_view digits = text->substr(0, static_cast<std::size_t>(end - text->begin()));
            text->remove_prefix(digits.size());
            while (digits.size() > 1 && digits.front() == '0') digits.remove_prefix(1);
            return digits;
        };
        const std::string_view of_a = run(&a);
        const std::string_view of_b = run(&b);
        if (of_a.size() != of_b.size()) return of_a.size() < of_b.size();
        if (of_a != of_b) return of_a < of_b;
    }
    return a.size() < b.size();
}

void port_table_describe(port_table *table, const switch_description &description) {
    table->described.clear();
    for (const described_port &port : description.ports) table->described.insert(port.device);
    for (auto &[device, given] : table->of_device)
        if (given.reason == port_reason::description && !table->described.contains(device))
            given.reason = port_reason::earlier;
    for (const described_port &port : description.ports) {
        const std::uint32_t number = port_number_of(port.module, port.port);
        const auto known = table->of_device.find(port.device);
        if (known != table->of_device.end() && known->second.number == number) {
            known->second.reason = port_reason::description;
            continue;
        }
        const std::int64_t absent_us = known == table->of_device.end() ? never_seen : known->second.absent_us;
        const auto owner = table->device_of.find(number);
        if (owner != table->device_of.end()) take_back(table, std::string(owner->second));
        take_back(table, port.device);
        give(table, port.device, number, port_reason::description);
        set_absent(table, &table->of_device[port.device], absent_us);
    }
}

void port_table_give(port_table *table, const std::vector<port_device> &devices, const port_in_use &in_use) {
    std::vector<port_device> left;
    for (const port_device &device : devices) {
        const auto known = table->of_device.find(device.name);
        if (known == table->of_device.end())
            left.push_back(device);
        else
            note_there(table, device, &known->second);
    }
    const std::vector<port_device> fresh = left;
    for (const claim_rule &rule : claim_rules) left = give_claimed(table, left, rule);
    std::sort(left.begin(), left.end(), [](const port_device &a, const port_device &b) {
        if (natural_less(a.name, b.name)) return true;
        return !natural_less(b.name, a.name) && a.name < b.name;  // "swp1" and "swp01"
    });
    for (const port_device &device : left) give_next_free(table, device, in_use);
    for (const port_device &device : fresh) warn_kernel_index_taken(*table, device);
}

void port_table_gone(port_table *table, const std::string &device, std::int64_t now_us) {
    const auto found = table->of_device.find(device);
    if (found != table->of_device.end() && found->second.absent_us == 0) set_absent(table, &found->second, now_us);
}

std::uint32_t port_table_number(const port_table &table, const std::string &device) {
    const auto found = table.of_device.find(device);
    return found == table.of_device.end() ? 0 : found->second.number;
}

std::size_t port_table_forget(port_table *table) {
    std::vector<std::string> away;
    for (const auto &[device, given] : table->of_device)
        if (given.absent_us != 0 && !table->described.contains(device)) away.push_back(device);
    for (const std::string &device : away) take_back(table, device);
    return away.size();
}

std::string port_table_text(const port_table &table) {
    std::vector<std::pair<std::uint32_t, std::string_view>> ports(table.device_of.begin(), table.device_of.end());
    std::sort(ports.begin(), ports.end());
    std::string out =
        "# ravod's own: device, port, why, and since when it is away (microseconds since 1970; 0: there)\n";
    for (const auto &[number, device] : ports) {
        const given_port &given = table.of_device.at(std::string(device));
        char place[PORT_NUMBER_TEXT_SIZE];
        out += std::string(device) + " " + port_number_text(number, place) + " " +
               std::string(word_of(given.reason).key) + " " + std::to_string(given.absent_us) + "\n";
    }
    return out;
}

std::vector<std::string> port_table_read(port_table *table, std::string_view text, std::int64_t now_us) {
    std::vector<std::string> faults;
    for (std::size_t number = 1; !text.empty(); ++number) {
        const std::string_view line = text.substr(0, text.find('\n'));
        text.remove_prefix(std::min(text.size(), line.size() + 1));
        if (line.empty() || line.front() == '#') continue;
        const std::optional<written_port> read = read_port_line(line);
        if (!read) {
            faults.push_back(std::to_string(number) + ": not a device, a port, a reason and a time");
            continue;
        }
        if (table->of_device.contains(read->device) || table->device_of.contains(read->given.number)) continue;
        const bool described = read->given.reason == port_reason::description;
        give(table, read->device, read->given.number, described ? port_reason::earlier : read->given.reason);
        set_absent(table, &table->of_device[read->device], read->given.absent_us == 0 ? now_us : read->given.absent_us);
    }
    table->changed = false;
    return faults;
}

}  // namespace ravo::platform

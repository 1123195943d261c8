// Commands that show the flight recorder: the clients seen lately, and the last messages of one of them.
//
// The recorder is walked from its newest message on. What cannot be read as a message counts for who sent the frame,
// but makes nobody a client: it may have been a server or another relay.
#include <map>
#include <string>
#include <vector>

#include "books/books.h"
#include "cli/command_row.h"
#include "commands/books_clients.h"
#include "commands/books_json.h"
#include "commands/books_text.h"
#include "commands/commands.h"

namespace ravo::cli {

namespace {

// A session holds a bounded amount of output that its reader has not taken yet; a large recorder has more than that.
constexpr std::size_t most_clients = 10000;
constexpr std::size_t most_messages = 5000;

int show_clients(struct cli *cli, int /*argc*/, char ** /*argv*/) {
    const std::vector<seen_client> clients = seen_clients();
    cli->print(cli->print_handle, "%-17s  %4s  %-5s  %-8s  %-20s  %-23s  %8s\n", "Client", "VLAN", "Port", "Message",
               "Outcome", "Time", "Messages");
    for (std::size_t i = 0; i < clients.size() && i < most_clients; ++i) {
        const seen_client &each = clients[i];
        const platform::book_entry &last = each.last;
        cli->print(cli->print_handle, "%-17s  %4s  %-5s  %-8s  %-20s  %-23s  %8zu\n", mac_text(last.client).c_str(),
                   each.vlan == 0 ? "-" : std::to_string(each.vlan).c_str(), port_name(each.port_ifindex).c_str(),
                   message_name(last).c_str(),
                   std::string(platform::outcome_word(static_cast<relay_outcome>(last.outcome))).c_str(),
                   time_text(last.time_us).c_str(), each.messages);
    }
    if (clients.size() > most_clients)
        cli->print(cli->print_handle, "%zu clients more\n", clients.size() - most_clients);
    return 0;
}

int show_client(struct cli *cli, int /*argc*/, char **argv) {
    const auto client = read_mac(argv[0]);
    if (!client) return books_refuse(cli, bad_mac_line(argv[0]));
    const std::vector<platform::book_entry> messages = messages_of_client(*client);
    if (messages.empty()) {
        cli->print(cli->print_handle, "No message of client %s is in the recorder\n", mac_text(*client).c_str());
        return 0;
    }
    cli->print(cli->print_handle, "Client %s, newest message first:\n", mac_text(*client).c_str());
    for (std::size_t i = 0; i < messages.size() && i < most_messages; ++i)
        cli->print(cli->print_handle, "%s\n", entry_line(messages[i]).c_str());
    if (messages.size() > most_messages)
        cli->print(cli->print_handle, "%zu older messages more\n", messages.size() - most_messages);
    return 0;
}

constexpr char show_word[] = "Show running system information";
constexpr char ip_word[] = "Internet Protocol version 4 (IPv4)";
constexpr char relay_word[] = "The DHCP relay";
constexpr char clients_word[] = "The clients seen lately";

constexpr command_traits shows(json_handler json) {
    return {.effect = command_effect::looks, .who = audience::viewers, .json = json};
}

constexpr command_row rows[] = {
    {.privilege = viewer_privilege,
     .text = "show ip dhcp relay client",
     .help = {show_word, ip_word, "DHCP", relay_word, clients_word},
     .handler = show_clients,
     .traits = shows(clients_json)},
    {.privilege = viewer_privilege,
     .text = "show ip dhcp relay client MAC",
     .help = {show_word, ip_word, "DHCP", relay_word, clients_word, "A client's hardware address: its last messages"},
     .handler = show_client,
     .traits = shows(client_json)},
};

}  // namespace

std::vector<seen_client> seen_clients() {
    std::vector<seen_client> out;
    std::map<hardware_address, std::size_t> places;
    platform::books_each_recorded([&](const platform::book_entry &entry) {
        if (!entry.has_message) return;
        const auto [found, is_new] = places.try_emplace(entry.client, out.size());
        if (is_new) out.push_back({.last = entry});
        seen_client &client = out[found->second];
        ++client.messages;
        if (entry.op != 2 && client.vlan == 0 && client.port_ifindex == 0) {
            client.vlan = vlan_of(entry);
            client.port_ifindex = entry.port_ifindex;
        }
    });
    return out;
}

std::vector<platform::book_entry> messages_of_client(const hardware_address &client) {
    std::vector<platform::book_entry> out;
    platform::books_each_recorded([&](const platform::book_entry &entry) {
        if (entry.client == client) out.push_back(entry);
    });
    return out;
}

void install_client_commands(cli_tree *tree) {
    install_rows(tree, rows);
}

}  // namespace ravo::cli

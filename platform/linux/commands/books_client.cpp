// SPDX-License-Identifier: Apache-2.0
// Commands that show the clients and the flight recorder: in which state each client is, and the last messages of one
// of them.
//
// What cannot be read as a message counts for who sent the frame, but makes nobody a client: it may have been a server
// or another relay.
#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include "base/clock.h"
#include "books/books.h"
#include "cli/command_row.h"
#include "cli/help_texts.h"
#include "cli/session.h"
#include "cli/words.h"
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
    const std::int64_t now = platform::wall_clock_us();
    cli->print(cli->print_handle, "%-17s  %4s  %-6s  %-40s  %s\n", "Client", "VLAN", "Port", "State", "Heard");
    for (std::size_t i = 0; i < clients.size() && i < most_clients; ++i) {
        const seen_client &each = clients[i];
        const std::string state = each.view ? client_state_text(*each.view) : "only replies to it were seen";
        cli->print(cli->print_handle, "%-17s  %4s  %-6s  %-40s  %s\n", mac_text(each.client).c_str(),
                   each.vlan == 0 ? "-" : std::to_string(each.vlan).c_str(), port_name(each.port_ifindex).c_str(),
                   state.c_str(), age_text(now - each.heard_us).c_str());
    }
    if (clients.size() > most_clients)
        cli->print(cli->print_handle, "%zu clients more\n", clients.size() - most_clients);
    return 0;
}

// Says what became of a client's last request, when it did not get to a server.
void print_unrelayed(struct cli *cli, const std::vector<platform::book_entry> &messages) {
    constexpr std::uint8_t op_request = 1;
    const auto last = std::find_if(messages.begin(), messages.end(),
                                   [](const platform::book_entry &entry) { return entry.op == op_request; });
    if (last == messages.end() || last->outcome == OUTCOME_RELAYED || last->rebroadcast) return;
    const auto outcome = static_cast<relay_outcome>(last->outcome);
    cli->print(cli->print_handle, "Its last request was not relayed: %s (%s).\n",
               std::string(platform::outcome_word(outcome)).c_str(),
               std::string(platform::outcome_text(outcome)).c_str());
}

int show_client(struct cli *cli, int /*argc*/, char **argv) {
    const auto client = read_mac(argv[0]);
    if (!client) return books_refuse(cli, bad_mac_line(argv[0]));
    const auto view = platform::clients_look(*client, platform::wall_clock_us());
    if (view) cli->print(cli->print_handle, "%s\n", client_sentence(*view).c_str());
    const std::vector<platform::book_entry> messages = messages_of_client(*client);
    if (messages.empty()) {
        cli->print(cli->print_handle, "No message of client %s is in the recorder\n", mac_text(*client).c_str());
        return 0;
    }
    if (view) print_unrelayed(cli, messages);
    cli->print(cli->print_handle, "Messages of %s, newest first:\n", mac_text(*client).c_str());
    for (std::size_t i = 0; i < messages.size() && i < most_messages; ++i)
        cli->print(cli->print_handle, "%s\n", entry_line(messages[i]).c_str());
    if (messages.size() > most_messages)
        cli->print(cli->print_handle, "%zu older messages more\n", messages.size() - most_messages);
    return 0;
}

// Forgets one client or all of them: their states, and their messages in the recorder.
int clear_clients(struct cli *cli, int argc, char **argv) {
    if (argc == 0) {
        platform::clients_forget();
        platform::books_forget_messages();
        return 0;
    }
    const auto client = read_mac(argv[0]);
    if (!client) return books_refuse(cli, bad_mac_line(argv[0]));
    platform::clients_forget(*client);
    for (std::size_t at = platform::books_forget_messages_of(*client, 0); at != 0;
         at = platform::books_forget_messages_of(*client, at))
        turns_pause_if_due();
    return 0;
}

// Clients for completion: no more than a person can look through.
void offer_clients(std::string_view typed, std::vector<std::string> *out) {
    constexpr std::size_t most = 100;
    std::size_t offered = 0;
    for (const platform::client_view &each : platform::clients_all(platform::wall_clock_us())) {
        const std::string mac = mac_text(each.client);
        if (!begins_with(mac, typed)) continue;
        out->push_back(mac);
        if (++offered == most) return;
    }
}

constexpr char clients_word[] = "The clients: where each is, and how it stands";

constexpr command_traits shows(json_handler json, const char *schema) {
    return {.effect = command_effect::looks, .who = audience::viewers, .json = json, .schema = schema};
}

constexpr command_row rows[] = {
    {.privilege = viewer_privilege,
     .text = "show ip dhcp relay client",
     .help = {help::show, help::ip, help::dhcp, help::relay, clients_word},
     .handler = show_clients,
     .traits = shows(clients_json, "clients")},
    {.privilege = viewer_privilege,
     .text = "show ip dhcp relay client MAC",
     .help = {help::show, help::ip, help::dhcp, help::relay, clients_word,
              "A client's hardware address: its state and its last messages"},
     .handler = show_client,
     .traits = shows(client_json, "client")},
    {.text = "clear ip dhcp relay client [MAC]",
     .help = {help::clear, help::ip, help::dhcp, help::relay, "Forget the clients and their messages",
              "The hardware address of one that is to be forgotten alone"},
     .handler = clear_clients,
     .traits = {.effect = command_effect::daemon, .in_turns = true}},
};

}  // namespace

void install_client_commands(cli_tree *tree) {
    install_rows(tree, rows);
    offer_values("MAC", offer_clients);
}

}  // namespace ravo::cli

// SPDX-License-Identifier: Apache-2.0
// Reads of a message what the books keep, without judging it: a broken chain of options counts as far as it goes. When
// the message is closed it is related to what is known of its client and its servers, which may change its outcome: a
// reply to a transaction that was answered before is no unknown one.
#include "books/book_message.h"

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <utility>

#include "books/book_counts.h"
#include "books/client_book.h"
#include "books/recorder.h"
#include "books/server_book.h"

namespace ravo::platform {

namespace {

constexpr std::size_t ethernet_addresses = 12;  // destination, source
constexpr std::size_t ethernet_type = 12;
constexpr std::size_t vlan_tag = 4;    // bytes of one that is in the frame
constexpr std::size_t ip_source = 12;  // within the IP header
constexpr std::size_t dhcp_xid = 4;
constexpr std::size_t dhcp_yiaddr = 16;
constexpr std::size_t dhcp_chaddr = 28;
constexpr std::size_t dhcp_fixed = 240;  // fixed header and magic cookie
constexpr std::uint8_t option_pad = 0;
constexpr std::uint8_t option_type = 53;
constexpr std::uint8_t option_server = 54;
constexpr std::uint8_t option_agent = 82;
constexpr std::uint8_t option_end = 255;
constexpr std::uint8_t type_decline = 4;
constexpr std::uint8_t type_release = 7;
constexpr std::uint8_t op_request = 1;
constexpr std::uint8_t op_reply = 2;

using bytes = std::span<const std::uint8_t>;

// ---- What a message says of itself ----

void keep_option82(bytes data, book_entry &entry) {
    entry.has_option82 = true;
    entry.option82_length = static_cast<std::uint8_t>(data.size());
    std::copy_n(data.begin(), std::min(data.size(), entry.option82.size()), entry.option82.begin());
}

// One of the options that the books keep. Of several message types and option 82s the first counts, as for the relay.
void keep_option(std::uint8_t code, bytes data, bool *has_type, book_message &m) {
    switch (code) {
        case option_type:
            if (!data.empty() && !std::exchange(*has_type, true)) m.entry.type = data.front();
            break;
        case option_server:
            if (data.size() == sizeof m.identifier) std::memcpy(&m.identifier, data.data(), sizeof m.identifier);
            break;
        case option_agent:
            if (!m.entry.has_option82) keep_option82(data, m.entry);
            break;
        default:
            break;
    }
}

// Codes at which the walk does something else than go past an option.
constexpr auto noticed = [] {
    std::array<bool, 256> codes{};
    for (const std::uint8_t code : {option_pad, option_end, option_type, option_server, option_agent})
        codes[code] = true;
    return codes;
}();

// A chain that breaks off says what it said until there.
void read_options(bytes options, book_message &m) {
    const std::uint8_t *const all = options.data();
    const std::size_t end = options.size();
    bool has_type = false;
    for (std::size_t at = 0; at + 1 < end;) {
        const std::uint8_t code = all[at];
        const std::size_t length = all[at + 1];
        if (noticed[code]) {
            if (code == option_pad) {
                ++at;
                continue;
            }
            if (code == option_end || length > end - at - 2) return;
            keep_option(code, {all + at + 2, length}, &has_type, m);
        }
        at += 2 + length;
    }
}

void read_dhcp(bytes message, book_message &m) {
    if (message.size() < dhcp_fixed - 4) return;
    book_entry &entry = m.entry;
    const std::uint8_t *const at = message.data();
    entry.has_message = true;
    entry.op = *at == op_request || *at == op_reply ? *at : 0;
    std::memcpy(&entry.xid, at + dhcp_xid, sizeof entry.xid);
    entry.xid = ntohl(entry.xid);
    std::memcpy(entry.client.data(), at + dhcp_chaddr, entry.client.size());
    clients_expect(entry.client);
    std::memcpy(&entry.address, at + dhcp_yiaddr, sizeof entry.address);
    if (message.size() > dhcp_fixed) read_options(message.subspan(dhcp_fixed), m);
}

// The address that a frame's packet comes from, network byte order; 0 when it has none.
std::uint32_t source_of(bytes frame) {
    std::size_t ip = ethernet_type + 2;
    if (frame.size() >= ip && frame[ethernet_type] == 0x81 && frame[ethernet_type + 1] == 0) ip += vlan_tag;
    std::uint32_t out = 0;
    if (frame.size() >= ip + ip_source + sizeof out) std::memcpy(&out, &frame[ip + ip_source], sizeof out);
    return out;
}

// What cannot be read as a message is its sender's all the same.
void read_sender(bytes frame, book_entry &entry) {
    if (entry.has_message || frame.size() < ethernet_addresses) return;
    std::memcpy(entry.client.data(), frame.data() + entry.client.size(), entry.client.size());
}

// ---- Copies ----

std::span<const std::uint32_t> listed_servers(const book_entry &entry) {
    return std::span(entry.servers).first(std::min<std::size_t>(entry.servers_count, entry.servers.size()));
}

// An outcome that holds of a message whose copies for servers were all refused.
std::uint8_t without_servers(std::uint8_t outcome) {
    return outcome == OUTCOME_RELAYED ? std::uint8_t{OUTCOME_SEND_FAILED} : outcome;
}

void take_off(book_entry &entry, std::uint32_t server) {
    const std::span<const std::uint32_t> listed = listed_servers(entry);
    const auto found = std::find(listed.begin(), listed.end(), server);
    if (found == listed.end()) return;
    const auto place = entry.servers.begin() + (found - listed.begin());
    std::rotate(place, place + 1, entry.servers.end());
    entry.servers.back() = 0;
    if (--entry.servers_count == 0) entry.outcome = without_servers(entry.outcome);
}

// ---- Its client and its servers ----

void note_asked(const book_message &m, std::uint32_t server) {
    const book_entry &entry = m.entry;
    const bool expects_answer = entry.type != type_decline && entry.type != type_release;
    if (expects_answer) servers_note_asked(entry.vlan, server, m.identifier, entry.time_us);
}

void relate_request(const book_message &m) {
    const book_entry &entry = m.entry;
    clients_note_request({entry.client, entry.xid, entry.type, entry.vlan, entry.port_ifindex, entry.time_us});
}

std::uint16_t vlan_of_client(const book_entry &entry) {
    return entry.client_vlan != 0 ? entry.client_vlan : entry.vlan;
}

void relate_reply(book_message &m) {
    book_entry &entry = m.entry;
    const auto asked = clients_find_request(entry.client, entry.xid, entry.type, entry.time_us);
    const std::uint16_t vlan = asked && asked->vlan != 0 ? asked->vlan : vlan_of_client(entry);
    entry.server = servers_who(vlan, m.source, m.identifier);
    if (!asked) return;
    if (asked->waited_us >= 0 && asked->waited_us < INT32_MAX)
        entry.answered_us = static_cast<std::int32_t>(asked->waited_us);
    if (entry.outcome == OUTCOME_UNKNOWN_TRANSACTION && asked->answered_before)
        entry.outcome = OUTCOME_ALREADY_ANSWERED;
    if (entry.outcome != OUTCOME_DELIVERED && entry.outcome != OUTCOME_ALREADY_ANSWERED) return;
    servers_note_answered(vlan, entry.server, m.identifier, entry.answered_us);
    if (entry.outcome == OUTCOME_DELIVERED)
        clients_note_delivered({entry.client, entry.xid, entry.type, entry.address, entry.server, entry.time_us});
}

}  // namespace

void message_read(book_message &m, bytes frame, bytes message) {
    m.source = source_of(frame);
    read_dhcp(message, m);
    read_sender(frame, m.entry);
    m.has_client = m.entry.has_message || !frame.empty();
}

void message_sent_to(book_message &m, std::uint32_t server) {
    ++m.sent;
    book_entry &entry = m.entry;
    if (entry.servers_count < entry.servers.size())
        entry.servers[entry.servers_count] = server;
    else
        note_asked(m, server);  // it is not listed
    if (entry.servers_count < UINT8_MAX) ++entry.servers_count;
}

void message_refused(book_message &m, std::uint32_t server) {
    --m.sent;
    m.some_were_refused = true;
    if (server != 0)
        take_off(m.entry, server);
    else if (m.entry.outcome == OUTCOME_DELIVERED)
        m.entry.outcome = OUTCOME_SEND_FAILED;
}

void message_relate(book_message &m) {
    for (const std::uint32_t server : listed_servers(m.entry)) note_asked(m, server);
    if (m.entry.op == op_request) relate_request(m);
    if (m.entry.op == op_reply) relate_reply(m);
}

void message_enter(const book_message &m) {
    counts_add(vlan_of_client(m.entry), m.entry, m.sent);
    recorder_keep(m.entry);
}

}  // namespace ravo::platform

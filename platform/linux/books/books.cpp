// SPDX-License-Identifier: Apache-2.0
// The books of messages.
//
// A message is in hand from the moment the channel takes it until the next one is taken or the reader's handler
// returned. While it is in hand the relay may say its outcome several times; the last word counts. Only when it is
// closed it is related to its client (client_book.h) and, a reply, to its server (server_book.h). Counters stand in
// fixed tables (VLANs) or are made once (ports), the memory of the flight recorder is taken when it is set up.

#include "books/books.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>
#include <list>
#include <memory>
#include <new>
#include <utility>

#include "base/clock.h"
#include "books/black_box.h"
#include "books/book_counts.h"
#include "books/client_book.h"
#include "books/outcome_words.h"
#include "books/recorder.h"
#include "books/server_book.h"
#include "log/log_subject.h"

namespace ravo::platform {
namespace {

constexpr std::size_t largest_recorder = 1000000;

constexpr std::size_t ethernet_addresses = 12;  // destination, source
constexpr std::size_t ethernet_type = 12;
constexpr std::size_t vlan_tag = 4;    // bytes of one that is in the frame
constexpr std::size_t ip_source = 12;  // within the IP header
constexpr std::size_t dhcp_xid = 4;
constexpr std::size_t dhcp_yiaddr = 16;
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

struct watcher_slot {
    int id;  // 0: taken off
    books_watcher watcher;
};

const book_counters nothing;
constexpr book_entry blank;

std::uint64_t messages = 0;

std::list<watcher_slot> watchers;  // a list: watchers may come and go while they are told
int next_watcher = 1;
bool telling = false;

std::function<void()> look_listener;

bool in_hand = false;
std::uint32_t sent = 0;        // copies of the message in hand
std::uint32_t identifier = 0;  // option 54 of the message in hand, 0: none
std::uint32_t source = 0;      // where its packet comes from
bool has_client = false;       // its client is known
book_entry current;
std::span<const std::uint8_t> current_frame;

// A message that waits, as it was when it was closed.
struct waiting_message {
    book_entry entry;
    std::uint32_t sent = 0;
    std::uint32_t identifier = 0;
    std::uint32_t source = 0;
    bool has_client = false;
};

void (*finish_waiting)() = nullptr;
std::array<waiting_message, books_waiting_limit> waiting;
std::size_t waiting_count = 0;
bool waits = false;         // the message in hand
bool some_refused = false;  // of its copies

void keep_option82(std::span<const std::uint8_t> data, book_entry &entry) {
    entry.has_option82 = true;
    entry.option82_length = static_cast<std::uint8_t>(data.size());
    std::copy_n(data.begin(), std::min(data.size(), entry.option82.size()), entry.option82.begin());
}

// One of the options that the books keep. Of several message types and option 82s the first counts, as for the relay.
void keep_option(std::uint8_t code, std::span<const std::uint8_t> data, bool *has_type, book_entry &entry) {
    if (code == option_type && !data.empty() && !std::exchange(*has_type, true)) entry.type = data.front();
    if (code == option_server && data.size() == sizeof identifier)
        std::memcpy(&identifier, data.data(), sizeof identifier);
    if (code == option_agent && !entry.has_option82) keep_option82(data, entry);
}

// Codes at which the walk does something else than go on.
constexpr auto noticed = [] {
    std::array<bool, 256> codes{};
    for (const std::uint8_t code : {option_end, option_type, option_server, option_agent}) codes[code] = true;
    return codes;
}();

// A chain that breaks off says what it said until there.
void read_options(std::span<const std::uint8_t> options, book_entry &entry) {
    const std::uint8_t *const bytes = options.data();
    const std::size_t end = options.size();
    bool has_type = false;
    for (std::size_t at = 0; at + 1 < end;) {
        const std::uint8_t code = bytes[at];
        if (code == option_pad) {
            ++at;
            continue;
        }
        const std::size_t next = at + 2 + bytes[at + 1];
        if (noticed[code]) {
            if (code == option_end || next > end) return;
            keep_option(code, options.subspan(at + 2, next - at - 2), &has_type, entry);
        }
        at = next;
    }
}

void read_message(std::span<const std::uint8_t> message, book_entry &entry) {
    identifier = 0;
    if (message.size() < dhcp_fixed - 4) return;
    entry.has_message = true;
    const std::uint8_t *const bytes = message.data();
    const std::uint8_t op = bytes[0];
    entry.op = op == op_request || op == op_reply ? op : 0;
    std::memcpy(&entry.xid, bytes + dhcp_xid, sizeof entry.xid);
    entry.xid = ntohl(entry.xid);
    std::memcpy(entry.client.data(), bytes + 28, entry.client.size());
    clients_expect(entry.client);
    std::memcpy(&entry.address, bytes + dhcp_yiaddr, sizeof entry.address);
    if (message.size() > dhcp_fixed) read_options(message.subspan(dhcp_fixed), entry);
}

// The address that a frame's packet comes from, network byte order; 0 when it has none.
std::uint32_t source_of(std::span<const std::uint8_t> frame) {
    std::size_t ip = ethernet_type + 2;
    if (frame.size() >= ip && frame[ethernet_type] == 0x81 && frame[ethernet_type + 1] == 0) ip += vlan_tag;
    std::uint32_t out = 0;
    if (frame.size() >= ip + ip_source + sizeof out) std::memcpy(&out, &frame[ip + ip_source], sizeof out);
    return out;
}

// ---- What a message says of its client and its server ----

std::uint16_t vlan_of_client() {
    return current.client_vlan != 0 ? current.client_vlan : current.vlan;
}

void settle_request() {
    clients_note_request(
        {current.client, current.xid, current.type, current.vlan, current.port_ifindex, current.time_us});
}

void settle_reply() {
    const auto asked = clients_find_request(current.client, current.xid, current.type, current.time_us);
    const std::uint16_t vlan = asked && asked->vlan != 0 ? asked->vlan : vlan_of_client();
    current.server = servers_who(vlan, source, identifier);
    if (!asked) return;
    if (asked->waited_us >= 0 && asked->waited_us < INT32_MAX)
        current.answered_us = static_cast<std::int32_t>(asked->waited_us);
    if (current.outcome == OUTCOME_UNKNOWN_TRANSACTION && asked->answered_before)
        current.outcome = OUTCOME_ALREADY_ANSWERED;
    if (current.outcome != OUTCOME_DELIVERED && current.outcome != OUTCOME_ALREADY_ANSWERED) return;
    servers_note_answered(vlan, current.server, identifier, current.answered_us);
    if (current.outcome == OUTCOME_DELIVERED)
        clients_note_delivered(
            {current.client, current.xid, current.type, current.address, current.server, current.time_us});
}

// Calls a function with the counters of all messages, of a VLAN and of a port.
template <typename function>
void each_counters(std::uint16_t vlan, std::uint32_t port_ifindex, function add) {
    add(counts_total());
    if (book_counters *of_vlan = counts_of_vlan(vlan)) add(*of_vlan);
    if (book_counters *port = counts_of_port(port_ifindex)) add(*port);
}

void count_current(book_counters &counters) {
    ++counters.received;
    if (current.has_message) ++counters.by_type[current.type < BOOK_TYPES ? current.type : 0];
    ++counters.by_outcome[current.outcome];
    if (current.rebroadcast) ++counters.rebroadcast;
    counters.sent += sent;
}

bool expects_answer(std::uint8_t type) {
    return type != type_decline && type != type_release;
}

// What cannot be read as a message is its sender's all the same.
void read_sender(std::span<const std::uint8_t> frame, book_entry &entry) {
    if (entry.has_message || frame.size() < ethernet_addresses) return;
    std::memcpy(entry.client.data(), frame.data() + entry.client.size(), entry.client.size());
}

void note_asked(std::uint32_t server) {
    if (expects_answer(current.type)) servers_note_asked(current.vlan, server, identifier, current.time_us);
}

std::span<const std::uint32_t> listed_servers(const book_entry &entry) {
    return std::span(entry.servers).first(std::min<std::size_t>(entry.servers_count, entry.servers.size()));
}

// Relates the message to its client and its servers.
void settle() {
    for (const std::uint32_t server : listed_servers(current)) note_asked(server);
    if (current.op == op_request) settle_request();
    if (current.op == op_reply) settle_reply();
}

// A watcher may take itself or another off: it is forgotten once all were told.
void tell_watchers() {
    telling = true;
    for (watcher_slot &slot : watchers)
        if (slot.id != 0) slot.watcher(current, current_frame);
    telling = false;
    watchers.remove_if([](const watcher_slot &slot) { return slot.id == 0; });
}

void enter() {
    each_counters(vlan_of_client(), current.port_ifindex, count_current);
    recorder_keep(current);
    if (!watchers.empty()) tell_watchers();
}

void begin_subject() {
    log_subject_begin({current.vlan, current.port_ifindex, current.client, has_client});
}

// ---- Messages that wait ----

void take_in_hand(const waiting_message &message) {
    current = message.entry;
    current_frame = {};
    sent = message.sent;
    identifier = message.identifier;
    source = message.source;
    has_client = message.has_client;
}

// While this lives others may be taken in hand.
class message_in_hand {
  public:
    message_in_hand() = default;
    message_in_hand(const message_in_hand &) = delete;
    message_in_hand &operator=(const message_in_hand &) = delete;
    ~message_in_hand() {
        in_hand = is_one_;
        if (!is_one_) return;
        take_in_hand(message_);
        current_frame = frame_;
        begin_subject();
    }

  private:
    bool is_one_ = in_hand;
    waiting_message message_{current, sent, identifier, source, has_client};
    std::span<const std::uint8_t> frame_ = current_frame;
};

// An outcome that holds of a message whose copies for servers were all refused.
std::uint8_t without_servers(std::uint8_t outcome) {
    return outcome == OUTCOME_RELAYED ? std::uint8_t{OUTCOME_SEND_FAILED} : outcome;
}

// Takes back that a copy of a message was sent.
void refuse_copy(book_entry &entry, std::uint32_t server) {
    if (server == 0) {
        if (entry.outcome == OUTCOME_DELIVERED) entry.outcome = OUTCOME_SEND_FAILED;
        return;
    }
    const std::span<const std::uint32_t> listed = listed_servers(entry);
    const auto found = std::find(listed.begin(), listed.end(), server);
    if (found == listed.end()) return;
    const auto place = entry.servers.begin() + (found - listed.begin());
    std::rotate(place, place + 1, entry.servers.end());
    entry.servers.back() = 0;
    if (--entry.servers_count == 0) entry.outcome = without_servers(entry.outcome);
}

}  // namespace

bool books_set_recorder(std::size_t size) {
    return recorder_set_size(std::clamp<std::size_t>(size, 1, largest_recorder));
}

void books_forget_messages() {
    recorder_clear();
}

std::size_t books_forget_messages_of(const std::array<std::uint8_t, 6> &client, std::size_t first) {
    return recorder_forget(client, first);
}

std::size_t books_recorder_size() {
    return recorder_size();
}

void books_open(std::uint16_t vlan, std::uint32_t port_ifindex, std::span<const std::uint8_t> frame,
                std::span<const std::uint8_t> message, const book_tag &tag, std::int64_t time_us) {
    books_close();
    current = blank;
    current.number = ++messages;
    current.time_us = time_us != 0 ? time_us : wall_clock_us();
    current.vlan = vlan;
    current.port_ifindex = port_ifindex;
    current.tag = tag;
    current_frame = frame;
    some_refused = false;
    source = source_of(frame);
    sent = 0;
    in_hand = true;
    read_message(message, current);
    read_sender(frame, current);
    black_box_note(current, frame);
    has_client = current.has_message || !frame.empty();
    begin_subject();
}

void books_drop(relay_outcome outcome, std::uint16_t vlan, std::uint32_t port_ifindex,
                std::span<const std::uint8_t> frame, std::span<const std::uint8_t> message, const book_tag &tag,
                std::int64_t time_us) {
    books_open(vlan, port_ifindex, frame, message, tag, time_us);
    current.outcome = static_cast<std::uint8_t>(outcome);
    books_close();
}

void books_client_vlan(std::uint16_t vlan) {
    if (in_hand) current.client_vlan = vlan;
}

bool books_answered_already() {
    if (!in_hand || current.op != op_reply) return false;
    const auto asked = clients_find_request(current.client, current.xid, current.type, current.time_us);
    return asked && asked->answered_before;
}

void books_close() {
    if (!in_hand) return;
    if (!waits) books_settle_waiting();
    in_hand = false;
    if (std::exchange(waits, false)) {
        waiting[waiting_count++] = {current, sent, identifier, source, has_client};
        black_box_clear();
        log_subject_end({});
        return;
    }
    settle();
    black_box_clear();
    log_subject_end(outcome_word(static_cast<relay_outcome>(current.outcome)));
    enter();
}

void books_on_wait(void (*finish)()) {
    finish_waiting = finish;
}

void books_settle_waiting() {
    if ((waits || waiting_count != 0) && finish_waiting != nullptr) finish_waiting();
}

bool books_may_wait() {
    return in_hand && waiting_count < waiting.size() && watchers.empty() && !log_subject_waits();
}

std::size_t books_wait() {
    waits = true;
    return waiting_count;
}

void books_copy_refused(std::size_t place, std::uint32_t server) {
    const bool closed = place < waiting_count;
    if (!closed) some_refused = true;
    refuse_copy(closed ? waiting[place].entry : current, server);
    --(closed ? waiting[place].sent : sent);
}

void books_take_up(std::size_t place, const std::function<void()> &during) {
    if (place >= waiting_count) return during();  // it is in hand
    const message_in_hand other;
    take_in_hand(waiting[place]);
    in_hand = true;
    begin_subject();
    during();
    log_subject_end(outcome_word(static_cast<relay_outcome>(current.outcome)));
}

void books_enter_waiting() {
    waits = false;
    if (waiting_count == 0) return;
    const message_in_hand other;
    in_hand = false;
    const std::size_t count = std::exchange(waiting_count, 0);
    for (std::size_t place = 0; place < count; ++place) {
        take_in_hand(waiting[place]);
        settle();
        enter();
    }
}

std::uint32_t books_port_in_hand() {
    return in_hand ? current.port_ifindex : 0;
}

std::optional<std::uint32_t> books_xid_in_hand() {
    return in_hand && current.has_message ? std::optional(current.xid) : std::nullopt;
}

relay_outcome books_outcome_in_hand() {
    return in_hand ? static_cast<relay_outcome>(current.outcome) : OUTCOME_NONE;
}

void books_count(relay_outcome outcome, std::uint16_t vlan, std::uint32_t port_ifindex, std::uint64_t count) {
    each_counters(vlan, port_ifindex, [=](book_counters &counters) {
        counters.received += count;
        counters.by_outcome[outcome] += count;
    });
}

void books_look() {
    books_settle_waiting();
    if (look_listener) look_listener();
}

void books_on_look(std::function<void()> listener) {
    look_listener = std::move(listener);
}

const book_counters &books_total() {
    return counts_total();
}

const book_counters &books_of_vlan(std::uint16_t vlan) {
    const book_counters *counters = counts_of_vlan(vlan);
    return counters == nullptr ? nothing : *counters;
}

const book_counters &books_of_port(std::uint32_t port_ifindex) {
    const book_counters *counters = counts_known_of_port(port_ifindex);
    return counters == nullptr ? nothing : *counters;
}

std::vector<std::uint16_t> books_vlans() {
    std::vector<std::uint16_t> seen;
    for (std::uint16_t vlan = 1; vlan < counted_vlans; ++vlan)
        if (counts_of_vlan(vlan)->received != 0) seen.push_back(vlan);
    counts_rest();
    return seen;
}

std::vector<std::uint32_t> books_ports() {
    std::vector<std::uint32_t> ports = counts_ports();
    std::erase_if(ports, [](std::uint32_t port) { return books_of_port(port).received == 0; });
    std::sort(ports.begin(), ports.end());
    return ports;
}

void books_clear_counters() {
    counts_clear();
}

void books_each_recorded(const std::function<void(const book_entry &entry)> &visit) {
    recorder_each(visit);
}

int books_watch(books_watcher watcher) {
    watchers.push_back({next_watcher, std::move(watcher)});
    return next_watcher++;
}

void books_unwatch(int id) {
    for (watcher_slot &slot : watchers)
        if (slot.id == id) slot.id = 0;
    if (!telling) watchers.remove_if([](const watcher_slot &slot) { return slot.id == 0; });
}

std::string_view outcome_word(relay_outcome outcome) {
    return outcome >= 0 && outcome < OUTCOMES ? outcome_words[outcome].word : "unknown";
}

std::string_view outcome_text(relay_outcome outcome) {
    return outcome >= 0 && outcome < OUTCOMES ? outcome_words[outcome].text : "unknown outcome";
}

std::string_view message_type_word(std::uint8_t type) {
    static constexpr std::string_view words[] = {"-",   "DISCOVER", "OFFER",   "REQUEST", "DECLINE",
                                                 "ACK", "NAK",      "RELEASE", "INFORM"};
    return type < std::size(words) ? words[type] : "?";
}

}  // namespace ravo::platform

void outcome_record(relay_outcome outcome) {
    namespace books = ravo::platform;
    if (!books::in_hand || outcome < 0 || outcome >= OUTCOMES) return;
    if (outcome == OUTCOME_REBROADCAST) books::current.rebroadcast = true;
    if (outcome == OUTCOME_REBROADCAST || outcome == OUTCOME_DELIVERED) ++books::sent;
    // All its copies may have been refused meanwhile, after they were sent.
    const bool refused = outcome == OUTCOME_RELAYED && books::current.servers_count == 0 && books::some_refused;
    books::current.outcome = static_cast<std::uint8_t>(refused ? OUTCOME_SEND_FAILED : outcome);
}

void outcome_server(std::uint32_t server) {
    namespace books = ravo::platform;
    if (!books::in_hand) return;
    ++books::sent;
    books::book_entry &entry = books::current;
    if (entry.servers_count >= entry.servers.size()) books::note_asked(server);
    if (entry.servers_count < entry.servers.size()) entry.servers[entry.servers_count] = server;
    if (entry.servers_count < UINT8_MAX) ++entry.servers_count;
}

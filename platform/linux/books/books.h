// SPDX-License-Identifier: Apache-2.0
// The books of messages: what became of each message that the packet channel received.
//
// Every message is opened when the channel takes it, gets its outcome said by the channel or by the relay (outcome.h),
// and is closed: then it counts, in total, for its VLAN and for its port, it is written into the flight recorder, and
// watchers are called. Nothing is allocated for a message.
#ifndef PLATFORM_LINUX_BOOKS_BOOKS_H
#define PLATFORM_LINUX_BOOKS_BOOKS_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "outcome.h"

namespace ravo::platform {

inline constexpr std::size_t BOOK_TYPES = 9;

// Messages by outcome. What counts as rebroadcast locally is kept beside the outcomes, which each message has one of.
struct book_counters {
    std::array<std::uint64_t, OUTCOMES> by_outcome{};
    std::uint64_t received = 0;     // all messages; equals the sum over by_outcome
    std::uint64_t rebroadcast = 0;  // broadcast again locally, whatever became of them then
    std::uint64_t sent = 0;         // copies sent for them: one a server, one a client, one a local broadcast
    std::array<std::uint64_t, BOOK_TYPES> by_type{};  // DHCP messages by option 53; 0: none, or one that there is not
};

// The VLAN tag that a frame came with, which the kernel has taken out of its bytes.
struct book_tag {
    std::uint16_t protocol = 0;  // EtherType, host byte order; 0: no tag
    std::uint16_t tci = 0;       // 3 bits priority, 1 bit, 12 bits VLAN id; host byte order
};

// One message in the flight recorder.
struct book_entry {
    std::uint64_t number = 0;  // counts the messages; 0: empty entry
    std::int64_t time_us = 0;  // when it was received, microseconds since 1970
    std::uint32_t xid = 0;     // host byte order
    std::uint32_t port_ifindex = 0;
    std::uint16_t vlan = 0;         // of the VLAN interface it came in on, 0: on none
    std::uint16_t client_vlan = 0;  // of a reply that came in on none: the VLAN of its client
    book_tag tag;
    bool has_message = false;                // op, type, xid and option 82 could be read
    std::uint8_t op = 0;                     // 1 request, 2 reply, 0 neither
    std::uint8_t type = 0;                   // option 53, 0: none
    std::array<std::uint8_t, 6> client{};    // client hardware address; the frame's source where that cannot be read
    std::uint8_t outcome = OUTCOME_NONE;     // relay_outcome
    bool rebroadcast = false;                // broadcast again locally, whatever the outcome
    std::uint8_t servers_count = 0;          // servers it was sent to, 255 for more
    std::array<std::uint32_t, 8> servers{};  // of these, the first eight; network byte order
    std::uint32_t server = 0;                // of a reply: who gave it, network byte order
    std::uint32_t address = 0;               // of a reply: the address it offers or gives, network byte order
    std::int32_t answered_us = -1;           // of a reply: since the request that it answers; -1: not known
    bool has_option82 = false;
    std::uint8_t option82_length = 0;         // bytes of option 82's data it carried
    std::array<std::uint8_t, 32> option82{};  // of these, the first ones
};

// Sets the number of messages that the flight recorder holds (1 to 1000000; 4096 at start). Empties it. Returns false
// when there is no memory, and changes nothing.
bool books_set_recorder(std::size_t messages);
std::size_t books_recorder_size();

// Opens a message: frame as received, message: the DHCP message in it; time_us: when it was received, 0: now. Closes
// the one before.
void books_open(std::uint16_t vlan, std::uint32_t port_ifindex, std::span<const std::uint8_t> frame,
                std::span<const std::uint8_t> message, const book_tag &tag = {}, std::int64_t time_us = 0);

// Opens and closes a message that the channel itself drops. vlan, port_ifindex: 0 when not known; message: the DHCP
// message in the frame, empty when it is not known.
void books_drop(relay_outcome outcome, std::uint16_t vlan, std::uint32_t port_ifindex,
                std::span<const std::uint8_t> frame, std::span<const std::uint8_t> message = {},
                const book_tag &tag = {}, std::int64_t time_us = 0);

// Says of which VLAN the client of the message in hand is: of a reply that came in on none. It counts for that VLAN.
void books_client_vlan(std::uint16_t vlan);

// Tells whether the message in hand is a reply to a transaction of its client that another reply has ended: what a
// second server sends, which is no reason for a warning.
bool books_answered_already();

// Closes the message in hand, if there is one.
void books_close();

// ---- Messages whose copies go out later ----
//
// Who sends may gather copies of several messages and hand them to the system together. Until it is known what became
// of its copies a message waits: when it is closed it is not entered into the books yet. Whatever else is to be entered
// comes after those that wait, so that the books are as if nobody had waited.

inline constexpr std::size_t books_waiting_limit = 32;

// Sets who makes an end of the waiting: it learns what became of all copies and calls books_enter_waiting. It is called
// when a message that does not wait is closed, when somebody looks, and when a line is about to be logged.
void books_on_wait(void (*finish)());
// Whether the message in hand may wait: nobody is to hear of it at once, and there is room.
bool books_may_wait();
// Makes the message in hand one that waits. Returns its place among them.
std::size_t books_wait();
// A copy of a message that waits was not sent after all. server: network byte order, 0 when it was the client's.
void books_copy_refused(std::size_t place, std::uint32_t server);
// Calls a function while a message that waits is in hand once more, so that lines of the log are about it.
void books_take_up(std::size_t place, const std::function<void()> &during);
// Makes an end of the waiting now.
void books_settle_waiting();
// Enters the messages that wait, in their order.
void books_enter_waiting();

// The number of the port that the message in hand came in on; 0 without one.
std::uint32_t books_port_in_hand();
// The transaction id of the DHCP message in hand, host byte order; none without one.
std::optional<std::uint32_t> books_xid_in_hand();
// What was said of it so far; OUTCOME_NONE without one.
relay_outcome books_outcome_in_hand();

// Counts messages that were dropped before they could be read. They are in no recorder, and no watcher is called.
void books_count(relay_outcome outcome, std::uint16_t vlan, std::uint32_t port_ifindex, std::uint64_t count);

// Whoever looks at the counters calls books_look before; it calls the listener, for those who count apart from the
// books to hand in (books_count). One listener: the packet channel.
void books_look();
void books_on_look(std::function<void()> listener);

// Counters in total, of a VLAN (1 to 4094), of a port; zeros for one that never received anything.
const book_counters &books_total();
const book_counters &books_of_vlan(std::uint16_t vlan);
const book_counters &books_of_port(std::uint32_t port_ifindex);
// The VLANs and the ports that received something, in order of their numbers.
std::vector<std::uint16_t> books_vlans();
std::vector<std::uint32_t> books_ports();
void books_clear_counters();

// Forgets the recorder's messages: all, or those of a client, a part of the recorder at a time. first: where to begin,
// 0 at first. Returns where to go on, 0 when all was looked at.
void books_forget_messages();
std::size_t books_forget_messages_of(const std::array<std::uint8_t, 6> &client, std::size_t first);

// The recorder's messages, newest first.
void books_each_recorded(const std::function<void(const book_entry &entry)> &visit);

// Watchers are called with each message as it is closed. frame: as received, valid during the call. Returns an id.
using books_watcher = std::function<void(const book_entry &entry, std::span<const std::uint8_t> frame)>;
int books_watch(books_watcher watcher);
void books_unwatch(int id);

// The word for an outcome ("relayed", "hop-limit") and a text for a person ("passed too many relays").
std::string_view outcome_word(relay_outcome outcome);
std::string_view outcome_text(relay_outcome outcome);

// The name of a message type ("DISCOVER"), "-" for none.
std::string_view message_type_word(std::uint8_t type);

}  // namespace ravo::platform

#endif

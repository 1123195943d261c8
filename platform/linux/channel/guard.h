// SPDX-License-Identifier: Apache-2.0
// The guards: checks of a message that the channel adds to the relay's own, for switches whose ports say who is behind
// them. Each is off unless the switch description asks for it, and has an outcome of its own.
//
// One is on unless it is switched off: a reply that the relay can only answer by ending does not reach it.
#ifndef PLATFORM_LINUX_CHANNEL_GUARD_H
#define PLATFORM_LINUX_CHANNEL_GUARD_H

#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <unordered_set>
#include <vector>

#include "channel/dhcp_view.h"
#include "channel/guard_transactions.h"
#include "inventory/inventory.h"
#include "inventory/switch_description.h"
#include "outcome.h"
#include "relay_access.h"

namespace ravo::platform {

// A message that was classified, as the guards see it.
struct guarded_message {
    const std::string &device;  // the kernel's name of the device it came in on
    bool uplink;                // that is no port
    ingress in;
    std::span<const std::uint8_t> frame;    // from the Ethernet destination address on
    std::span<const std::uint8_t> ip_part;  // as in dhcp_frame
    std::span<const std::uint8_t> message;  // the DHCP message
};

class guards {
  public:
    // clock: nanoseconds of a clock that is never set.
    explicit guards(std::int64_t (*clock)()) : clock_(clock) {}

    void describe(const switch_description &description);
    // What the relay says of its settings; NULL: nothing, and no guard that needs to know them drops anything.
    void know_relay(const relay_access *relay) { relay_ = relay; }

    // The outcome of a message that a guard drops, OUTCOME_NONE for one that passes.
    relay_outcome judge(const guarded_message &m);
    // Takes note that a reply was delivered: its transaction is not open any more.
    void delivered(std::span<const std::uint8_t> message);
    // A transaction of the daemon before is open for so many seconds yet. xid: as it is in the message.
    void goes_on(std::uint32_t xid, std::uint32_t port, std::int64_t seconds);
    // Whether a message may be one that is stopped.
    bool minds(std::span<const std::uint8_t> message) const {
        return any_ || (!message.empty() && message.front() == dhcp_bootreply);
    }
    // Whether delivered() is of any use: a guard remembers transactions.
    bool follows_transactions() const { return on_.transactions; }

  private:
    struct port_rule {
        bool servers = false;
        bool trusted = false;
        std::uint32_t clients = 0;  // a minute, 0: any number
    };
    struct port_clients {
        std::int64_t window_s = 0;
        std::unordered_set<std::uint64_t> addresses;
    };

    port_rule rule_of(const guarded_message &m) const;
    relay_outcome judge_reply(const guarded_message &m, const port_rule &rule);
    relay_outcome judge_request(const guarded_message &m, const port_rule &rule);
    bool is_server(std::uint32_t address);
    void read_servers();
    bool is_of_other_vlan(const guarded_message &m) const;
    bool is_one_client_too_many(const guarded_message &m, std::uint32_t most);
    bool ends_relay(const guarded_message &m) const;
    bool local_relay_takes(const guarded_message &m) const;

    std::int64_t (*clock_)();
    described_guard on_;
    bool any_ = false;                        // some guard is on that the description asked for
    std::map<std::string, port_rule> rules_;  // of ports that the description names, by device
    const relay_access *relay_ = nullptr;
    std::unordered_set<std::uint32_t> servers_;  // configured ones, network byte order, as they were read last
    std::int64_t servers_read_ns_ = INT64_MIN / 2;
    std::map<std::uint32_t, port_clients> clients_;  // by port number
    open_transactions transactions_;
};

}  // namespace ravo::platform

#endif

// SPDX-License-Identifier: Apache-2.0
// What the relay has to do with a message, written a second time: a model that shares no code with it. It takes one
// message of the packet channel with the place it came in, and answers with all that must leave the switch for it, byte
// for byte. It knows messages and settings and nothing else, so a byte that comes from anywhere else shows.
#ifndef RELAY_MODEL_H
#define RELAY_MODEL_H

#include <algorithm>
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "naive_options.h"
#include "packet_frame.h"

namespace relay_model {

using naive::bytes;

struct vendor_host {
    std::string text;
    bool exact = true;
    bytes server;
};

struct client_host {
    bytes identifier;
    bytes server;
};

// The settings of a VLAN interface; addresses are 4 bytes in the order of messages.
struct interface {
    std::uint16_t vlan = 0;
    bytes address = bytes(4);
    bytes mac = bytes(6);
    bool has_mac = true;
    bool trusted = false;
    bool local_relay = false;
    std::vector<bytes> servers = {};
    std::vector<vendor_host> by_vendor = {};
    std::vector<client_host> by_client = {};
};

enum class policy { none, replace, drop, keep };

struct settings {
    bool relay = true;
    bool option = true;
    bool check = true;
    policy on_others = policy::replace;
    int hops = 4;
};

struct arrival {
    bytes message = {};      // the UDP payload
    bytes destination = {};  // 4 bytes
    std::uint16_t vlan = 0;
    std::uint32_t port = 0;
};

struct datagram {
    bytes server;
    bytes message;
    bool operator==(const datagram &) const = default;
};

struct frame {
    std::uint16_t vlan;  // of the interface it leaves by
    bytes octets;
    bool operator==(const frame &) const = default;
};

struct answer {
    bool aborts = false;  // the relay ends itself over such a message
    std::vector<datagram> datagrams = {};
    std::vector<frame> frames = {};
};

class model {
  public:
    settings with;
    std::vector<interface> interfaces;  // by VLAN, upwards

    answer take(const arrival &in) {
        answer out;
        const bytes message(in.message.begin(), in.message.begin() + static_cast<std::ptrdiff_t>(std::min<std::size_t>(
                                                                         in.message.size(), 1000)));
        naive::held data(message);
        if (!passes_header(data) || !naive::is_chain(data, static_cast<std::ptrdiff_t>(message.size()) - 236))
            return out;
        const auto type = naive::message_type(data);
        if (!type || *type < 1 || *type > 8 || !with.relay) return out;
        const interface *via = interface_of(in);
        if (via == nullptr) return out;
        if (via->local_relay && via->servers.empty()) relay_locally(&out, *via, data, in);
        if (!out.aborts) decide(&out, *via, data, message.size(), in);
        return out;
    }

    // Lets time pass.
    void pass(std::uint64_t seconds) {
        now_ += seconds;
        std::erase_if(open_, [this](const auto &each) { return each.second.until <= now_; });
    }

    std::size_t open() const { return open_.size(); }

  private:
    struct transaction {
        std::uint8_t module, port;
        std::uint64_t until;
    };

    std::map<bytes, transaction> open_ = {};  // by xid, its bytes in the order of messages
    std::uint64_t now_ = 0;

    bool passes_header(const naive::held &data) const {
        const bytes flags = data.part(10, 2);
        if (flags != bytes{0, 0} && flags != bytes{0x80, 0}) return false;
        return data.at(3) <= std::min(16, with.hops) && (data.at(0) == 1 || data.at(0) == 2);
    }

    const interface *interface_of(const arrival &in) const {
        for (const interface &each : interfaces)
            if (in.destination == bytes(4, 255) ? each.vlan == in.vlan : each.address == in.destination) return &each;
        return nullptr;
    }

    // ---- Option 82 ----

    static std::pair<std::uint8_t, std::uint8_t> place_of(std::uint32_t number) {
        const auto port = static_cast<std::int32_t>(number);
        if (port <= 0) return {std::uint8_t{0}, std::uint8_t{0}};
        return {static_cast<std::uint8_t>((port - 5120) / 64 + 1), static_cast<std::uint8_t>((port - 5120) % 64)};
    }

    static bytes circuit_value(const interface &via, std::uint8_t module, std::uint8_t port) {
        return {0, 4, static_cast<std::uint8_t>(via.vlan), static_cast<std::uint8_t>(via.vlan >> 8), module, port};
    }

    static bytes information(const interface &via, std::uint32_t port) {
        const auto [module, number] = place_of(port);
        return packet::join({{82, 18, 1, 6}, circuit_value(via, module, number), {2, 8, 0, 6}, via.mac});
    }

    // Whether the sub-option at a place holds these bytes and then zeros, as far as the message is held.
    static bool holds(const naive::held &data, std::size_t place, const bytes &expected) {
        const std::size_t claimed = data.at(place + 1);
        for (std::size_t i = 0; i < claimed && place + 2 + i < naive::held_size; ++i)
            if (data.at(place + 2 + i) != (i < expected.size() ? expected[i] : 0)) return false;
        return true;
    }

    bool reply_passes(const interface &via, const naive::held &data, std::size_t circuit) {
        if (circuit == 0) return false;
        const auto found = open_.find(data.part(4, 4));
        if (found == open_.end()) return false;
        if (!holds(data, circuit, circuit_value(via, found->second.module, found->second.port))) return false;
        open_.erase(found);
        const std::size_t second = circuit + 2 + data.at(circuit + 1);
        return data.at(second) != naive::remote_id || holds(data, second, packet::join({{0, 6}, via.mac}));
    }

    void remember(const naive::held &data, std::uint8_t type, std::uint32_t port) {
        if (!with.check || type == 4 || type == 7) return;
        const auto [module, number] = place_of(port);
        open_[data.part(4, 4)] = {module, number, now_ + 300};
    }

    // ---- Decisions ----

    void relay_locally(answer *out, const interface &via, naive::held &data, const arrival &in) {
        const naive::agent_found agent = naive::find_agent(data);
        if (data.part(24, 4) != bytes(4) || agent.present) return;
        if (data.at(0) == 2) {
            out->aborts = !with.check;
            return;
        }
        remember(data, agent.type, in.port);
        const std::size_t length = naive::fill(data, naive::change::add, information(via, in.port));
        if (via.has_mac) send_frame(out, via, data.part(0, 240 + length), bytes(6, 255), bytes(4, 255), 68);
    }

    void decide(answer *out, const interface &via, naive::held &data, std::size_t length, const arrival &in) {
        data.set(3, static_cast<std::uint8_t>(data.at(3) + 1));
        const naive::agent_found agent = naive::find_agent(data);
        const naive::identifiers client = agent.present ? naive::identify(data) : naive::identifiers{};
        const bytes giaddr = data.part(24, 4);
        const bool unset = giaddr == bytes(4);
        if (!via.trusted && unset && agent.present) return;
        if (!with.option) {
            if (unset) data.set(24, via.address);
        } else if (unset || giaddr == via.address) {
            data.set(24, via.address);
            if (!naive::is_chain(data, static_cast<std::ptrdiff_t>(length) - 236)) return;
            if (data.at(0) == 2 && with.check && !reply_passes(via, data, agent.circuit)) return;
            if (data.at(0) == 1) remember(data, agent.type, in.port);
            const auto how = data.at(0) == 1 ? naive::change::add : naive::change::remove;
            length = 240 + naive::fill(data, how, information(via, in.port));
        } else if (agent.present && data.at(0) == 1) {
            if (with.on_others == policy::drop) return;
            if (with.on_others == policy::replace) length = replace(via, data, in.port);
        }
        send(out, via, data.part(0, length), client);
    }

    // What is left behind the new option's END becomes padding unless it is a chain.
    static std::size_t replace(const interface &via, naive::held &data, std::uint32_t port) {
        const std::size_t length = 240 + naive::fill(data, naive::change::replace, information(via, port));
        if (!naive::is_chain(data, static_cast<std::ptrdiff_t>(length) - 236))
            for (std::size_t at = 240 + naive::length_of(data); at < length; ++at) data.set(at, naive::pad);
        return length;
    }

    // ---- Sending ----

    void send(answer *out, const interface &via, const bytes &message, const naive::identifiers &client) const {
        if (message[0] == 2) {
            if (!via.has_mac) return;
            const bool ethernet = message[1] == 1 && message[2] == 6;
            const bytes yiaddr = packet::part_of(message, 16, 4);
            const bool broadcast = (message[10] & 0x80) != 0 || yiaddr == bytes(4);
            send_frame(out, via, message, ethernet ? packet::part_of(message, 28, 6) : bytes(6, 255),
                       broadcast ? bytes(4, 255) : yiaddr, 67);
            return;
        }
        std::vector<bytes> servers = chosen(via, client);
        if (servers.empty()) servers = via.servers;
        for (const bytes &server : servers) out->datagrams.push_back({server, message});
    }

    static std::vector<bytes> chosen(const interface &via, const naive::identifiers &client) {
        std::vector<bytes> servers;
        const std::string text = naive::text_of(client.vendor);
        for (const vendor_host &host : via.by_vendor)
            if (client.vendor_found && (host.exact ? host.text == text : host.text.find(text) != std::string::npos))
                servers.push_back(host.server);
        for (const client_host &host : via.by_client) {
            bytes known = host.identifier;
            known.resize(4);
            if (client.client_found && std::equal(known.begin(), known.end(), client.client.begin()))
                servers.push_back(host.server);
        }
        return servers;
    }

    // from_port: 67 to a client, 68 to the server's VLAN.
    static void send_frame(answer *out, const interface &via, const bytes &message, const bytes &to_mac,
                           const bytes &to_ip, unsigned from_port) {
        out->frames.push_back({via.vlan, packet::encode({.to_mac = to_mac,
                                                         .from_mac = via.mac,
                                                         .from_ip = text_of(via.address),
                                                         .to_ip = text_of(to_ip),
                                                         .from_port = from_port,
                                                         .to_port = from_port == 67 ? 68U : 67U,
                                                         .payload = message})});
    }

    static std::string text_of(const bytes &address) {
        std::string out;
        for (const std::uint8_t byte : address) out += (out.empty() ? "" : ".") + std::to_string(byte);
        return out;
    }
};

}  // namespace relay_model

#endif

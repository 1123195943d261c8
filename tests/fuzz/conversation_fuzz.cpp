// SPDX-License-Identifier: Apache-2.0
// Surface: a conversation of clients and servers through the relay (conversation.h), whose messages are handed to the
// receive handler as the packet channel would.
//
// Contract: of each message exactly that leaves the relay which the model says (relay_model.h), to the byte, and at the
// end as many transactions are open. All buffers and the stack are filled with a pattern before each message, and the
// whole conversation is held twice, with different patterns.

#include <arpa/inet.h>

#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>

#include "conversation.h"
#include "packet_relay.h"

namespace {

using conversation::arrival;
using conversation::event;
using model_world::bytes;

void start_relay() {
    fake::reset();
    ravo_db_init();
    if (RAVO_IF_Create_fd() != 0) std::abort();
    fake::print_from(104);
}

bytes address_of(const std::string &text) {
    bytes address(4);
    const std::string host = text.substr(0, text.find(':'));
    if (!text.ends_with(":67") || inet_pton(AF_INET, host.c_str(), address.data()) != 1)
        conversation::fail("a request goes to " + text);
    return address;
}

class receive_handler {
  public:
    static constexpr bool guarded = false;

    void begin(const std::uint8_t * /*choice*/) {}

    // The message is refused for its flags.
    void spoil(const poison::pattern &with) {
        fake::put_channel({packet::channel_bytes(poison::refused_message(with)), 5121, 10});
        ravo_l2_listen_hdlr(ravo_l2_sock_fd, nullptr);
        fake::forget();
        poison::paint_stack(with);
    }

    std::optional<arrival> carry(const arrival &in) {
        const bytes before = {0, 0, 0, 0, 64, 17, 0, 0, 0, 0, 0, 0};
        fake::put_channel(
            {packet::join({before, in.destination, {0, 68, 0, 67, 0, 0, 0, 0}, in.message}), in.port, in.vlan});
        ravo_l2_listen_hdlr(ravo_l2_sock_fd, nullptr);
        take_sent(in);
        return in;
    }

    // One as large as the channel has, or larger.
    std::optional<arrival> carry_raw(const event &what) {
        bytes message = what.data;
        message.resize(std::size_t{what.a} * 8, what.b);
        return carry({message, bytes(4, 255), 10, what.c});
    }

    const conversation::seen &sent() const { return seen_; }
    bool pass(unsigned seconds) {
        fake::advance(seconds);
        return true;
    }

  private:
    void take_sent(const arrival &in) {
        seen_ = {};
        for (const fake::datagram &each : fake::datagrams)
            seen_.datagrams.push_back({address_of(each.to), each.payload});
        for (const fake::frame &each : fake::frames) {
            seen_.frames.push_back({static_cast<std::uint16_t>(each.to.sll_ifindex - 1024), each.payload});
            if (each.controls.size() != 1 || each.controls[0].data != packet::words32(in.vlan, in.port))
                conversation::fail("a frame that does not say where its message came in");
        }
    }

    conversation::seen seen_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    static const bool started = (start_relay(), true);
    receive_handler by;
    if (started) conversation::hold(data, size, &by);
    return 0;
}

extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t *data, std::size_t size, std::size_t max_size,
                                               unsigned seed) {
    return conversation::mutate(data, size, max_size, seed);
}

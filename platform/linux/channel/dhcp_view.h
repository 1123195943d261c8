// SPDX-License-Identifier: Apache-2.0
// A DHCP message as the guards read it: bounded by its bytes, whatever its lengths say (RFC 2131 section 2).
#ifndef PLATFORM_LINUX_CHANNEL_DHCP_VIEW_H
#define PLATFORM_LINUX_CHANNEL_DHCP_VIEW_H

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

namespace ravo::platform {

inline constexpr std::uint8_t dhcp_bootrequest = 1;
inline constexpr std::uint8_t dhcp_bootreply = 2;
inline constexpr std::uint8_t dhcp_option_pad = 0;
inline constexpr std::uint8_t dhcp_option_type = 53;
inline constexpr std::uint8_t dhcp_option_agent = 82;  // RFC 3046
inline constexpr std::uint8_t dhcp_option_end = 255;
inline constexpr std::uint16_t dhcp_flag_broadcast = 0x8000;
inline constexpr std::uint32_t dhcp_hops_ceiling = 16;  // RFC 1542 section 4.1.1

class dhcp_view {
  public:
    // The relay takes that much of a message and no more.
    static constexpr std::size_t most = 1000;
    static constexpr std::size_t header = 236;
    static constexpr std::size_t options = header + 4;  // behind the magic cookie

    explicit dhcp_view(std::span<const std::uint8_t> message) : bytes_(message.first(std::min(message.size(), most))) {}

    bool has_header() const { return bytes_.size() >= header; }
    // A byte of the message, 0 behind its end.
    std::uint8_t byte(std::size_t at) const { return at < bytes_.size() ? bytes_[at] : std::uint8_t{0}; }

    // These ask for a whole header.
    std::uint8_t op() const { return bytes_[0]; }
    std::uint8_t htype() const { return bytes_[1]; }
    std::uint8_t hlen() const { return bytes_[2]; }
    std::uint8_t hops() const { return bytes_[3]; }
    std::uint32_t xid() const { return load<std::uint32_t>(4); }  // as it is
    std::uint16_t flags() const { return static_cast<std::uint16_t>(bytes_[10] << 8 | bytes_[11]); }
    std::uint32_t giaddr() const { return load<std::uint32_t>(24); }  // network byte order
    std::span<const std::uint8_t> chaddr() const { return bytes_.subspan(28, 16); }

    // Where an option is that comes before the end option; 0: there is none.
    std::size_t find_option(std::uint8_t code) const {
        for (std::size_t at = options; at < bytes_.size() && bytes_[at] != dhcp_option_end; at += size_at(at))
            if (bytes_[at] == code) return at;
        return 0;
    }
    // The message type as the relay takes it: the byte behind the first such option's length, whatever that says.
    std::uint8_t message_type() const {
        const std::size_t at = find_option(dhcp_option_type);
        return at == 0 ? std::uint8_t{0} : byte(at + 2);
    }
    // Magic cookie and a chain of options that has an end option and ends with the message, also behind that one.
    bool is_plain_chain() const {
        constexpr std::array<std::uint8_t, 4> cookie = {99, 130, 83, 99};
        if (bytes_.size() <= options || std::memcmp(bytes_.data() + header, cookie.data(), cookie.size()) != 0)
            return false;
        std::size_t at = options;
        bool ends = false;
        for (; at < bytes_.size(); at += size_at(at)) ends = ends || bytes_[at] == dhcp_option_end;
        return ends && at == bytes_.size();
    }

  private:
    template <typename value>
    value load(std::size_t at) const {
        value loaded;
        std::memcpy(&loaded, bytes_.data() + at, sizeof loaded);
        return loaded;
    }
    // The size of the option that is there. One whose length byte is missing reaches behind the message.
    std::size_t size_at(std::size_t at) const {
        if (bytes_[at] == dhcp_option_pad || bytes_[at] == dhcp_option_end) return 1;
        return at + 1 == bytes_.size() ? 2U : 2U + bytes_[at + 1];
    }

    std::span<const std::uint8_t> bytes_;
};

}  // namespace ravo::platform

#endif

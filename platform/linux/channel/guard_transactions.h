// SPDX-License-Identifier: Apache-2.0
// Whose a transaction is: the port and the client that opened it.
//
// A table of a fixed size, so that a flood of transactions takes no memory: 16384 sets of four. Where a set is full the
// port that brings another one loses its own first.
#ifndef PLATFORM_LINUX_CHANNEL_GUARD_TRANSACTIONS_H
#define PLATFORM_LINUX_CHANNEL_GUARD_TRANSACTIONS_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace ravo::platform {

struct transaction_owner {
    std::uint32_t port = 0;
    std::array<std::uint8_t, 6> client{};
    bool operator==(const transaction_owner &) const = default;
};

class open_transactions {
  public:
    static constexpr std::int64_t life_s = 300;  // as long as the relay remembers one

    // Takes the memory, or gives it back and forgets all.
    void use(bool on);

    // Opens a transaction, or goes on with it. Returns false when it is open and somebody else's. now_s: seconds of a
    // clock that is never set.
    bool open(std::uint32_t xid, const transaction_owner &owner, std::int64_t now_s);
    // Goes on with one that was opened before this process, for so many seconds. Of its owner the port is known; the
    // client is whoever asks from there first.
    void take_over(std::uint32_t xid, std::uint32_t port, std::int64_t seconds, std::int64_t now_s);
    void close(std::uint32_t xid);

  private:
    struct entry {
        std::uint32_t xid = 0;
        transaction_owner owner;
        std::int64_t until_s = 0;  // 0: empty
        bool any_client = false;   // of the owner the port is known alone
    };
    static constexpr std::size_t ways = 4;
    using entry_set = std::array<entry, ways>;

    entry_set &set_of(std::uint32_t xid);
    entry *find(std::uint32_t xid, std::int64_t now_s);
    entry &place_for(std::uint32_t xid, std::uint32_t port, std::int64_t now_s);

    std::vector<entry_set> sets_;
    std::uint64_t secret_ = 0;  // nobody outside knows which transactions share a set
};

}  // namespace ravo::platform

#endif

// SPDX-License-Identifier: Apache-2.0
// The connections of the web server: how many there are, from where, and how long each has been waited for. The HTTP
// library times out a connection that is silent; one that drips a byte now and then, or one too many, ends here.
#ifndef FRONT_WEB_CONNECTIONS_H
#define FRONT_WEB_CONNECTIONS_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

struct bufferevent;

namespace ravo::web {

inline constexpr std::size_t most_connections = 512;
inline constexpr std::size_t most_of_address = 128;
inline constexpr std::chrono::seconds request_time{15};  // from the connection, or the last answer, to a whole request
inline constexpr std::chrono::seconds answer_time{60};   // for an answer to be taken, but for streams
inline constexpr std::size_t descriptors_wanted = 4096;

struct connection_row {
    int fd = -1;
    std::uint64_t cookie = 0;  // the kernel's number of this socket, which is not given again
    std::string address;
    std::chrono::steady_clock::time_point since;
    bool serving = false;  // a request is being answered
    bool stream = false;   // with an answer that goes on
};

struct connection_table {
    std::vector<connection_row> rows;
    std::uint64_t refused = 0;  // too many
    std::uint64_t slow = 0;     // cut off
};

// A connection was made. Ends it at once when there are too many, in all or from its address.
void connection_begins(connection_table *table, int fd);

// A whole request of it is there; its answer is complete.
void connection_serves(connection_table *table, int fd, bool stream = false);
void connection_waits(connection_table *table, int fd);

// Forgets those that are gone, and ends those that are too slow by this time. To be called every second.
void connections_look(connection_table *table, std::chrono::steady_clock::time_point now);

// The address at the other end of a socket, "" when it is not known; IPv4 as such, also when it came in over IPv6.
std::string peer_address(int fd);
bool is_loopback(const std::string &address);

// Lets this process have as many descriptors as it may need.
void raise_descriptor_limit();

}  // namespace ravo::web

#endif

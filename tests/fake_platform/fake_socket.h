// SPDX-License-Identifier: Apache-2.0
// Sockets and their readers. Descriptors are made up; what is sent is kept, what is received is put in by the test.
#ifndef FAKE_SOCKET_H
#define FAKE_SOCKET_H

#include <linux/if_packet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "fake_text.h"
#include "osal.h"

namespace fake {

// ---- Descriptors ----

struct open_socket {
    int domain;
    int type;
    int protocol;
    std::string bound;  // "0.0.0.0:68", empty when not bound
};

// The open sockets by descriptor. The first descriptor after a reset is 100 unless a test says otherwise; a closed one
// is not used again.
extern std::map<int, open_socket> sockets;
void count_descriptors_from(int first);

// Each call in order: "socket(2, 2, 17) = 100", "setsockopt(100, 1, 2, 1) = 0" (level, name, the value as an int),
// "bind(100, 0.0.0.0:68) = 0", "close(100) = 0", "close(100 while a reader watches it) = 0"; failures end in "= -1
// ADDRESS IN USE" style system text.
extern std::vector<std::string> socket_calls;

// The descriptor of the only open socket of this domain and bound address ("" for not bound), -1 when there is none.
int socket_of(int domain, const std::string &bound = "");

// ---- Sent ----

struct datagram {
    int fd;
    std::string to;  // "192.0.2.1:67"
    bytes payload;
    int flags;

    bool operator==(const datagram &) const = default;
};

struct control {
    int level;
    int type;
    std::size_t length;  // cmsg_len
    bytes data;

    bool operator==(const control &) const = default;
};

struct frame {
    int fd;
    sockaddr_ll to;
    socklen_t to_length;
    bytes payload;      // the parts, joined
    std::size_t parts;  // number of them
    std::vector<control> controls;
    std::size_t control_length;  // msg_controllen
    int flags;
};

extern std::vector<datagram> datagrams;  // sent with osal_sendto

// Tells the relay that what it sent over a socket was refused after all, as it asked for with osal_gather. Returns
// whether it asked for that.
bool refuse(int fd, const sockaddr *to, int error);
extern std::vector<frame> frames;  // sent with osal_sendmsg

// ---- Received ----

// A message of the packet channel: the bytes as the daemon reads them, and where it came in.
struct channel_message {
    bytes payload;
    std::uint32_t port = 0;  // interface number of the port
    std::uint16_t vlan = 0;  // VLAN id
};

// A datagram of a UDP socket.
struct udp_message {
    bytes payload;
    std::string from = "192.0.2.1";  // sender
    std::uint16_t from_port = 67;
    int from_family = AF_INET;
    socklen_t from_length = sizeof(sockaddr_in);
    std::vector<control> controls = {};  // level, type and data count
    int flags = 0;                       // msg_flags
};

// IP_PKTINFO control data: interface number, local address and destination address (network byte order).
control pktinfo_control(int ifindex, std::uint32_t spec_dst, std::uint32_t addr);

// Queues what the coming osal_recvfrom and osal_recvmsg return.
void put_channel(channel_message message);
void put_udp(udp_message message);
extern int channel_flags;  // flags of the last osal_recvfrom
std::size_t channel_waiting();
std::size_t udp_waiting();
extern std::size_t udp_parts;  // that the last osal_recvmsg was given
extern int udp_flags;          // and its flags

// ---- Readers ----

struct reader {
    void *handle;
    std::string name;
    int fd;
    int repeat;
    osal_read_handler handler;
    void *arg;
};

// The registered readers, in order of registration.
extern std::vector<reader> readers;

// Calls the handlers of the readers on this descriptor. Returns their number.
int readable(int fd);

// Queues a message and makes the channel readable. Returns the number of handlers called.
int receive_on_channel(channel_message message);

// Drops what the daemon by its own rules leaves behind.
void drop_reader(const std::string &name);
void drop_socket(int fd);

void reset_sockets();

}  // namespace fake

#endif

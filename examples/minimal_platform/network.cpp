// SPDX-License-Identifier: Apache-2.0
// Interfaces and sockets: one VLAN interface, vlan10 with 192.0.2.1, and sockets that are numbers.
#include <arpa/inet.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "if_utl.h"
#include "minimal.h"
#include "nsm.h"
#include "osal.h"

namespace {

using minimal::bytes;

constexpr std::size_t ip_part = 16;  // of the IPv4 header, from its fifth byte
constexpr std::size_t udp_part = 8;
constexpr std::size_t frame_headers = 14 + 20 + 8;

// ---- Interfaces ----

struct interface vlan10 = {.name = "vlan10",
                           .ifindex = IF_UTL_VLAN_BASE + minimal::vlan,
                           .hw_type = NSM_IF_TYPE_VLAN,
                           .hw_addr = {0x00, 0x00, 0x5E, 0x00, 0x53, 0x01},
                           .hw_addr_len = 6,
                           .ifc_ipv4 = nullptr};
connected vlan10_address = {
    .next = nullptr, .ifp = &vlan10, .address = htonl(0xC0000201), .prefix_length = 24, .flags = 0};
if_hook up_hook = nullptr;

// ---- Sockets ----

int last_socket = 2;
int channel = -1;
osal_read_handler reader = nullptr;
void *reader_argument = nullptr;
bytes waiting;  // what the channel has for the relay
bytes sent;     // the last message that the relay sent, without what a frame puts in front of it

}  // namespace

void minimal::interface_up() {
    vlan10.ifc_ipv4 = &vlan10_address;
    up_hook(&vlan10);
}

bytes minimal::came_in(const bytes &message, std::uint32_t destination) {
    waiting.assign(ip_part + udp_part, 0);
    std::memcpy(&waiting[12], &destination, sizeof destination);
    waiting[ip_part + 3] = 67;  // UDP destination port
    waiting.insert(waiting.end(), message.begin(), message.end());
    sent.clear();
    if (reader != nullptr) reader(channel, reader_argument);
    return sent;
}

// ---- The interface service ----

struct nsm_client *nsm_client_create(struct nsm_globals *) {
    static char client;  // an object that nobody looks into
    return reinterpret_cast<nsm_client *>(&client);
}

void nsm_client_set_version(struct nsm_client *, uint32_t) {}
void nsm_client_set_protocol(struct nsm_client *, uint32_t) {}
void nsm_client_set_service(struct nsm_client *, uint32_t) {}

int nsm_client_start(struct nsm_client *) {
    return 0;
}

void if_add_hook(int event, if_hook hook) {
    if (event == NSM_IF_UP) up_hook = hook;  // this interface never goes away
}

void ifc_add_hook(int, ifc_hook) {}

struct interface *ifg_get_by_name(const char *name) {
    return std::strcmp(name, "vlan10") == 0 || std::strcmp(name, "10") == 0 ? &vlan10 : nullptr;
}

struct interface *ifg_lookup_by_index(uint32_t ifindex) {
    return ifindex == vlan10.ifindex ? &vlan10 : nullptr;
}

struct interface *ifg_first() {
    return &vlan10;
}

struct interface *ifg_next(const struct interface *) {
    return nullptr;
}

uint32_t if_utl_ifname_to_ifindex(const char *name) {
    unsigned number = 0;
    const bool is_vlan = std::sscanf(name, "vlan%u", &number) == 1 && number >= 1 && number <= 4094;
    return is_vlan ? IF_UTL_VLAN_BASE + number : 0;
}

int if_utl_ifindex_to_ifname(uint32_t ifindex, char *name) {
    const uint32_t number = ifindex - IF_UTL_VLAN_BASE;
    const bool is_vlan = number >= 1 && number <= 4094;
    name[0] = '\0';
    if (is_vlan) std::snprintf(name, IF_UTL_NAME_SIZE, "vlan%u", number);
    return is_vlan ? 1 : 0;
}

// ---- Readers ----

void *OSAL_ZEBOS_Add_Read_Socket_Thread(void **handle, const char *, osal_read_handler handler, int fd, int,
                                        void *argument) {
    channel = fd;  // the relay has one reader
    reader = handler;
    reader_argument = argument;
    *handle = &reader;
    return *handle;
}

void OSAL_ZEBOS_Delete_Read_Socket_Thread(void **handle) {
    reader = nullptr;
    *handle = nullptr;
}

// ---- Sockets ----

int osal_socket(int, int, int) {
    return ++last_socket;
}

int osal_bind(int, const struct sockaddr *, socklen_t) {
    return 0;
}

int osal_setsockopt(int, int, int, const void *, socklen_t) {
    return 0;
}

int osal_close(int) {
    return 0;
}

ssize_t osal_recvfrom(int, void *buffer, size_t size, int, struct sockaddr *from, socklen_t *from_length) {
    if (waiting.empty()) {
        errno = EAGAIN;
        return -1;
    }
    auto *name = reinterpret_cast<std::uint8_t *>(from);
    std::memcpy(name + OSAL_CHANNEL_PORT, &minimal::port_ifindex, sizeof minimal::port_ifindex);
    std::memcpy(name + OSAL_CHANNEL_VLAN, &minimal::vlan, sizeof minimal::vlan);
    *from_length = OSAL_CHANNEL_NAME_SIZE;
    std::memcpy(buffer, waiting.data(), std::min(size, waiting.size()));
    const auto length = static_cast<ssize_t>(waiting.size());
    waiting.clear();
    return length;
}

ssize_t osal_recvmsg(int, struct msghdr *, int) {
    errno = EAGAIN;  // everything comes through the channel
    return -1;
}

// Requests, to servers.
ssize_t osal_sendto(int, const void *buffer, size_t size, int, const struct sockaddr *, socklen_t) {
    const auto *data = static_cast<const std::uint8_t *>(buffer);
    sent.assign(data, data + size);
    return static_cast<ssize_t>(size);
}

// Replies, as frames to clients.
ssize_t osal_sendmsg(int, const struct msghdr *msg, int) {
    bytes frame;
    for (size_t i = 0; i < msg->msg_iovlen; ++i) {
        const auto *data = static_cast<const std::uint8_t *>(msg->msg_iov[i].iov_base);
        frame.insert(frame.end(), data, data + msg->msg_iov[i].iov_len);
    }
    sent.assign(frame.begin() + frame_headers, frame.end());
    return static_cast<ssize_t>(frame.size());
}

// Everything is sent at once.
void osal_gather(int, osal_refused) {}

// SPDX-License-Identifier: Apache-2.0
// Frames towards clients. A client that has no address yet cannot be reached through an ordinary socket, so the relay
// builds the Ethernet, IPv4 and UDP headers itself and sends them with the message out of the VLAN interface.
#include "ravo_if_client.h"

#include <linux/if_packet.h>
#include <netinet/in.h>

#include <cerrno>
#include <cstring>

#include "checksum.h"
#include "dhcp.h"
#include "osal.h"
#include "outcome.h"
#include "ravo_if_state.h"
#include "trace.h"

namespace {

constexpr const char *module_path = "user/src/ravo_if";

// Offsets in the 42-byte frame header.
constexpr std::size_t eth_destination = 0;
constexpr std::size_t eth_source = 6;
constexpr std::size_t eth_type = 12;
constexpr std::size_t ip_start = 14;
constexpr std::size_t ip_source = ip_start + 12;
constexpr std::size_t ip_destination = ip_start + 16;
constexpr std::size_t udp_start = 34;

constexpr std::size_t ip_header_size = 20;
constexpr std::size_t udp_header_size = 8;
constexpr std::uint16_t ethertype_ipv4 = 0x0800;
constexpr std::uint16_t port_server = 67;
constexpr std::uint16_t port_client = 68;
constexpr std::uint8_t htype_ethernet = 1;        // RFC 1700, hardware types
constexpr std::uint16_t flag_broadcast = 0x8000;  // RFC 2131 section 2

void fill_ip_header(std::uint8_t *ip, const iface *iface, std::uint32_t length) {
    ip[0] = 0x45;  // version 4, five words: never any IP options
    ip[1] = 0;
    store16(ip + 2, ip_header_size + udp_header_size + length);
    store16(ip + 4, 0);
    store16(ip + 6, 0x4000);  // don't fragment
    ip[8] = 64;
    ip[9] = IPPROTO_UDP;
    std::memcpy(ip + (ip_source - ip_start), &iface->if_ip, 4);
}

// What a sender decides about a frame; the rest follows from the interface and the message.
struct addressing {
    const std::uint8_t *mac;  // Ethernet destination, 6 bytes
    std::uint32_t ip;         // destination address, network byte order
    std::uint16_t source_port;
    std::uint16_t destination_port;
};

void start_frame(std::uint8_t *frame, const addressing &to) {
    std::memset(frame, 0, RAVO_FRAME_HEADER_SIZE);
    std::memcpy(frame + eth_destination, to.mac, RAVO_MAC_SIZE);
    store16(frame + eth_type, ethertype_ipv4);
    std::memcpy(frame + ip_destination, &to.ip, 4);
    store16(frame + udp_start, to.source_port);
    store16(frame + udp_start + 2, to.destination_port);
}

constexpr std::uint8_t broadcast_mac[RAVO_MAC_SIZE] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};

// Sends header and message as one frame out of an interface, with the record of where the message came in.
ssize_t send_frame(const iface *iface, std::uint8_t *frame, const std::uint8_t *message, std::uint32_t length,
                   const pkt_origin &origin) {
    sockaddr_ll to{};
    to.sll_family = AF_PACKET;
    to.sll_ifindex = static_cast<int>(iface->ifindex);

    iovec parts[2] = {{frame, RAVO_FRAME_HEADER_SIZE}, {const_cast<std::uint8_t *>(message), length}};
    alignas(cmsghdr) unsigned char control[CMSG_SPACE(sizeof origin)] = {};
    msghdr msg{};
    msg.msg_name = &to;
    msg.msg_namelen = sizeof to;
    msg.msg_iov = parts;
    msg.msg_iovlen = 2;
    msg.msg_control = control;
    msg.msg_controllen = CMSG_LEN(sizeof origin);
    cmsghdr *cmsg = CMSG_FIRSTHDR(&msg);
    cmsg->cmsg_len = CMSG_LEN(sizeof origin);
    cmsg->cmsg_level = 0;
    cmsg->cmsg_type = OSAL_CMSG_ORIGIN;
    std::memcpy(CMSG_DATA(cmsg), &origin, sizeof origin);
    return osal_sendmsg(ravo_raw_sock_fd, &msg, 0);
}

relay_outcome outcome_of(ssize_t res, std::uint8_t op) {
    if (res <= 0) return OUTCOME_SEND_FAILED;
    return op == opBOOTREQUEST ? OUTCOME_REBROADCAST : OUTCOME_DELIVERED;
}

constexpr const char *sending = "sendEtherFrame";  // the procedure whose step this is

void trace_failure(int fd, int error) {
    ravo_trace_as(sending, ravo::level_failure, "%s (%d): raw_sock_fd=%d, sendmsg error %s\n", fd,
                  std::strerror(error));
}

// Traces by whom a frame was sent.
void trace_sender(const iface *iface) {
    if (!vex_prints(ravo::level_trace)) return;
    std::uint8_t ip[4];
    std::memcpy(ip, &iface->if_ip, sizeof ip);
    const std::uint8_t *mac = iface->if_mac;
    ravo_print(ravo::level_trace, "interface=%s\n", iface->name);
    ravo_print(ravo::level_trace, "iface->if_ip %d.%d.%d.%d\n", ip[0], ip[1], ip[2], ip[3]);
    ravo_print(ravo::level_trace, "iface->if_mac %02x.%02x.%02x.%02x.%02x.%02x, iface->if_maclen=%d\n", mac[0], mac[1],
               mac[2], mac[3], mac[4], mac[5], static_cast<int>(iface->if_maclen));
}

}  // namespace

bool ravo_if_has_hardware_address(const char *procedure, const iface *iface) {
    if (iface->if_maclen == RAVO_MAC_SIZE) return true;
    ravo_trace_as(procedure, ravo::level_failure, "%s (%d): interface %s has no hardware address, drop\n", iface->name);
    outcome_record(OUTCOME_NO_HARDWARE_ADDRESS);
    return false;
}

void ravo_if_frame_refused(int fd, const sockaddr *, int error) {
    trace_failure(fd, error);
}

void sendEtherFrame(const iface *iface, std::uint8_t *frame, const std::uint8_t *message, std::uint32_t length,
                    pkt_origin origin) {
    ravo_trace(ravo::level_trace, "%s (%d): interface=%s, face->if_maclen=%d, sizeof %d\n", iface->name,
               static_cast<int>(iface->if_maclen), static_cast<int>(RAVO_MAC_SIZE));
    ravo_assert(iface->if_maclen == RAVO_MAC_SIZE, "iface->if_maclen == sizeof(frame->eth.ether_dhost)", module_path);
    std::memcpy(frame + eth_source, iface->if_mac, RAVO_MAC_SIZE);
    fill_ip_header(frame + ip_start, iface, length);
    store16(frame + udp_start + 4, udp_header_size + length);
    ipChecksum(frame + ip_start);
    udpChecksum(frame + udp_start, frame + ip_start, message);

    const ssize_t res = send_frame(iface, frame, message, length, origin);
    const int error = errno;
    if (res <= 0) trace_failure(ravo_raw_sock_fd, error);
    outcome_record(outcome_of(res, *message));
    ravo_print(ravo::level_trace, "===========msg ====================\n");
    ravo_trace(ravo::level_trace, "%s (%d): raw_sock_fd=%d, res %d", ravo_raw_sock_fd, static_cast<int>(res));
    trace_sender(iface);
}

void ravo_if_send_to_client(const iface *iface, const std::uint8_t *header, const std::uint8_t *message,
                            std::uint32_t length, pkt_origin origin) {
    ravo_trace(ravo::level_trace, "%s (%d)\n");
    ravo_assert(dhcp_op(header) == opBOOTREPLY, "header->op == opBOOTREPLY", module_path);
    const bool has_mac =
        header[offsetof(dhcp_header, htype)] == htype_ethernet && header[offsetof(dhcp_header, hlen)] == RAVO_MAC_SIZE;
    // RFC 2131 section 4.1: the broadcast flag decides about the IP destination alone.
    const std::uint32_t yiaddr = dhcp_load32(header, offsetof(dhcp_header, yiaddr));
    const bool unicast = (dhcp_flags(header) & htons(flag_broadcast)) == 0 && yiaddr != 0;
    std::uint8_t frame[RAVO_FRAME_HEADER_SIZE];
    start_frame(frame, {.mac = has_mac ? header + offsetof(dhcp_header, chaddr) : broadcast_mac,
                        .ip = unicast ? yiaddr : INADDR_BROADCAST,
                        .source_port = port_server,
                        .destination_port = port_client});
    sendEtherFrame(iface, frame, message, length, origin);
}

void ravo_if_send_local_relay(const iface *iface, const std::uint8_t *header, const std::uint8_t *message,
                              std::uint32_t length, pkt_origin origin) {
    ravo_assert(*header == opBOOTREQUEST, "header->op == opBOOTREQUEST", module_path);
    std::uint8_t frame[RAVO_FRAME_HEADER_SIZE];
    start_frame(
        frame,
        {.mac = broadcast_mac, .ip = INADDR_BROADCAST, .source_port = port_client, .destination_port = port_server});
    sendEtherFrame(iface, frame, message, length, origin);
}

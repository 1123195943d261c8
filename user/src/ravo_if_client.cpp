// Frames towards clients, and the check of replies.
//
// A client that has no address yet cannot be reached through an ordinary socket, so the relay builds the Ethernet, IPv4
// and UDP headers itself and sends them with the message out of the VLAN interface. A reply whose option 82 (RFC 3046)
// does not name the interface and the port of its transaction is not delivered.
#include "ravo_if_client.h"

#include <linux/if_packet.h>
#include <netinet/in.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "dhcp.h"
#include "osal.h"
#include "outcome.h"
#include "ravo_db_xid.h"
#include "ravo_if_option.h"
#include "ravo_if_socket.h"
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

constexpr std::size_t mac_size = 6;
constexpr std::size_t ip_header_size = 20;
constexpr std::size_t udp_header_size = 8;
constexpr std::uint16_t ethertype_ipv4 = 0x0800;
constexpr std::uint16_t port_server = 67;
constexpr std::uint16_t port_client = 68;
constexpr std::uint8_t htype_ethernet = 1;        // RFC 1700, hardware types
constexpr std::uint16_t flag_broadcast = 0x8000;  // RFC 2131 section 2

void store16(std::uint8_t *at, std::size_t value) {
    at[0] = static_cast<std::uint8_t>(value >> 8);
    at[1] = static_cast<std::uint8_t>(value);
}

std::size_t load16(const std::uint8_t *at) {
    return static_cast<std::size_t>(at[0]) << 8 | at[1];
}

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
    std::memcpy(frame + eth_destination, to.mac, mac_size);
    store16(frame + eth_type, ethertype_ipv4);
    std::memcpy(frame + ip_destination, &to.ip, 4);
    store16(frame + udp_start, to.source_port);
    store16(frame + udp_start + 2, to.destination_port);
}

constexpr std::uint8_t broadcast_mac[mac_size] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};

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

// Compares a sub-option's value with the expected one, which goes on with zeros; the comparison ends with the buffer of
// the message, so that a length byte that claims more than is there cannot lead it out.
bool value_matches(const std::uint8_t *suboption, const std::uint8_t (&expected)[16], const std::uint8_t *message) {
    const std::uint8_t *value = suboption + 2;
    const std::uint8_t *limit = message + message_buffer::size;
    const std::size_t room = value < limit ? static_cast<std::size_t>(limit - value) : 0;
    const std::size_t length = std::min<std::size_t>(suboption[1], room);
    const std::size_t known = std::min<std::size_t>(length, sizeof expected - 2);
    if (std::memcmp(value, expected + 2, known) != 0) return false;
    return std::all_of(value + known, value + length, [](std::uint8_t byte) { return byte == 0; });
}

// The result of a refused reply.
int drop(relay_outcome outcome) {
    outcome_record(outcome);
    return 0;
}

}  // namespace

std::uint16_t checksumAdd(const void *data, std::size_t length, std::uint32_t initial) {
    const auto *bytes = static_cast<const std::uint8_t *>(data);
    std::uint64_t sum = initial;
    for (std::size_t at = 0; at + 1 < length; at += 2) sum += load16(bytes + at);
    if (length % 2 == 1) sum += static_cast<std::uint64_t>(bytes[length - 1]) << 8;
    while (sum >> 16 != 0) sum = (sum & 0xFFFF) + (sum >> 16);
    return static_cast<std::uint16_t>(sum);
}

void ipChecksum(std::uint8_t *ip_header) {
    store16(ip_header + 10, 0);
    store16(ip_header + 10, static_cast<std::uint16_t>(~checksumAdd(ip_header, ip_header_size, 0)));
}

void udpChecksum(std::uint8_t *udp_header, const std::uint8_t *ip_header, const std::uint8_t *payload) {
    std::uint8_t pseudo[12];  // RFC 768: source, destination, zero, protocol, UDP length
    std::memcpy(pseudo, ip_header + 12, 8);
    pseudo[8] = 0;
    pseudo[9] = ip_header[9];
    std::memcpy(pseudo + 10, udp_header + 4, 2);
    store16(udp_header + 6, 0);
    std::uint16_t sum = checksumAdd(pseudo, sizeof pseudo, 0);
    sum = checksumAdd(udp_header, udp_header_size, sum);
    sum = checksumAdd(payload, load16(udp_header + 4) - udp_header_size, sum);
    // deliberate: a checksum of 0x0000 is sent as it is, not as 0xFFFF.
    store16(udp_header + 6, static_cast<std::uint16_t>(~sum));
}

void sendEtherFrame(const iface *iface, std::uint8_t *frame, const std::uint8_t *message, std::uint32_t length,
                    pkt_origin origin) {
    ravo_trace(ravo::level_trace, "%s (%d): interface=%s, face->if_maclen=%d, sizeof %d\n", iface->name,
               static_cast<int>(iface->if_maclen), static_cast<int>(mac_size));
    ravo_assert(iface->if_maclen == mac_size, "iface->if_maclen == sizeof(frame->eth.ether_dhost)", module_path);
    std::memcpy(frame + eth_source, iface->if_mac, mac_size);
    fill_ip_header(frame + ip_start, iface, length);
    store16(frame + udp_start + 4, udp_header_size + length);
    ipChecksum(frame + ip_start);
    udpChecksum(frame + udp_start, frame + ip_start, message);

    const ssize_t res = send_frame(iface, frame, message, length, origin);
    const bool request = *message == opBOOTREQUEST;
    outcome_record(res <= 0 ? OUTCOME_SEND_FAILED : request ? OUTCOME_REBROADCAST : OUTCOME_DELIVERED);
    if (res <= 0)
        ravo_trace(ravo::level_failure, "%s (%d): raw_sock_fd=%d, sendmsg error %s\n", ravo_raw_sock_fd,
                   std::strerror(errno));
    if (!vex_prints(ravo::level_trace)) return;
    std::uint8_t ip[4];
    std::memcpy(ip, &iface->if_ip, sizeof ip);
    const std::uint8_t *mac = iface->if_mac;
    ravo_print(ravo::level_trace, "===========msg ====================\n");
    ravo_trace(ravo::level_trace, "%s (%d): raw_sock_fd=%d, res %d", ravo_raw_sock_fd, static_cast<int>(res));
    ravo_print(ravo::level_trace, "interface=%s\n", iface->name);
    ravo_print(ravo::level_trace, "iface->if_ip %d.%d.%d.%d\n", ip[0], ip[1], ip[2], ip[3]);
    ravo_print(ravo::level_trace, "iface->if_mac %02x.%02x.%02x.%02x.%02x.%02x, iface->if_maclen=%d\n", mac[0], mac[1],
               mac[2], mac[3], mac[4], mac[5], static_cast<int>(iface->if_maclen));
}

void ravo_if_send_to_client(const iface *iface, const std::uint8_t *header, const std::uint8_t *message,
                            std::uint32_t length, pkt_origin origin) {
    ravo_trace(ravo::level_trace, "%s (%d)\n");
    const dhcp_header reply = dhcp_load_header(header);
    ravo_assert(reply.op == opBOOTREPLY, "header->op == opBOOTREPLY", module_path);
    const bool has_mac = reply.htype == htype_ethernet && reply.hlen == mac_size;
    // RFC 2131 section 4.1: the broadcast flag decides about the IP destination alone.
    const bool unicast = (reply.flags & htons(flag_broadcast)) == 0 && reply.yiaddr != 0;
    std::uint8_t frame[RAVO_FRAME_HEADER_SIZE];
    start_frame(frame, {.mac = has_mac ? reply.chaddr : broadcast_mac,
                        .ip = unicast ? reply.yiaddr : INADDR_BROADCAST,
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

int ravo_option_check_reply(const iface *iface, const std::uint8_t *op82, const std::uint8_t *header) {
    ravo_trace(ravo::level_trace, "%s (%d): rx_if=%s\n", iface->name);
    if (op82 == nullptr) {
        ravo_trace(ravo::level_trace, "%s (%d): op82_data is null\n");
        return drop(OUTCOME_NO_OPTION82);
    }
    if (op82[0] == 1) {
        const std::uint16_t vlan = ravo_vlan_id_of(iface);
        const dhcp_header reply = dhcp_load_header(header);
        const std::uint8_t *mac = reply.chaddr;
        xid_entry entry{};
        entry.xid = reply.xid;
        if (ravo_db_xid_get(&entry) == 0) {
            ravo_trace(ravo::level_warning,
                       "%s (%d): Can't find option 82 circuit id DB for client "
                       "%02X:%02X:%02X:%02X:%02X:%02X,xid=%X drop\n",
                       mac[0], mac[1], mac[2], mac[3], mac[4], mac[5], reply.xid);
            return drop(OUTCOME_UNKNOWN_TRANSACTION);
        }
        // deliberate: the VLAN id stands low byte first, as the relay wrote it into the request.
        const std::uint8_t circuit_id[16] = {1,
                                             6,
                                             0,
                                             4,
                                             static_cast<std::uint8_t>(vlan & 0xFF),
                                             static_cast<std::uint8_t>(vlan >> 8),
                                             static_cast<std::uint8_t>(entry.module),
                                             static_cast<std::uint8_t>(entry.port)};
        if (!value_matches(op82, circuit_id, header)) {
            ravo_trace(ravo::level_trace, "%s (%d): option 82 circuit id content not matched, drop\n");
            return drop(OUTCOME_CIRCUIT_ID);
        }
        ravo_db_xid_delete(&entry);  // the transaction is finished
    }
    const std::uint8_t *second = op82 + op82[1] + 2;
    if (second[0] == 2) {
        std::uint8_t remote_id[16] = {2, 8, 0, 6};
        std::memcpy(remote_id + 4, iface->if_mac, mac_size);
        if (!value_matches(second, remote_id, header)) {
            ravo_trace(ravo::level_trace, "%s (%d): option 82 remote id content not matched, drop\n");
            return drop(OUTCOME_REMOTE_ID);
        }
    }
    ravo_trace(ravo::level_trace, "%s (%d): op82_data is valide\n");
    return 1;
}

// SPDX-License-Identifier: Apache-2.0
// The kernel is asked at the moment when a frame comes in on a locked port. Such ports are few and their messages too
// (the limit of a port bounds them), while to follow the whole table would mean a change for every station that any
// port learns. The kernel has answered when the question was sent, so nothing is waited for.
#include "inventory/inventory_stations.h"

#include <libmnl/libmnl.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <cstring>
#include <memory>

namespace ravo::platform {

namespace {

constexpr std::uint32_t extended_locked = 1U << 1;  // NTF_EXT_LOCKED, which older headers lack
constexpr std::size_t answer_room = 8192;

struct close_socket {
    void operator()(mnl_socket *socket) const { mnl_socket_close(socket); }
};
using socket_ptr = std::unique_ptr<mnl_socket, close_socket>;

socket_ptr open_socket() {
    socket_ptr socket(mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (socket && mnl_socket_bind(socket.get(), 0, MNL_SOCKET_AUTOPID) != 0) socket.reset();
    return socket;
}

bool ask(const mnl_socket *socket, int member, std::uint16_t vlan, const mac_address &station, unsigned sequence) {
    alignas(nlmsghdr) char room[128];
    nlmsghdr *request = mnl_nlmsg_put_header(room);
    request->nlmsg_type = RTM_GETNEIGH;
    request->nlmsg_flags = NLM_F_REQUEST;
    request->nlmsg_seq = sequence;
    auto *header = static_cast<ndmsg *>(mnl_nlmsg_put_extra_header(request, sizeof(ndmsg)));
    header->ndm_family = AF_BRIDGE;
    header->ndm_ifindex = member;
    header->ndm_flags = NTF_MASTER;
    mnl_attr_put(request, NDA_LLADDR, station.size(), station.data());
    if (vlan != 0) mnl_attr_put_u16(request, NDA_VLAN, vlan);
    return mnl_socket_sendto(socket, request, request->nlmsg_len) >= 0;
}

struct wanted_attributes {
    std::uint32_t extended = 0;
};

int collect(const nlattr *attribute, void *data) {
    auto *to = static_cast<wanted_attributes *>(data);
    if (mnl_attr_get_type(attribute) == NDA_FLAGS_EXT && mnl_attr_get_payload_len(attribute) >= sizeof to->extended)
        std::memcpy(&to->extended, mnl_attr_get_payload(attribute), sizeof to->extended);
    return MNL_CB_OK;
}

}  // namespace

bool stations_entry_admits(const nlmsghdr *message, int member) {
    if (message->nlmsg_type != RTM_NEWNEIGH || mnl_nlmsg_get_payload_len(message) < sizeof(ndmsg)) return false;
    const auto *header = static_cast<const ndmsg *>(mnl_nlmsg_get_payload(message));
    // A permanent entry is an address of the box itself.
    if (header->ndm_family != AF_BRIDGE || header->ndm_ifindex != member || (header->ndm_state & NUD_PERMANENT) != 0)
        return false;
    wanted_attributes found;
    mnl_attr_parse(message, sizeof *header, collect, &found);
    return (found.extended & extended_locked) == 0;
}

bool stations_admit(int member, std::uint16_t vlan, const mac_address &station) {
    static const socket_ptr socket = open_socket();
    static unsigned sequence = 0;
    if (!socket || !ask(socket.get(), member, vlan, station, ++sequence)) return false;
    alignas(nlmsghdr) char answer[answer_room];
    for (;;) {
        const ssize_t received = mnl_socket_recvfrom(socket.get(), answer, sizeof answer);
        if (received < 0) return false;
        const auto *message = reinterpret_cast<const nlmsghdr *>(answer);
        if (mnl_nlmsg_ok(message, static_cast<int>(received)) && message->nlmsg_seq == sequence)
            return stations_entry_admits(message, member);
    }
}

}  // namespace ravo::platform

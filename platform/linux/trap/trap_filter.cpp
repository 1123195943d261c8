// SPDX-License-Identifier: Apache-2.0
// The trap's filter is a classic BPF program behind a device's clsact qdisc, at ingress: there the kernel has shown the
// frame to packet sockets already, and no bridge has taken it yet. The program's result is the verdict itself ("direct
// action"), so that no action module is needed. The filter is known by its kind, priority and handle, also to a later
// process that finds it after a crash.
//
// Each call has a netlink socket of its own; the kernel answers before the send returns.
#include "trap/trap_filter.h"

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/filter.h>
#include <linux/if_ether.h>
#include <linux/pkt_cls.h>
#include <linux/pkt_sched.h>
#include <linux/rtnetlink.h>
#include <netinet/in.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <string_view>

namespace ravo::platform {

namespace {

constexpr std::uint32_t filter_handle = 0x7261766F;
constexpr std::uint32_t filter_priority = 67;  // before the filters that come without a priority of their own
constexpr std::uint32_t filter_info = filter_priority << 16;
constexpr std::uint32_t others_mark =
    0x00010001;  // class id of the filter in a qdisc that is not ours; no class has it
constexpr char filter_kind[] = "bpf";
constexpr char qdisc_kind[] = "clsact";
constexpr std::uint32_t ingress = TC_H_MAKE(TC_H_CLSACT, TC_H_MIN_INGRESS);
constexpr std::uint32_t egress = TC_H_MAKE(TC_H_CLSACT, TC_H_MIN_EGRESS);

// ---- The program ----

constexpr std::uint32_t drop = TC_ACT_SHOT;
constexpr std::uint32_t pass = 0xFFFFFFFF;  // TC_ACT_UNSPEC: the filters behind this one decide

// "Broadcast on the wire, IPv4, UDP, no fragment, destination port 67": what the channel can deliver, and broadcast. A
// VLAN tag is no longer in the frame here. Jumps count from the next instruction.
constexpr std::array<sock_filter, 15> program{{
    BPF_STMT(BPF_LD | BPF_W | BPF_ABS, 0),
    BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, 0xFFFFFFFF, 0, 11),
    BPF_STMT(BPF_LD | BPF_H | BPF_ABS, 4),
    BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, 0xFFFF, 0, 9),
    BPF_STMT(BPF_LD | BPF_H | BPF_ABS, 12),
    BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, ETH_P_IP, 0, 7),
    BPF_STMT(BPF_LD | BPF_B | BPF_ABS, 23),
    BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, IPPROTO_UDP, 0, 5),
    BPF_STMT(BPF_LD | BPF_H | BPF_ABS, 20),
    BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, 0x3FFF, 3, 0),
    BPF_STMT(BPF_LDX | BPF_B | BPF_MSH, 14),
    BPF_STMT(BPF_LD | BPF_H | BPF_IND, 16),
    BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, 67, 1, 0),
    BPF_STMT(BPF_RET | BPF_K, pass),
    BPF_STMT(BPF_RET | BPF_K, drop),
}};

// ---- Netlink ----

struct socket_close {
    void operator()(mnl_socket *s) const { mnl_socket_close(s); }
};
using socket_ptr = std::unique_ptr<mnl_socket, socket_close>;

struct request {
    alignas(nlmsghdr) std::array<char, 1024> room{};
    nlmsghdr *head = nullptr;
};

// Begins a message about a device's qdisc or filters.
void begin(request &r, std::uint16_t type, std::uint16_t flags, const tcmsg &about) {
    r.head = mnl_nlmsg_put_header(r.room.data());
    r.head->nlmsg_type = type;
    r.head->nlmsg_flags = static_cast<std::uint16_t>(NLM_F_REQUEST | flags);
    r.head->nlmsg_seq = 1;
    std::memcpy(mnl_nlmsg_put_extra_header(r.head, sizeof about), &about, sizeof about);
}

tcmsg about_filter(int kernel_ifindex) {
    tcmsg about{};
    about.tcm_ifindex = kernel_ifindex;
    about.tcm_handle = filter_handle;
    about.tcm_parent = ingress;
    about.tcm_info = filter_info | htons(ETH_P_ALL);
    return about;
}

tcmsg about_qdisc(int kernel_ifindex) {
    tcmsg about{};
    about.tcm_ifindex = kernel_ifindex;
    about.tcm_handle = TC_H_MAKE(TC_H_CLSACT, 0);
    about.tcm_parent = TC_H_CLSACT;
    return about;
}

using message_visitor = std::function<void(const nlmsghdr *message)>;

int visit_message(const nlmsghdr *message, void *visitor) {
    (*static_cast<const message_visitor *>(visitor))(message);
    return MNL_CB_OK;
}

// Sends a request and reads its answers up to the last. Returns 0, or the kernel's reason as errno.
int ask(const request &r, const message_visitor &visit) {
    const socket_ptr socket(mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC));
    if (socket == nullptr || mnl_socket_bind(socket.get(), 0, MNL_SOCKET_AUTOPID) != 0) return errno;
    if (mnl_socket_sendto(socket.get(), r.head, r.head->nlmsg_len) < 0) return errno;
    alignas(nlmsghdr) std::array<char, 32768> answers;
    message_visitor visitor = visit;
    for (;;) {
        const ssize_t size = mnl_socket_recvfrom(socket.get(), answers.data(), answers.size());
        if (size < 0 && errno == EINTR) continue;
        if (size < 0) return errno;
        const int state = mnl_cb_run(answers.data(), static_cast<std::size_t>(size), r.head->nlmsg_seq,
                                     mnl_socket_get_portid(socket.get()), visit_message, &visitor);
        if (state < 0) return errno;
        if (state == MNL_CB_STOP) return 0;
    }
}

int order(const request &r) {
    return ask(r, [](const nlmsghdr * /*nothing but the acknowledgement comes*/) {});
}

// A filter as the kernel reports it.
struct seen_filter {
    tcmsg about{};
    std::string_view kind;
    std::uint32_t class_id = 0;
};

int read_option(const nlattr *attribute, void *filter) {
    if (mnl_attr_get_type(attribute) == TCA_BPF_CLASSID && mnl_attr_validate(attribute, MNL_TYPE_U32) >= 0)
        static_cast<seen_filter *>(filter)->class_id = mnl_attr_get_u32(attribute);
    return MNL_CB_OK;
}

// The kind is before the options, whose meaning depends on it.
int read_filter(const nlattr *attribute, void *filter) {
    auto *out = static_cast<seen_filter *>(filter);
    const std::uint16_t type = mnl_attr_get_type(attribute);
    if (type == TCA_KIND && mnl_attr_validate(attribute, MNL_TYPE_NUL_STRING) >= 0)
        out->kind = mnl_attr_get_str(attribute);
    if (type == TCA_OPTIONS && out->kind == filter_kind)
        (void)mnl_attr_parse_nested(attribute, read_option, out);  // read_option never fails
    return MNL_CB_OK;
}

using filter_visitor = std::function<void(const seen_filter &filter)>;

// Calls a function with each filter at one side of a device.
int each_filter(int kernel_ifindex, std::uint32_t side, const filter_visitor &visit) {
    tcmsg about{};
    about.tcm_ifindex = kernel_ifindex;
    about.tcm_parent = side;
    request r;
    begin(r, RTM_GETTFILTER, NLM_F_DUMP, about);
    return ask(r, [&](const nlmsghdr *message) {
        if (message->nlmsg_type != RTM_NEWTFILTER || mnl_nlmsg_get_payload_len(message) < sizeof(tcmsg)) return;
        seen_filter found;
        std::memcpy(&found.about, mnl_nlmsg_get_payload(message), sizeof found.about);
        (void)mnl_attr_parse(message, sizeof(tcmsg), read_filter, &found);  // read_filter never fails
        // A filter list without filters has the handle 0.
        if (found.about.tcm_handle != 0) visit(found);
    });
}

bool is_ours(const seen_filter &filter) {
    return filter.kind == filter_kind && filter.about.tcm_handle == filter_handle &&
           (filter.about.tcm_info & 0xFFFF0000) == filter_info;
}

int add_qdisc(int kernel_ifindex, bool *made) {
    request r;
    begin(r, RTM_NEWQDISC, NLM_F_ACK | NLM_F_CREATE | NLM_F_EXCL, about_qdisc(kernel_ifindex));
    mnl_attr_put_strz(r.head, TCA_KIND, qdisc_kind);
    const int reason = order(r);
    *made = reason == 0;
    return reason == EEXIST ? 0 : reason;
}

// Leaves it when anyone has filters on either side of it, or when that is not known.
int remove_unused_qdisc(int kernel_ifindex) {
    int filters = 0;
    const auto count = [&](const seen_filter &) { ++filters; };
    if (each_filter(kernel_ifindex, ingress, count) != 0 || each_filter(kernel_ifindex, egress, count) != 0) return 0;
    if (filters != 0) return 0;
    request r;
    begin(r, RTM_DELQDISC, NLM_F_ACK, about_qdisc(kernel_ifindex));
    mnl_attr_put_strz(r.head, TCA_KIND, qdisc_kind);
    return order(r);
}

int add_filter(int kernel_ifindex, bool own_qdisc) {
    request r;
    begin(r, RTM_NEWTFILTER, NLM_F_ACK | NLM_F_CREATE, about_filter(kernel_ifindex));
    mnl_attr_put_strz(r.head, TCA_KIND, filter_kind);
    nlattr *options = mnl_attr_nest_start(r.head, TCA_OPTIONS);
    mnl_attr_put_u16(r.head, TCA_BPF_OPS_LEN, static_cast<std::uint16_t>(program.size()));
    mnl_attr_put(r.head, TCA_BPF_OPS, sizeof program, program.data());
    mnl_attr_put_u32(r.head, TCA_BPF_FLAGS, TCA_BPF_FLAG_ACT_DIRECT);
    if (!own_qdisc) mnl_attr_put_u32(r.head, TCA_BPF_CLASSID, others_mark);
    mnl_attr_nest_end(r.head, options);
    return order(r);
}

int unless_gone(int reason) {
    return reason == ENODEV || reason == ENOENT || reason == EINVAL ? 0 : reason;
}

}  // namespace

int trap_filter_add(int kernel_ifindex, bool *own_qdisc) {
    bool made = false;
    const int reason = add_qdisc(kernel_ifindex, &made);
    if (reason != 0) return reason;
    const int failure = add_filter(kernel_ifindex, *own_qdisc || made);
    // Only what was made here goes again; that it cannot be removed adds nothing to the reason.
    if (failure != 0 && made) (void)remove_unused_qdisc(kernel_ifindex);
    if (failure == 0) *own_qdisc = *own_qdisc || made;
    return failure;
}

int trap_filter_remove(int kernel_ifindex, bool with_qdisc) {
    if (!trap_filter_exists(kernel_ifindex)) return 0;
    request r;
    begin(r, RTM_DELTFILTER, NLM_F_ACK, about_filter(kernel_ifindex));
    mnl_attr_put_strz(r.head, TCA_KIND, filter_kind);
    const int reason = unless_gone(order(r));
    if (reason != 0 || !with_qdisc) return reason;
    return unless_gone(remove_unused_qdisc(kernel_ifindex));
}

bool trap_filter_exists(int kernel_ifindex) {
    bool found = false;
    // A device that is gone or has no such place has no filter.
    (void)each_filter(kernel_ifindex, ingress, [&](const seen_filter &filter) { found = found || is_ours(filter); });
    return found;
}

bool trap_filter_has_own_qdisc(int kernel_ifindex) {
    bool own = false;
    (void)each_filter(kernel_ifindex, ingress, [&](const seen_filter &filter) {
        own = own || (is_ours(filter) && filter.class_id != others_mark);
    });
    return own;
}

}  // namespace ravo::platform

// SPDX-License-Identifier: Apache-2.0
// Surface: what the kernel tells of devices, bridges, VLANs and addresses: netlink messages, one behind the other as in
// a datagram, taken into the inventory's model.
//
// Contract: whatever the bytes, nothing outside a message is read. What a message is read as lies within its bounds,
// and with any row of them the model keeps its promises: a frame from any device with any tag ends at an interface that
// is there, or nowhere; what is listened on is there; and all of it read again as a whole is the same model.

#include <libmnl/libmnl.h>
#include <linux/if_addr.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <variant>
#include <vector>

#include "inventory/inventory_model.h"
#include "inventory/inventory_netlink.h"
#include "log/log.h"
#include "pieces.h"

namespace {

using namespace ravo::platform;

void require(bool condition, const char *what) {
    if (condition) return;
    std::fprintf(stderr, "netlink_fuzz: %s\n", what);
    std::abort();
}

void check(const device_seen &seen) {
    const device_record &device = seen.device;
    require(device.ifindex > 0, "a device without a number");
    require(!device.name.empty() && device.name.size() < IFNAMSIZ, "a name that no device can have");
    require(device.vlan_id <= 4094 && (device.vlan_id == 0 || device.kind == device_kind::vlan),
            "a VLAN of no VLAN device");
}

void check_ranges(const std::vector<vlan_range> &ranges) {
    for (const vlan_range &range : ranges) {
        require(range.first >= 1 && range.first <= range.last && range.last <= 4094, "a range of no VLANs");
        require(!range.pvid || range.first == range.last, "more than one VLAN for untagged frames");
    }
}

void check(const vlans_seen &seen) {
    check_ranges(seen.vlans);
}
void check(const vlans_added &added) {
    check_ranges(added.vlans);
}
void check(const vlans_removed &removed) {
    check_ranges(removed.vlans);
}
void check(const address_seen &seen) {
    require(seen.address.prefix_length <= 32, "a prefix longer than an address");
}
template <typename other>
void check(const other &) {}

void check_ends(const inventory_model &model, int ifindex) {
    constexpr std::uint16_t tags[] = {0, 1, 2, 10, 20, 4094, 4095};
    for (const std::uint16_t tag : tags) {
        ingress in;
        if (model_classify(model, ifindex, tag != 0, tag, &in) != ingress_result::ok) continue;
        require(in.vlan != 0 && in.vlan <= 4094, "a frame that ends in no VLAN");
        require(model_interface(model, in.vlan) != nullptr, "a frame that ends at no interface");
        require(in.port_ifindex != 0, "a frame from no port");
    }
}

void check_model(inventory_model *model) {
    (void)model_settle_taps(model);
    for (const auto &[ifindex, device] : model->devices) {
        require(device.record.ifindex == ifindex, "a device under another's number");
        check_ends(*model, ifindex);
        for (const std::uint16_t vlan : model_port_vlans(*model, device))
            require(model_interface(*model, vlan) != nullptr, "a VLAN without an interface");
    }
}

// A message as the reader gets it: whole, padded, and nothing behind it.
std::optional<inventory_change> read_message(const nlmsghdr *message) {
    const std::size_t size = NLMSG_ALIGN(message->nlmsg_len);
    const auto exact = std::make_unique<std::uint64_t[]>((size + 7) / 8);
    std::memcpy(exact.get(), message, message->nlmsg_len);
    return netlink_parse(reinterpret_cast<const nlmsghdr *>(exact.get()));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    static const bool quiet = !log_open("/dev/null", log_level_error);
    require(quiet, "no log");
    const auto datagram = std::make_unique<std::uint64_t[]>(size / 8 + 1);
    if (size != 0) std::memcpy(datagram.get(), data, size);
    inventory_model model;
    std::vector<inventory_change> all;
    int left = static_cast<int>(size);
    const auto *message = reinterpret_cast<const nlmsghdr *>(datagram.get());
    // The library takes a length beyond two thousand million for a good one; the kernel sends none.
    for (; mnl_nlmsg_ok(message, left) && message->nlmsg_len <= size; message = mnl_nlmsg_next(message, &left)) {
        const auto change = read_message(message);
        if (!change) continue;
        std::visit([](const auto &one) { check(one); }, *change);
        model_apply(&model, *change);
        all.push_back(*change);
    }
    check_model(&model);
    model_reconcile(&model, all);
    check_model(&model);
    return 0;
}

namespace {

using pieces::bytes;

// Cuts what stands there into pieces of the length that each says of itself at a place, in units of 4 bytes.
std::vector<bytes> cut(const bytes &from, std::size_t least, std::size_t length_bytes) {
    std::vector<bytes> row;
    for (std::size_t at = 0; at < from.size();) {
        std::size_t length = from.size() - at;
        std::uint32_t said = 0;
        std::memcpy(&said, &from[at], std::min(length_bytes, length));
        if (said >= least && said <= length) length = std::min<std::size_t>(NLMSG_ALIGN(said), length);
        row.emplace_back(from.begin() + static_cast<std::ptrdiff_t>(at),
                         from.begin() + static_cast<std::ptrdiff_t>(at + length));
        at += length;
    }
    return row;
}

void fix_length(bytes &piece, std::size_t least, std::size_t length_bytes) {
    piece.resize(std::max(piece.size(), least));
    const auto said = static_cast<std::uint32_t>(piece.size());
    std::memcpy(piece.data(), &said, length_bytes);
    piece.resize(NLMSG_ALIGN(piece.size()));
}

std::size_t body_of(const bytes &message) {
    std::uint16_t type = 0;
    std::memcpy(&type, &message[4], sizeof type);
    constexpr std::size_t bridge_vlan_size = 8;  // of br_vlan_msg, which not every kernel's headers have
    constexpr std::uint16_t new_vlan = 112, del_vlan = 113;
    if (type == new_vlan || type == del_vlan) return NLMSG_HDRLEN + bridge_vlan_size;
    const bool address = type == RTM_NEWADDR || type == RTM_DELADDR;
    return NLMSG_HDRLEN + (address ? sizeof(ifaddrmsg) : sizeof(ifinfomsg));
}

// Changes a message's attributes as attributes, or those inside one of them.
void change_attributes(bytes &message, pieces::dice &draw) {
    constexpr std::size_t head = 4;  // length and type
    const std::size_t body = body_of(message);
    if (message.size() <= body) return pieces::change_inside(message, 64);
    std::vector<bytes> row = cut(bytes(message.begin() + static_cast<std::ptrdiff_t>(body), message.end()), head, 2);
    const auto fix = [](bytes &piece) { fix_length(piece, head, 2); };
    bytes &one = row[draw.below(row.size())];
    if (draw.one_in(2) && one.size() > 2 * head) {
        std::vector<bytes> inner = cut(bytes(one.begin() + head, one.end()), head, 2);
        pieces::change(inner, draw, fix);
        one.resize(head);
        for (const bytes &piece : inner) one.insert(one.end(), piece.begin(), piece.end());
        fix(one);
    } else {
        pieces::change(row, draw, fix);
    }
    message.resize(body);
    for (const bytes &piece : row) message.insert(message.end(), piece.begin(), piece.end());
}

}  // namespace

// Messages are changed as messages and attributes as attributes, to two depths, and their lengths put right.
extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t *data, std::size_t size, std::size_t max_size,
                                               unsigned seed) {
    pieces::dice draw(seed);
    if (size < NLMSG_HDRLEN || draw.one_in(6)) return LLVMFuzzerMutate(data, size, max_size);
    std::vector<bytes> row = cut(bytes(data, data + size), NLMSG_HDRLEN, 4);
    const auto fix = [](bytes &piece) { fix_length(piece, NLMSG_HDRLEN, 4); };
    bytes &one = row[draw.below(row.size())];
    if (draw.one_in(3) || one.size() < NLMSG_HDRLEN) {
        pieces::change(row, draw, fix);
    } else {
        change_attributes(one, draw);
        fix(one);
    }
    return pieces::put(row, {}, data, max_size);
}

// SPDX-License-Identifier: Apache-2.0
// Changes are made by the commands that the relay has for its front ends, in sessions of their own; their result codes
// become the errors of SNMP. The command that adds a server sets the trust too, so it is given the trust that the
// picture has.
#include "writes.h"

#include <algorithm>
#include <string>
#include <vector>

namespace ravo::snmp {

namespace {

// The codes with which the relay refuses what the front ends want.
constexpr int refused_address = 302020;
constexpr int refused_no_ip = 302021;
constexpr int refused_exists = 302022;
constexpr int refused_full = 302023;
constexpr int refused_not_there = 302024;

constexpr std::int64_t save_idle = 1;
constexpr std::int64_t save_now = 2;

bool is_trusted(const picture &p, std::uint32_t ifindex) {
    return std::binary_search(p.trusted.begin(), p.trusted.end(), ifindex);
}

bool is_there(const picture &p, const write_target &target) {
    if (target.what == writable::trust_row) return is_trusted(p, target.ifindex);
    return std::binary_search(p.addresses.begin(), p.addresses.end(), address_row{target.ifindex, target.address});
}

bool has_interface(const picture &p, std::uint32_t ifindex) {
    return std::any_of(p.interfaces.begin(), p.interfaces.end(),
                       [&](const interface_row &row) { return row.ifindex == ifindex; });
}

verdict verdict_of(const client::reply &answer) {
    if (!answer.answered) return verdict::unavailable;
    switch (answer.result) {
        case 0:
            return verdict::good;
        case refused_address:
            return verdict::wrong_value;
        case refused_full:
            return verdict::full;
        case refused_exists:
        case refused_no_ip:
        case refused_not_there:
            return verdict::inconsistent_value;
        default:
            return verdict::failed;
    }
}

// The lines that make a row be there, or not.
std::vector<std::string> lines_for(const picture &p, const write_target &target, bool there) {
    const std::string name = interface_name(target.ifindex);
    const std::string set = "web set dhcp relay ifsettings " + name + " ";
    if (target.what == writable::trust_row) return {"configure terminal", set + (there ? "1" : "0")};
    const std::string server = address_text(target.address);
    // The command that adds a server sets the trust too: to what it is.
    if (there) return {"configure terminal", set + server + (is_trusted(p, target.ifindex) ? " 1" : " 0")};
    return {"configure terminal", "interface " + name, "no ip dhcp relay address " + server};
}

}  // namespace

verdict judge_value(const write_target &target, std::int64_t number) {
    if (target.what == writable::save)
        return number == save_now || number == save_idle ? verdict::good : verdict::wrong_value;
    // deliberate: a server 0.0.0.0 would be an empty place of the relay's table.
    if (target.what == writable::address_row && target.address == 0) return verdict::wrong_value;
    const bool known = number == row_active || number == row_create_and_go || number == row_destroy;
    return known ? verdict::good : verdict::wrong_value;
}

verdict judge_state(relay_source &relay, const write_target &target, std::int64_t number) {
    if (target.what == writable::save) return verdict::good;
    const picture &p = *source_of(relay).relay;
    for (const part wanted : {part::interfaces, part::addresses, part::trusted})
        if (!refresh(relay, wanted)) return verdict::unavailable;
    const bool there = is_there(p, target);
    if (number == row_create_and_go && there) return verdict::inconsistent_value;
    if (number == row_create_and_go && !has_interface(p, target.ifindex)) return verdict::no_creation;
    if (number == row_active && !there) return verdict::inconsistent_value;
    return verdict::good;
}

verdict do_write(relay_source &relay, const write_target &target, std::int64_t number, bool *done) {
    *done = false;
    if (target.what == writable::save)
        return number == save_now ? verdict_of(change(relay, {"write memory"})) : verdict::good;
    const picture &p = *source_of(relay).relay;
    const bool wanted = number != row_destroy;
    if (is_there(p, target) == wanted) return verdict::good;
    const verdict is = verdict_of(change(relay, lines_for(p, target, wanted)));
    *done = is == verdict::good;
    return is;
}

verdict undo_write(relay_source &relay, const write_target &target, std::int64_t number) {
    const picture &p = *source_of(relay).relay;
    return verdict_of(change(relay, lines_for(p, target, number == row_destroy)));
}

}  // namespace ravo::snmp

// Servers of an interface: its three tables, and sending a request to the servers that are meant.
//
// An interface has up to four plain servers, four chosen by the client's vendor class (option 60) and four by its
// client identifier (option 61). The table operations work on the caller's copy of the interface record; storing it is
// the caller's. A request goes to every server that its options choose; only when none is chosen it goes to the plain
// ones.
#include "ravo_if_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <optional>

#include "addr_text.h"
#include "osal.h"
#include "outcome.h"
#include "ravo_db.h"
#include "ravo_if_socket.h"
#include "trace.h"

namespace {

constexpr std::size_t compared_id_size = 4;  // bytes of a client identifier that count in a comparison
constexpr std::uint16_t server_port = 67;    // RFC 2131 section 4.1
constexpr std::uint32_t rule_exact = 0;
constexpr std::uint32_t rule_partial = 1;

// Traces of the steps of an operation bear the operation's name.
#define trace_as(function, level, format, ...) ravo_print(level, format, function, __LINE__ __VA_OPT__(, ) __VA_ARGS__)

// ---- Tables ----

const char *printable(const char *text) {
    return text != nullptr ? text : "(null)";
}
const char *name_of(const iface *iface) {
    return iface != nullptr ? iface->name : "(null)";
}
int ifindex_of(const iface *iface) {
    return iface != nullptr ? static_cast<int>(iface->ifindex) : 0;
}

// Reads a dotted address into network byte order.
std::optional<std::uint32_t> parse_address(const char *text) {
    in_addr address{};
    if (inet_aton(text, &address) == 0) return std::nullopt;
    return address.s_addr;
}

// Returns the index of the first entry that a test accepts, or -1.
template <typename Entry, typename Test>
int find_index(const Entry (&entries)[RAVO_SERVERS], Test test) {
    const auto *found = std::find_if(std::begin(entries), std::end(entries), test);
    return found == std::end(entries) ? -1 : static_cast<int>(found - std::begin(entries));
}

// deliberate: identifiers that differ only behind their fourth byte count as the same.
bool same_client_id(const std::uint8_t *first, const std::uint8_t *second) {
    return std::memcmp(first, second, compared_id_size) == 0;
}

std::uint32_t rule_of(const char *word) {
    return std::strcmp(word, "exact-match") == 0 ? rule_exact : rule_partial;
}

// A delete tells whether servers of some kind are left.
std::uint32_t first_non_zero(std::uint32_t first, std::uint32_t second, std::uint32_t third) {
    if (first != 0) return first;
    return second != 0 ? second : third;
}

std::uint8_t digit_value(char digit) {
    if (digit >= '0' && digit <= '9') return static_cast<std::uint8_t>(digit - '0');
    if (digit >= 'A' && digit <= 'F') return static_cast<std::uint8_t>(digit - 'A' + 10);
    if (digit >= 'a' && digit <= 'f') return static_cast<std::uint8_t>(digit - 'a' + 10);
    return 0;
}

}  // namespace

int ravo_if_find_server_host_by_ip(const iface *iface, std::uint32_t addr) {
    const int ret = find_index(iface->server_db, [addr](std::uint32_t server) { return server == addr; });
    ravo_trace(ravo::level_trace, "%s (%d): Find server ip %s, ret=%d\n", ravo_addr_text(addr).text, ret);
    return ret;
}

int ravo_if_find_option60_server_host_by_ip(const iface *iface, const char *vendor, std::uint32_t rule,
                                            std::uint32_t addr) {
    const int ret = find_index(iface->opt60_hosts, [=](const opt60_host &host) {
        return host.used != 0 && host.server == addr && host.match_rule == rule &&
               std::strcmp(host.vendor, vendor) == 0;
    });
    ravo_trace(ravo::level_trace, "%s (%d): Find server ip %s, ret=%d\n", ravo_addr_text(addr).text, ret);
    return ret;
}

int ravo_if_find_option61_server_host_by_ip(const iface *iface, const std::uint8_t *client_id, std::uint32_t addr) {
    const int ret = find_index(iface->opt61_hosts, [=](const opt61_host &host) {
        return host.used != 0 && host.server == addr && same_client_id(host.client_id, client_id);
    });
    ravo_trace(ravo::level_trace, "%s (%d): Find server ip %s, ret=%d\n", ravo_addr_text(addr).text, ret);
    return ret;
}

int ravo_if_find_first_unused_server_host(const iface *iface) {
    const int index = find_index(iface->server_db, [](std::uint32_t server) { return server == 0; });
    ravo_trace(ravo::level_trace, "%s (%d): array index =%d", index);
    return index;
}

int ravo_if_option60_find_first_unused_server_host(const iface *iface) {
    const int index = find_index(iface->opt60_hosts, [](const opt60_host &host) { return host.used == 0; });
    ravo_trace(ravo::level_trace, "%s (%d): array index =%d", index);
    return index;
}

int ravo_if_option61_find_first_unused_server_host(const iface *iface) {
    const int index = find_index(iface->opt61_hosts, [](const opt61_host &host) { return host.used == 0; });
    ravo_trace(ravo::level_trace, "%s (%d): array index =%d", index);
    return index;
}

std::uint32_t ravo_client_id_bytes(const char *digits, std::uint8_t *out, std::uint32_t size) {
    const std::size_t count = std::strlen(digits);
    std::size_t bytes = 0;
    std::uint8_t high = 0;
    bool pending = count % 2 != 0;  // an odd first digit is the low half of a byte of its own
    for (const char *digit = digits; *digit != '\0'; ++digit) {
        if (pending) {
            if (bytes < size) out[bytes] = static_cast<std::uint8_t>(high << 4 | digit_value(*digit));
            ++bytes;
            high = 0;
        } else {
            high = digit_value(*digit);
        }
        pending = !pending;
    }
    return static_cast<std::uint32_t>(bytes);
}

std::uint32_t RAVO_IF_Add_Server_Host(iface *iface, const char *ip_text) {
    ravo_trace(ravo::level_trace, "%s (%d): Add server %s to interface %s and ifindex=%d\n", printable(ip_text),
               name_of(iface), ifindex_of(iface));
    if (ip_text == nullptr) return RAVO_OK;
    const auto address = parse_address(ip_text);
    if (iface == nullptr || !address) return RAVO_ERR_SERVER_IP;
    if (ravo_if_find_server_host_by_ip(iface, *address) >= 0) return RAVO_ERR_SERVER_EXISTS;
    const int index = ravo_if_find_first_unused_server_host(iface);
    ravo_trace(ravo::level_trace, "%s (%d): interface %s find available index %d\n", iface->name, index);
    if (index < 0) return RAVO_ERR_SERVER_FULL;

    iface->server_db[index] = *address;
    ++iface->server_count;
    return RAVO_OK;
}

std::uint32_t RAVO_IF_Add_Option60_Server_Host(iface *iface, const char *vendor, std::uint32_t rule,
                                               const char *ip_text) {
    ravo_trace(ravo::level_trace,
               "%s (%d): Add server %s,vendor string %s,match rule %d to interface %s and ifindex=%d for option60\n",
               printable(ip_text), printable(vendor), static_cast<int>(rule), name_of(iface), ifindex_of(iface));
    if (ip_text == nullptr) return RAVO_OK;
    const auto address = parse_address(ip_text);
    if (iface == nullptr || !address) return RAVO_ERR_SERVER_IP;
    if (vendor == nullptr) vendor = "";
    if (ravo_if_find_option60_server_host_by_ip(iface, vendor, rule, *address) >= 0) return RAVO_ERR_SERVER_EXISTS;
    const int index = ravo_if_option60_find_first_unused_server_host(iface);
    ravo_trace(ravo::level_trace, "%s (%d): interface %s find available index %d\n", iface->name, index);
    if (index < 0) return RAVO_ERR_SERVER_FULL;

    opt60_host host{};
    host.used = 1;
    host.match_rule = rule;
    std::memcpy(host.vendor, vendor, strnlen(vendor, sizeof host.vendor - 1));
    host.server = *address;
    iface->opt60_hosts[index] = host;
    ++iface->opt60_count;
    return RAVO_OK;
}

std::uint32_t RAVO_IF_Add_Option61_Server_Host(iface *iface, const char *hex_text, const char *ip_text) {
    // deliberate: the line says option60, as it always did.
    ravo_trace(ravo::level_trace, "%s (%d): Add server %s,client-id %s to interface %s and ifindex=%d for option60\n",
               printable(ip_text), printable(hex_text), name_of(iface), ifindex_of(iface));
    opt61_host host{};
    const std::uint32_t bytes =
        hex_text == nullptr ? 0 : ravo_client_id_bytes(hex_text, host.client_id, sizeof host.client_id);
    if (ip_text == nullptr) return RAVO_OK;
    const auto address = parse_address(ip_text);
    if (iface == nullptr || !address) return RAVO_ERR_SERVER_IP;
    if (ravo_if_find_option61_server_host_by_ip(iface, host.client_id, *address) >= 0) return RAVO_ERR_SERVER_EXISTS;
    const int index = ravo_if_option61_find_first_unused_server_host(iface);
    ravo_trace(ravo::level_trace, "%s (%d): interface %s find available index %d\n", iface->name, index);
    if (index < 0) return RAVO_ERR_SERVER_FULL;

    host.used = 1;
    host.client_id_len = std::min(bytes, static_cast<std::uint32_t>(sizeof host.client_id));
    host.server = *address;
    iface->opt61_hosts[index] = host;
    ++iface->opt61_count;
    return RAVO_OK;
}

std::uint32_t ravo_if_del_server_host(iface *iface, const char *ip_text) {
    auto &servers = iface->server_db;
    if (ip_text == nullptr) {
        std::fill(std::begin(servers), std::end(servers), 0);
        iface->server_count = 0;
        return iface->opt60_count != 0 ? iface->opt60_count : iface->opt61_count;
    }
    const auto address = parse_address(ip_text);
    if (!address || *address == 0) return RAVO_ERR_NO_SERVER;  // 0 marks empty slots, it is nobody's address
    const int index = ravo_if_find_server_host_by_ip(iface, *address);
    if (index < 0) return RAVO_ERR_NO_SERVER;

    servers[index] = 0;
    --iface->server_count;
    for (int i = 0; i < RAVO_SERVERS - 1; ++i) {
        if (servers[i] != 0) continue;
        servers[i] = servers[i + 1];
        servers[i + 1] = 0;
    }
    return RAVO_OK;
}

std::uint32_t ravo_if_del_option60_server_host(iface *iface, const char *vendor, const char *rule_word,
                                               const char *ip_text) {
    std::optional<std::uint32_t> rule;
    if (rule_word != nullptr) rule = rule_of(rule_word);
    std::optional<std::uint32_t> address;
    if (ip_text != nullptr) {
        address = parse_address(ip_text);
        if (!address) return RAVO_ERR_NO_SERVER;
    }
    const bool all = vendor == nullptr && !rule && !address;
    for (opt60_host &host : iface->opt60_hosts) {
        const bool meant = host.used != 0 && (vendor == nullptr || std::strcmp(host.vendor, vendor) == 0) &&
                           (!rule || host.match_rule == *rule) && (!address || host.server == *address);
        if (!all && !meant) continue;
        host = {};
        if (!all) --iface->opt60_count;
    }
    if (all) iface->opt60_count = 0;
    return first_non_zero(iface->server_count, iface->opt61_count, iface->opt60_count);
}

std::uint32_t ravo_if_del_option61_server_host(iface *iface, const std::uint8_t *client_id, const char *ip_text) {
    std::optional<std::uint32_t> address;
    if (ip_text != nullptr) {
        address = parse_address(ip_text);
        if (!address) return RAVO_ERR_NO_SERVER;
    }
    if (client_id == nullptr && !address) {
        for (opt61_host &host : iface->opt61_hosts) host = {};
        iface->opt61_count = 0;
        return first_non_zero(iface->server_count, iface->opt60_count, 0);
    }
    for (opt61_host &host : iface->opt61_hosts) {
        const bool meant = host.used != 0 && (client_id == nullptr || same_client_id(host.client_id, client_id)) &&
                           (!address || host.server == *address);
        if (!meant) continue;
        host = {};
        --iface->opt61_count;
    }
    return first_non_zero(iface->server_count, iface->opt61_count, iface->opt60_count);
}

int RAVO_IF_Reset() {
    ravo_db_agent_reset();
    ravo_if_del_all_if();
    ravo_if_close_all_fd();
    return 0;
}

// ---- Forwarding ----

namespace {

constexpr const char *forwarding = "ravo_if_send_server_Unicast";

// A request on its way to its servers.
struct forwarded {
    const std::uint8_t *message;
    std::uint32_t length;
    bool attempted;  // a copy was sent or at least tried
    bool sent;       // a copy was sent
};

// Sends one copy to a server (network byte order). A failure is traced; the next server may still be reached.
void send_copy(forwarded &request, std::uint32_t server) {
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(server_port);
    to.sin_addr.s_addr = server;
    const ssize_t res = osal_sendto(ravo_server_sock_fd, request.message, request.length, 0,
                                    reinterpret_cast<const sockaddr *>(&to), sizeof to);
    const int error = errno;
    request.attempted = true;
    if (res > 0) {
        request.sent = true;
        outcome_server(server);
        return;
    }
    trace_as(forwarding, ravo::level_failure, "%s (%d): sock_fd=%d, sendmsg error %s\n", ravo_server_sock_fd,
             std::strerror(error));
    trace_as(forwarding, ravo::level_failure, "%s (%d): tx host %s, fd=%d, res=%d\n", ravo_addr_text(server).text,
             ravo_server_sock_fd, static_cast<int>(res));
}

bool vendor_matches(const opt60_host &host, const char *opt60_data) {
    if (host.match_rule == rule_exact) return std::strcmp(host.vendor, opt60_data) == 0;
    // deliberate: what the client sent is looked for in the configured text, not the other way round.
    return host.match_rule == rule_partial && std::strstr(host.vendor, opt60_data) != nullptr;
}

// Sends to every server chosen by vendor class. Returns whether there was one.
bool send_by_option60(forwarded &request, const iface *iface, const char *opt60_data) {
    bool chosen = false;
    for (const opt60_host &host : iface->opt60_hosts) {
        if (host.used == 0 || !vendor_matches(host, opt60_data)) continue;
        send_copy(request, host.server);
        chosen = true;
    }
    return chosen;
}

// Sends to every server chosen by client identifier. Returns whether there was one.
bool send_by_option61(forwarded &request, const iface *iface, const std::uint8_t *opt61_data) {
    bool chosen = false;
    for (const opt61_host &host : iface->opt61_hosts) {
        if (host.used == 0 || !same_client_id(host.client_id, opt61_data)) continue;
        send_copy(request, host.server);
        chosen = true;
    }
    return chosen;
}

void send_to_plain_servers(forwarded &request, const iface *iface) {
    for (int i = 0; i < RAVO_SERVERS; ++i) {
        if (iface->server_db[i] != 0)
            send_copy(request, iface->server_db[i]);
        else
            trace_as(forwarding, ravo::level_trace, "%s (%d): server_db[%d].s_addr==0\n", i);
    }
}

relay_outcome outcome_of(const forwarded &request) {
    if (request.sent) return OUTCOME_RELAYED;
    return request.attempted ? OUTCOME_SEND_FAILED : OUTCOME_NO_SERVER;
}

}  // namespace

int ravo_if_send_server_Unicast(const iface *iface, const std::uint8_t *message, std::uint32_t length,
                                const std::uint8_t *opt61_data, const char *opt60_data, std::uint32_t opt60_found,
                                std::uint32_t opt61_found, pkt_origin) {
    ravo_trace(ravo::level_trace, "%s (%d): interface=%s, number of configured server=%d\n", iface->name,
               static_cast<int>(iface->server_count));
    forwarded request{message, length, false, false};
    bool sent60 = false;
    bool sent61 = false;
    if (iface->opt60_count >= 1 && opt60_found == 1) sent60 = send_by_option60(request, iface, opt60_data);
    if (iface->opt61_count >= 1 && opt61_found == 1) sent61 = send_by_option61(request, iface, opt61_data);
    // Servers that were chosen stay the only ones, even when none of them could be reached.
    if (sent60 || sent61)
        ravo_trace(ravo::level_trace, "%s (%d):Packet already sent by option,60=%d,61=%d\n", sent60 ? 1 : 0,
                   sent61 ? 1 : 0);
    else
        send_to_plain_servers(request, iface);
    outcome_record(outcome_of(request));
    return 0;
}

// SPDX-License-Identifier: Apache-2.0
// Forwarding of requests: to every server that a request's options choose, and only when they choose none to the plain
// servers of its interface.
#include "ravo_if_forward.h"

#include <netinet/in.h>

#include <cerrno>
#include <cstring>

#include "addr_text.h"
#include "osal.h"
#include "outcome.h"
#include "ravo_if_server.h"
#include "ravo_if_state.h"
#include "trace.h"

namespace {

constexpr const char *forwarding = "ravo_if_send_server_Unicast";  // the procedure whose steps these are
constexpr std::uint16_t server_port = 67;                          // RFC 2131 section 4.1

// A request on its way to its servers.
struct forwarded {
    const std::uint8_t *message;
    std::uint32_t length;
    bool attempted;  // a copy was sent or at least tried
    bool sent;       // a copy was sent
};

// Traces a copy that was not sent. res: what the send returned.
void trace_failure(int fd, std::uint32_t server, int error, ssize_t res) {
    ravo_trace_as(forwarding, ravo::level_failure, "%s (%d): sock_fd=%d, sendmsg error %s\n", fd, std::strerror(error));
    ravo_trace_as(forwarding, ravo::level_failure, "%s (%d): tx host %s, fd=%d, res=%d\n", ravo_addr_text(server).text,
                  fd, static_cast<int>(res));
}

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
    trace_failure(ravo_server_sock_fd, server, error, res);
}

bool vendor_matches(const opt60_host &host, const char *opt60_data) {
    if (host.match_rule == RAVO_RULE_EXACT) return std::strcmp(host.vendor, opt60_data) == 0;
    // deliberate: what the client sent is looked for in the configured text, not the other way round.
    return host.match_rule == RAVO_RULE_PARTIAL && std::strstr(host.vendor, opt60_data) != nullptr;
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
        if (host.used == 0 || !ravo_same_client_id(host.client_id, opt61_data)) continue;
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
            ravo_trace_as(forwarding, ravo::level_trace, "%s (%d): server_db[%d].s_addr==0\n", i);
    }
}

relay_outcome outcome_of(const forwarded &request) {
    if (request.sent) return OUTCOME_RELAYED;
    return request.attempted ? OUTCOME_SEND_FAILED : OUTCOME_NO_SERVER;
}

}  // namespace

void ravo_if_server_refused(int fd, const sockaddr *to, int error) {
    sockaddr_in server;
    std::memcpy(&server, to, sizeof server);
    trace_failure(fd, server.sin_addr.s_addr, error, -1);
}

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

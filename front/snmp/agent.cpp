// SPDX-License-Identifier: Apache-2.0
// net-snmp's library speaks AgentX and calls us for each request; its own select loop, with descriptor sets of any
// size, is the loop of this program. Beside its descriptors the loop watches the links to the daemon, so that their end
// shows at once, and every few seconds looks whether a server has fallen silent.
#include "agent.h"

// The library's headers in the order that it wants them.
// clang-format off
#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>
#include <net-snmp/agent/net-snmp-agent-includes.h>
#include <net-snmp/agent/agent_callbacks.h>
#include <net-snmp/library/large_fd_set.h>
// clang-format on

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>

#include "master.h"
#include "notices.h"
#include "notify.h"
#include "objects.h"
#include "relay_source.h"
#include "writes.h"

namespace ravo::snmp {

namespace {

// Between two tries to reach a master agent, and between two checks whether it is still there.
constexpr int reconnect_seconds = 2;
constexpr std::chrono::seconds look_every{5};

// A set that was done in a request and may have to be undone.
struct done_write {
    write_target target;
    std::int64_t number;
};

// The library hands its callbacks no context that lives as long as the program: there is one agent.
struct agent {
    oid_text base;
    std::string base_text;
    bool connected = false;  // with the master agent
    relay_source_ptr relay;
    notices sent;
    std::map<netsnmp_request_info *, done_write> done;
};

agent &the_agent() {
    static agent one;
    return one;
}

volatile std::sig_atomic_t ending = 0;

void on_end(int /*number*/) {
    ending = 1;
}

// ---- Values ----

oid_text suffix_of(const netsnmp_variable_list &variable) {
    const std::size_t base = the_agent().base.size();
    if (variable.name_length <= base) return {};
    return {variable.name + base, variable.name + variable.name_length};
}

oid_text whole_name(const oid_text &suffix) {
    oid_text name = the_agent().base;
    name.insert(name.end(), suffix.begin(), suffix.end());
    return name;
}

u_char type_of(kind k) {
    switch (k) {
        case kind::integer:
            return ASN_INTEGER;
        case kind::gauge:
            return ASN_GAUGE;
        case kind::counter32:
            return ASN_COUNTER;
        case kind::counter64:
            return ASN_COUNTER64;
        case kind::text:
            return ASN_OCTET_STR;
        case kind::address:
            return ASN_IPADDRESS;
    }
    return ASN_NULL;
}

void put_value(netsnmp_variable_list *variable, const value &v) {
    const u_char type = type_of(v.kind);
    if (v.kind == kind::text) {
        snmp_set_var_typed_value(variable, type, v.text.data(), v.text.size());
    } else if (v.kind == kind::counter64) {
        const auto number = static_cast<std::uint64_t>(v.number);
        counter64 both{static_cast<u_long>(number >> 32), static_cast<u_long>(number & 0xFFFFFFFF)};
        snmp_set_var_typed_value(variable, type, &both, sizeof both);
    } else if (v.kind == kind::address) {
        const u_char bytes[4] = {static_cast<u_char>(v.number >> 24), static_cast<u_char>(v.number >> 16),
                                 static_cast<u_char>(v.number >> 8), static_cast<u_char>(v.number)};
        snmp_set_var_typed_value(variable, type, bytes, sizeof bytes);
    } else {
        const long number = static_cast<long>(v.number);
        snmp_set_var_typed_value(variable, type, &number, sizeof number);
    }
}

// ---- Reading ----

void serve_get(netsnmp_agent_request_info *info, netsnmp_request_info *request) {
    value v;
    switch (find_exact(source_of(*the_agent().relay), suffix_of(*request->requestvb), &v)) {
        case found::yes:
            put_value(request->requestvb, v);
            return;
        case found::no:
            netsnmp_set_request_error(info, request, SNMP_NOSUCHINSTANCE);
            return;
        case found::unavailable:
            netsnmp_set_request_error(info, request, SNMP_ERR_GENERR);
    }
}

void serve_next(netsnmp_agent_request_info *info, netsnmp_request_info *request) {
    instance next;
    switch (find_next(source_of(*the_agent().relay), suffix_of(*request->requestvb), &next)) {
        case found::yes: {
            const oid_text name = whole_name(next.name);
            snmp_set_var_objid(request->requestvb, name.data(), name.size());
            put_value(request->requestvb, next.value);
            return;
        }
        case found::no:  // the library goes on with what is registered behind
            return;
        case found::unavailable:
            netsnmp_set_request_error(info, request, SNMP_ERR_GENERR);
    }
}

// ---- Writing ----

int error_of(verdict v) {
    switch (v) {
        case verdict::good:
            return SNMP_ERR_NOERROR;
        case verdict::wrong_value:
            return SNMP_ERR_WRONGVALUE;
        case verdict::inconsistent_value:
            return SNMP_ERR_INCONSISTENTVALUE;
        case verdict::no_creation:
            return SNMP_ERR_NOCREATION;
        case verdict::full:
            return SNMP_ERR_RESOURCEUNAVAILABLE;
        case verdict::unavailable:
        case verdict::failed:
            return SNMP_ERR_COMMITFAILED;
    }
    return SNMP_ERR_GENERR;
}

// Judges what can be judged without the relay.
int reserve(const netsnmp_request_info &request, const write_target &target) {
    if (target.what == writable::nothing) {
        value v;
        const bool is = find_exact(source_of(*the_agent().relay), suffix_of(*request.requestvb), &v) == found::yes;
        return is ? SNMP_ERR_NOTWRITABLE : SNMP_ERR_NOCREATION;
    }
    const netsnmp_variable_list &given = *request.requestvb;
    if (given.type != ASN_INTEGER || given.val.integer == nullptr) return SNMP_ERR_WRONGTYPE;
    if (given.val_len != sizeof(long)) return SNMP_ERR_WRONGLENGTH;
    return error_of(judge_value(target, *given.val.integer));
}

int act(netsnmp_request_info *request, const write_target &target, std::int64_t number) {
    bool done = false;
    const verdict v = do_write(*the_agent().relay, target, number, &done);
    if (done) the_agent().done[request] = {target, number};
    return error_of(v);
}

int undo(netsnmp_request_info *request) {
    const auto found = the_agent().done.find(request);
    if (found == the_agent().done.end()) return SNMP_ERR_NOERROR;
    const done_write w = found->second;
    the_agent().done.erase(found);
    return undo_write(*the_agent().relay, w.target, w.number) == verdict::good ? SNMP_ERR_NOERROR : SNMP_ERR_UNDOFAILED;
}

int serve_set(int mode, netsnmp_request_info *request) {
    const write_target target = find_target(suffix_of(*request->requestvb));
    const bool number_there = request->requestvb->type == ASN_INTEGER && request->requestvb->val.integer != nullptr;
    const std::int64_t number = number_there ? *request->requestvb->val.integer : 0;
    switch (mode) {
        case MODE_SET_RESERVE1:
            return reserve(*request, target);
        case MODE_SET_RESERVE2: {
            const verdict v = judge_state(*the_agent().relay, target, number);
            return v == verdict::unavailable ? SNMP_ERR_RESOURCEUNAVAILABLE : error_of(v);
        }
        case MODE_SET_ACTION:
            return act(request, target, number);
        case MODE_SET_UNDO:
            return undo(request);
        default:  // committed, or freed before anything was done
            the_agent().done.erase(request);
            return SNMP_ERR_NOERROR;
    }
}

int on_request(netsnmp_mib_handler * /*handler*/, netsnmp_handler_registration * /*registration*/,
               netsnmp_agent_request_info *info, netsnmp_request_info *requests) {
    for (netsnmp_request_info *request = requests; request != nullptr; request = request->next) {
        if (request->processed != 0) continue;
        if (info->mode == MODE_GET) {
            serve_get(info, request);
        } else if (info->mode == MODE_GETNEXT) {
            serve_next(info, request);
        } else if (const int error = serve_set(info->mode, request); error != SNMP_ERR_NOERROR) {
            netsnmp_set_request_error(info, request, error);
            break;
        }
    }
    return SNMP_ERR_NOERROR;
}

// ---- Notifications ----

void add_variable(netsnmp_variable_list **list, const oid_text &name, const value &v) {
    snmp_varlist_add_variable(list, name.data(), name.size(), ASN_NULL, nullptr, 0);
    netsnmp_variable_list *last = *list;
    while (last->next_variable != nullptr) last = last->next_variable;
    put_value(last, v);
}

// A column of a server's row.
oid_text server_column(const server_row &row, unsigned long column) {
    oid_text name = {1, 8, 1, column, row.ifindex};
    for (int shift = 24; shift >= 0; shift -= 8) name.push_back(row.address >> shift & 0xFF);
    return whole_name(name);
}

void send_notice(const server_row &row, bool silent) {
    static const oid_text trap_name = {1, 3, 6, 1, 6, 3, 1, 1, 4, 1, 0};
    const oid_text kind_name = whole_name({0, silent ? 1UL : 2UL});
    netsnmp_variable_list *list = nullptr;
    snmp_varlist_add_variable(&list, trap_name.data(), trap_name.size(), ASN_OBJECT_ID, kind_name.data(),
                              kind_name.size() * sizeof(oid));
    add_variable(&list, server_column(row, 3), {kind::counter64, static_cast<std::int64_t>(row.requests), {}});
    add_variable(&list, server_column(row, 4), {kind::counter64, static_cast<std::int64_t>(row.replies), {}});
    if (silent) add_variable(&list, server_column(row, 7), {kind::gauge, row.silent_seconds, {}});
    send_v2trap(list);
    snmp_free_varbind(list);
    std::fprintf(stderr, "ravo-snmp: server %s of %s %s\n", address_text(row.address).c_str(),
                 interface_name(row.ifindex).c_str(), silent ? "is silent" : "is back");
}

void look() {
    agent &a = the_agent();
    if (refresh(*a.relay, part::servers)) look_at_servers(&a.sent, *source_of(*a.relay).relay, send_notice);
}

// ---- The loop ----

// Waits for the library's descriptors and the daemon's, and serves them.
void turn(std::chrono::microseconds most) {
    netsnmp_large_fd_set set;
    netsnmp_large_fd_set_init(&set, FD_SETSIZE);
    NETSNMP_LARGE_FD_ZERO(&set);
    int count = 0;
    int block = 0;
    timeval time{static_cast<time_t>(most.count() / 1000000), static_cast<suseconds_t>(most.count() % 1000000)};
    snmp_select_info2(&count, &set, &time, &block);
    relay_source &relay = *the_agent().relay;
    const auto links = descriptors_of(relay);
    for (const int fd : links) {
        if (fd < 0) continue;
        NETSNMP_LARGE_FD_SET(fd, &set);
        count = std::max(count, fd + 1);
    }
    const int ready = netsnmp_large_fd_set_select(count, &set, nullptr, nullptr, &time);
    bool daemon = false;
    for (const int fd : links) {
        if (fd < 0) continue;
        daemon = daemon || (ready > 0 && NETSNMP_LARGE_FD_ISSET(fd, &set) != 0);
        NETSNMP_LARGE_FD_CLR(fd, &set);
    }
    if (daemon) attend(relay);
    if (ready > 0)
        snmp_read2(&set);
    else
        snmp_timeout();
    netsnmp_large_fd_set_cleanup(&set);
    run_alarms();
    netsnmp_check_outstanding_agent_requests();
}

void loop() {
    using clock = std::chrono::steady_clock;
    auto next_look = clock::now();
    while (ending == 0) {
        if (clock::now() >= next_look) {
            look();
            next_look = clock::now() + look_every;
        }
        const auto left = std::chrono::duration_cast<std::chrono::microseconds>(next_look - clock::now());
        turn(std::max(std::chrono::microseconds(1000), left));
    }
}

// ---- Start ----

// The library is to read no files and write none: all that it needs to know is here.
void settle_library(const snmp_options &options) {
    setenv("MIBS", "", 1);  // it would read all modules of the system for names that nobody asks for here
    setenv("SNMPCONFPATH", "/nonexistent", 1);
    setenv("SNMP_PERSISTENT_DIR", "/nonexistent", 1);
    snmp_disable_log();
    netsnmp_register_loghandler(NETSNMP_LOGHANDLER_STDERR, LOG_ERR);  // who is there and who is not is reported below
    const auto flag = [](int store, int name) { netsnmp_ds_set_boolean(store, name, 1); };
    flag(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_ROLE);
    flag(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_READ_CONFIGS);
    flag(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_PERSIST_STATE);
    if (!options.agentx.empty())
        netsnmp_ds_set_string(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_X_SOCKET, options.agentx.c_str());
}

int on_connected(int /*major*/, int /*minor*/, void * /*theirs*/, void * /*ours*/) {
    the_agent().connected = true;
    std::fprintf(stderr, "ravo-snmp: snmpd asks for %s here\n", the_agent().base_text.c_str());
    client::notify_manager("STATUS=snmpd is there");
    return SNMPERR_SUCCESS;
}

int on_disconnected(int /*major*/, int /*minor*/, void * /*theirs*/, void * /*ours*/) {
    if (!the_agent().connected || ending != 0) return SNMPERR_SUCCESS;
    the_agent().connected = false;
    std::fputs("ravo-snmp: snmpd is gone; it is looked for every few seconds\n", stderr);
    client::notify_manager("STATUS=snmpd is gone");
    return SNMPERR_SUCCESS;
}

// The library has an interval of its own, and sets it when it likes: some versions in init_agent, some in init_snmp.
int set_interval(int /*major*/, int /*minor*/, void * /*theirs*/, void * /*ours*/) {
    netsnmp_ds_set_int(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_AGENTX_PING_INTERVAL, reconnect_seconds);
    return SNMPERR_SUCCESS;
}

// After init_agent.
void follow_master() {
    (void)set_interval(0, 0, nullptr, nullptr);
    netsnmp_register_callback(SNMP_CALLBACK_LIBRARY, SNMP_CALLBACK_POST_READ_CONFIG, set_interval, nullptr,
                              NETSNMP_CALLBACK_HIGHEST_PRIORITY);
    snmp_register_callback(SNMP_CALLBACK_APPLICATION, SNMPD_CALLBACK_INDEX_START, on_connected, nullptr);
    snmp_register_callback(SNMP_CALLBACK_APPLICATION, SNMPD_CALLBACK_INDEX_STOP, on_disconnected, nullptr);
}

// The library says nothing of use when it finds no master agent at its start.
void report_no_master(const snmp_options &options) {
    const std::string line = no_master_text(options.agentx);
    std::fprintf(stderr, "ravo-snmp: %s\n", line.c_str());
    client::notify_manager(("STATUS=" + line).c_str());
}

bool register_objects(const oid_text &base) {
    netsnmp_handler_registration *registration =
        netsnmp_create_handler_registration("ravo", on_request, base.data(), base.size(), HANDLER_CAN_RWRITE);
    return registration != nullptr && netsnmp_register_handler(registration) == MIB_REGISTERED_OK;
}

}  // namespace

int serve(const snmp_options &options) {
    struct sigaction end {};
    end.sa_handler = on_end;  // without SA_RESTART: it also ends a wait
    sigaction(SIGTERM, &end, nullptr);
    sigaction(SIGINT, &end, nullptr);
    (void)std::signal(SIGPIPE, SIG_IGN);
    settle_library(options);
    the_agent().base = options.base;
    the_agent().base_text = options.base_oid;
    the_agent().relay = relay_source_make(options.management);
    init_agent("ravo-snmp");
    follow_master();
    if (!register_objects(options.base)) {
        std::fprintf(stderr, "ravo-snmp: --base-oid %s: cannot be registered\n", options.base_oid.c_str());
        return 1;
    }
    init_snmp("ravo-snmp");
    client::notify_manager("READY=1");
    if (!the_agent().connected) report_no_master(options);
    loop();
    client::notify_manager("STOPPING=1");
    snmp_shutdown("ravo-snmp");
    shutdown_agent();
    the_agent().relay.reset();
    return 0;
}

}  // namespace ravo::snmp

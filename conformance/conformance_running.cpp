// SPDX-License-Identifier: Apache-2.0
// The promises that need an event loop, a network or sessions. What is tried is recorded by handlers and judged when
// the platform has had its time.
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "cli.h"
#include "if_utl.h"
#include "nsm.h"
#include "osal.h"
#include "ravo_conformance.h"
#include "report.h"

namespace {

using conformance::expect;

// ---- Readers ----

constexpr const char *adding = "OSAL_ZEBOS_Add_Read_Socket_Thread";
constexpr const char *deleting = "OSAL_ZEBOS_Delete_Read_Socket_Thread";

struct heard {
    void *handle = nullptr;
    int ends[2] = {-1, -1};
    int calls = 0;
    bool other_descriptor = false;
    bool deletes = false;  // itself, when it is called
};

void read_one(int fd, void *arg) {
    auto *me = static_cast<heard *>(arg);
    ++me->calls;
    me->other_descriptor = me->other_descriptor || fd != me->ends[0];
    char byte;
    if (read(me->ends[0], &byte, 1) != 1) return;
    if (me->deletes) OSAL_ZEBOS_Delete_Read_Socket_Thread(&me->handle);
}

bool open_reader(heard *me, const char *bytes) {
    if (pipe2(me->ends, O_NONBLOCK | O_CLOEXEC) != 0) return false;
    (void)!write(me->ends[1], bytes, std::strlen(bytes));
    const void *handle = OSAL_ZEBOS_Add_Read_Socket_Thread(&me->handle, "conformance", read_one, me->ends[0], 1, me);
    expect(handle != nullptr, adding, "gives no handle");
    expect(handle == me->handle, adding, "does not store the handle that it returns");
    return handle != nullptr;
}

void close_reader(heard *me) {
    if (me->handle != nullptr) {
        OSAL_ZEBOS_Delete_Read_Socket_Thread(&me->handle);
        expect(me->handle == nullptr, deleting, "does not store NULL in place of the handle");
    }
    for (const int fd : me->ends)
        if (fd >= 0) close(fd);
}

void try_readers(const ravo_conformance_driver &driver) {
    void *none = nullptr;
    OSAL_ZEBOS_Delete_Read_Socket_Thread(&none);
    heard patient, quiet, leaving, gone;
    leaving.deletes = true;
    if (open_reader(&patient, "abc") && open_reader(&quiet, "") && open_reader(&leaving, "abc") &&
        open_reader(&gone, "abc")) {
        OSAL_ZEBOS_Delete_Read_Socket_Thread(&gone.handle);
        driver.serve(200);
        expect(patient.calls >= 3, adding, "the handler is not called again while the descriptor stays readable");
        expect(patient.calls <= 3 && quiet.calls == 0, adding, "the handler is called while nothing is readable");
        expect(!patient.other_descriptor, adding, "the handler is given another descriptor");
        expect(leaving.calls == 1, deleting, "a reader that deletes itself is called again");
        expect(gone.calls == 0, deleting, "a deleted reader is called");
    }
    for (heard *each : {&patient, &quiet, &leaving, &gone}) close_reader(each);
}

// ---- Timers ----

constexpr const char *arming = "OSAL_ZEBOS_Create_Sec_Once_Timer";

struct due {
    osal_timer timer{};
    int fired = 0;
    bool was_armed = false;  // when it fired
    bool again = false;      // arms itself once more
};

void on_due(void *arg) {
    auto *me = static_cast<due *>(arg);
    ++me->fired;
    me->was_armed = me->was_armed || me->timer.armed != 0;
    if (me->again && me->fired == 1)
        (void)OSAL_ZEBOS_Create_Sec_Once_Timer(&me->timer, "conformance", on_due, 3600, 1, me);
}

void arm(due *timer, std::uint32_t seconds) {
    expect(OSAL_ZEBOS_Create_Sec_Once_Timer(&timer->timer, "conformance", on_due, seconds, 1, timer) == 0, arming,
           "refuses a timer");
}

void try_timers(const ravo_conformance_driver &driver) {
    due plain, later, sooner, deleted, again;
    again.again = true;
    for (due *each : {&plain, &deleted, &again}) arm(each, 1);
    arm(&later, 1);
    arm(&later, 3600);
    arm(&sooner, 3600);
    arm(&sooner, 1);
    OSAL_ZEBOS_Delete_Timer(&deleted.timer);
    driver.serve(300);
    expect(plain.fired == 0, arming, "a timer fires before its time");
    driver.serve(1700);
    expect(plain.fired == 1, arming, "a timer of one second does not fire once within two");
    expect(!plain.was_armed && plain.timer.armed == 0, arming,
           "the armed mark is not cleared before the callback runs");
    expect(later.fired == 0, arming, "a timer that was replaced fires");
    expect(sooner.fired == 1, arming, "a timer that replaces another does not fire at its own time");
    expect(deleted.fired == 0, "OSAL_ZEBOS_Delete_Timer", "a deleted timer fires");
    expect(again.fired == 1 && again.timer.armed != 0, arming, "cannot be armed again from its callback");
    for (due *each : {&plain, &later, &sooner, &deleted, &again}) OSAL_ZEBOS_Delete_Timer(&each->timer);
}

// ---- Sockets ----

// Tells of a call on a descriptor that there is none of: -1 and errno are wanted.
void expect_failure(bool failed, int error, const char *service) {
    expect(failed, service, "does not fail with -1 where there is no such descriptor");
    expect(error != 0, service, "fails without errno");
}

template <typename Call>
void expect_refusal(const char *service, Call call) {
    errno = 0;
    const bool failed = call() == -1;
    expect_failure(failed, errno, service);
}

void try_sockets() {
    constexpr int nobody = -1;
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    char byte = 0;
    auto *name = reinterpret_cast<sockaddr *>(&address);
    msghdr message{};
    expect_refusal("osal_close", [] { return osal_close(nobody); });
    expect_refusal("osal_recvfrom", [&] { return osal_recvfrom(nobody, &byte, 1, 0, name, &length); });
    expect_refusal("osal_sendto", [&] { return osal_sendto(nobody, &byte, 1, 0, name, sizeof(sockaddr)); });
    expect_refusal("osal_sendmsg", [&] { return osal_sendmsg(nobody, &message, 0); });
}

void try_channel() {
    const int fd = osal_socket(OSAL_AF_CHANNEL, SOCK_RAW, 0);
    expect(fd >= 0, "osal_socket", "does not open the channel");
    if (fd < 0) return;
    std::array<std::uint8_t, 2048> message;
    sockaddr_storage from{};
    socklen_t length = sizeof from;
    errno = 0;
    const ssize_t got =
        osal_recvfrom(fd, message.data(), message.size(), MSG_TRUNC, reinterpret_cast<sockaddr *>(&from), &length);
    expect(got == -1 && errno == EAGAIN, "osal_recvfrom", "an empty channel does not fail with EAGAIN");
    expect(osal_close(fd) == 0, "osal_close", "does not close the channel");
}

// ---- Commands ----

constexpr const char *installing = "cli_install_gen";

struct call {
    int times = 0;
    int mode = 0;
    bool prints = false;
    std::vector<std::string> words;
} called;

int note(struct cli *cli, int argc, char **argv) {
    ++called.times;
    called.mode = cli->mode;
    called.prints = cli->print != nullptr && cli->print(cli->print_handle, "%s", "") >= 0;
    called.words.assign(argv, argv + argc);
    return 0;
}

int refuse(struct cli *, int, char **) {
    return 7;
}

// Whether a line reaches its handler with these words.
bool reaches(const ravo_conformance_driver &driver, const char *line, const std::vector<std::string> &words) {
    called = {};
    return driver.command(CLI_MODE_CONFIGURATION, line) == 0 && called.times == 1 && called.words == words;
}

// Whether a line is refused, and reaches nobody.
bool refused(const ravo_conformance_driver &driver, const char *line) {
    called = {};
    return driver.command(CLI_MODE_CONFIGURATION, line) != 0 && called.times == 0;
}

void try_words(const ravo_conformance_driver &driver) {
    using words = std::vector<std::string>;
    expect(reaches(driver, "conformance plain", {}), installing, "a command of keywords alone is not run as it is");
    expect(called.mode == CLI_MODE_CONFIGURATION, installing, "a handler does not find the session's mode");
    expect(called.prints, installing, "a handler cannot print");
    expect(reaches(driver, "conformance number 16", words{"16"}), installing, "a number is not handed over as typed");
    expect(refused(driver, "conformance number 17"), installing, "a number out of its range is not refused");
    expect(refused(driver, "conformance number x"), installing, "a word in place of a number is not refused");
    expect(reaches(driver, "conformance address 192.0.2.1", words{"192.0.2.1"}), installing,
           "an address is not handed over as typed");
    expect(refused(driver, "conformance address 192.0.2.256"), installing, "what is no address is not refused");
    expect(reaches(driver, "conformance choice alpha", words{"alpha"}), installing, "a choice is not handed over");
    expect(refused(driver, "conformance choice gamma"), installing, "a word that is none of a choice is not refused");
    expect(reaches(driver, "conformance group", {}), installing, "a group that is left out leaves words behind");
    expect(reaches(driver, "conformance group key value", words{"key", "value"}), installing,
           "an optional group is not handed over as its keyword and its value");
    expect(reaches(driver, "conformance option beta", words{"beta"}), installing,
           "an optional choice is not handed over as the chosen word");
    expect(refused(driver, "conformance plain more"), installing, "a line with too many words is not refused");
    expect(driver.command(CLI_MODE_CONFIGURATION, "conformance fault") == 7, installing,
           "a handler's result is not handed on");
    expect(refused(driver, "conformance program"), installing,
           "a command above the session's privilege is not refused");
}

void try_commands(const ravo_conformance_driver &driver) {
    static const char *const two[] = {"help", "help", nullptr};
    static const char *const three[] = {"help", "help", "help", nullptr};
    static const char *const four[] = {"help", "help", "help", "help", nullptr};
    struct row {
        const char *text;
        cli_handler handler;
        int privilege;
        const char *const *help;
    };
    static constexpr row rows[] = {{"conformance plain ", note, 2, two},
                                   {"conformance number <1-16>", note, 2, three},
                                   {"conformance address A.B.C.D", note, 2, three},
                                   {"conformance choice {alpha|beta}", note, 2, four},
                                   {"conformance group [key WORD]", note, 2, four},
                                   {"conformance option [alpha|beta]", note, 2, four},
                                   {"conformance fault", refuse, 2, two},
                                   {"conformance program", note, 31, two}};
    static std::array<cli_element, std::size(rows)> elements{};
    bool taken = true;
    for (std::size_t i = 0; i < std::size(rows); ++i) {
        elements[i] = {rows[i].text, rows[i].handler, rows[i].help, {}};
        taken = cli_install_gen(driver.tree, CLI_MODE_CONFIGURATION, rows[i].privilege, 0, &elements[i]) == 0 && taken;
    }
    expect(taken, installing, "refuses a command");
    if (taken) try_words(driver);
    expect(cli_get_ifmode("vlan10") == CLI_MODE_INTERFACE, "cli_get_ifmode", "is not the mode of interfaces");
}

// ---- Hooks ----

struct events {
    const char *interface = nullptr;
    int up = 0;
    int gone = 0;
    bool vlan = true;     // each was of the type of VLANs, with a whole hardware address
    bool address = true;  // each that came up had an address, which knows it
    bool there = true;    // each was found by its name and its number, also while it went
} seen;

bool is_meant(const struct interface *ifp) {
    return std::strcmp(ifp->name, seen.interface) == 0;
}

void look_at(struct interface *ifp) {
    seen.vlan = seen.vlan && ifp->hw_type == NSM_IF_TYPE_VLAN && ifp->hw_addr_len == 6 &&
                ifp->ifindex == if_utl_ifname_to_ifindex(ifp->name);
    seen.there = seen.there && ifg_get_by_name(ifp->name) == ifp && ifg_lookup_by_index(ifp->ifindex) == ifp;
}

int on_up(struct interface *ifp) {
    if (!is_meant(ifp)) return 0;
    ++seen.up;
    look_at(ifp);
    seen.address = seen.address && ifp->ifc_ipv4 != nullptr && ifp->ifc_ipv4->ifp == ifp;
    return 0;
}

int on_gone(struct interface *ifp) {
    if (is_meant(ifp)) ++seen.gone;
    return 0;
}

bool in_the_list(const char *name) {
    for (const struct interface *ifp = ifg_first(); ifp != nullptr; ifp = ifg_next(ifp))
        if (std::strcmp(ifp->name, name) == 0) return true;
    return false;
}

void try_hooks(const ravo_conformance_driver &driver) {
    constexpr const char *hooks = "if_add_hook";
    seen = {};
    seen.interface = driver.interface;
    if_add_hook(NSM_IF_UP, on_up);
    if_add_hook(NSM_IF_DELETE, on_gone);
    driver.interface_up();
    driver.serve(200);
    expect(seen.up > 0, hooks, "an interface that comes up is not told");
    expect(seen.gone == 0, hooks, "an interface that comes up is told as deleted");
    expect(seen.vlan, hooks, "a VLAN interface comes up without its type, number or 6-byte hardware address");
    expect(seen.address, hooks, "an interface comes up without its address, or that does not know it");
    expect(seen.there, "ifg_get_by_name", "an interface of a hook is not found by its name and its number");
    expect(in_the_list(driver.interface), "ifg_first", "a walk does not meet an interface that is up");
    driver.interface_gone();
    driver.serve(200);
    expect(seen.gone == 1, hooks, "an interface that goes is not told once");
}

}  // namespace

int ravo_conformance_running(const ravo_conformance_driver *driver, ravo_conformance_fault fault) {
    conformance::begin(fault);
    if (driver->serve != nullptr) {
        try_readers(*driver);
        try_timers(*driver);
    }
    try_sockets();
    if (driver->channel != 0) try_channel();
    if (driver->tree != nullptr && driver->command != nullptr) try_commands(*driver);
    const bool moves = driver->interface_up != nullptr && driver->interface_gone != nullptr;
    if (driver->interface != nullptr && driver->serve != nullptr && moves) try_hooks(*driver);
    return conformance::faults();
}

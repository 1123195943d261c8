// SPDX-License-Identifier: Apache-2.0
// The conformance program against a small platform that keeps every promise but one: that one is named, and no other.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "cli.h"
#include "if_utl.h"
#include "memmgr.h"
#include "nsm.h"
#include "osal.h"
#include "ravo_conformance.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// What this platform does wrong, as one word; empty: nothing.
std::string wrong;

bool breaks(const char *what) {
    return wrong == what;
}

// ---- Readers and timers, on a clock of the test's own ----

struct reader {
    osal_read_handler handler;
    int fd;
    void *arg;
    bool again = true;
};
std::map<void *, reader> readers;

struct timer {
    osal_timer_callback callback;
    void *arg;
    std::uint64_t due;  // milliseconds
};
std::map<osal_timer *, timer> timers;
std::uint64_t now = 0;

bool readable(int fd) {
    fd_set set;
    FD_ZERO(&set);
    FD_SET(fd, &set);
    timeval none{};
    return select(fd + 1, &set, nullptr, nullptr, &none) == 1;
}

// One round over the readers. Returns whether somebody was called.
bool serve_readers() {
    bool served = false;
    std::vector<void *> handles;
    for (const auto &[handle, each] : readers) handles.push_back(handle);
    for (void *handle : handles) {
        const auto found = readers.find(handle);
        if (found == readers.end() || !found->second.again) continue;
        const reader each = found->second;
        if (!readable(each.fd)) continue;
        if (breaks("readers once")) found->second.again = false;
        each.handler(breaks("other descriptor") ? each.fd + 1 : each.fd, each.arg);
        served = true;
    }
    return served;
}

void fire_due() {
    for (auto at = timers.begin(); at != timers.end();) {
        if (at->second.due > now && !breaks("timers at once")) {
            ++at;
            continue;
        }
        const timer each = at->second;
        osal_timer *object = at->first;
        timers.erase(at);
        if (!breaks("mark stays")) object->armed = 0;
        if (!breaks("timers never")) each.callback(each.arg);
        at = timers.begin();
        if (breaks("timers at once")) break;
    }
}

void serve(std::uint32_t milliseconds) {
    if (breaks("called for nothing"))
        for (const auto &[handle, each] : std::map(readers)) each.handler(each.fd, each.arg);
    while (serve_readers()) continue;
    now += milliseconds;
    fire_due();
}

// ---- Commands: lines and the words that their handlers get ----

std::map<std::string, cli_handler> handlers;  // by text
std::map<std::string, int> privileges;

struct line {
    const char *text;
    std::vector<std::string> words;
};

const std::map<std::string, line> lines = {
    {"conformance plain", {"conformance plain ", {}}},
    {"conformance number 16", {"conformance number <1-16>", {"16"}}},
    {"conformance address 192.0.2.1", {"conformance address A.B.C.D", {"192.0.2.1"}}},
    {"conformance choice alpha", {"conformance choice {alpha|beta}", {"alpha"}}},
    {"conformance group", {"conformance group [key WORD]", {}}},
    {"conformance group key value", {"conformance group [key WORD]", {"key", "value"}}},
    {"conformance option beta", {"conformance option [alpha|beta]", {"beta"}}},
    {"conformance fault", {"conformance fault", {}}},
    {"conformance program", {"conformance program", {}}},
};

int print(void *, const char *, ...) {
    return breaks("no output") ? -1 : 0;
}

int command(int mode, const char *typed) {
    auto found = lines.find(typed);
    if (found == lines.end() && breaks("takes everything")) found = lines.find("conformance plain");
    if (found == lines.end()) return 1;
    const line &meant = found->second;
    if (privileges[meant.text] > 15 && !breaks("privilege")) return 1;
    std::vector<std::string> words = meant.words;
    if (breaks("group keyword") && words.size() == 2) words.erase(words.begin());
    if (breaks("numbers") && !words.empty() && words[0] == "16") words[0] = "0016";
    std::vector<char *> argv;
    for (std::string &word : words) argv.push_back(word.data());
    struct cli session {};
    session.print = print;
    session.mode = breaks("mode") ? CLI_MODE_EXEC : mode;
    const int result = handlers[meant.text](&session, static_cast<int>(argv.size()), argv.data());
    return breaks("results") ? 0 : result;
}

// ---- One interface ----

struct interface vlan10;
connected address_of_it;
bool there = false;
if_hook hooks[8];

void interface_up() {
    std::memcpy(vlan10.name, "vlan10", sizeof "vlan10");
    vlan10.ifindex = IF_UTL_VLAN_BASE + 10;
    vlan10.hw_type = NSM_IF_TYPE_VLAN;
    vlan10.hw_addr_len = breaks("hardware address") ? 0 : 6;
    address_of_it = {nullptr, breaks("address") ? nullptr : &vlan10, 0x010200c0, 24, 0};
    vlan10.ifc_ipv4 = &address_of_it;
    there = !breaks("lookup");
    if (!breaks("up")) hooks[NSM_IF_UP](&vlan10);
    there = true;
}

void interface_gone() {
    if (!breaks("delete")) hooks[NSM_IF_DELETE](&vlan10);
    there = false;
}

std::vector<std::string> found;

void note(const char *service, const char *what) {
    found.push_back(std::string(service) + ": " + what);
}

// What is found when this is wrong.
std::vector<std::string> faults_of(const char *what) {
    wrong = what;
    found.clear();
    readers.clear();
    timers.clear();
    ravo_conformance_driver driver{};
    driver.serve = serve;
    driver.command = command;
    driver.tree = reinterpret_cast<cli_tree *>(&handlers);
    driver.interface = "vlan10";
    driver.interface_up = interface_up;
    driver.interface_gone = interface_gone;
    driver.channel = 1;
    const int faults = ravo_conformance_running(&driver, note);
    EXPECT_EQ(faults, static_cast<int>(found.size()));
    wrong.clear();
    return found;
}

}  // namespace

void *OSAL_ZEBOS_Add_Read_Socket_Thread(void **handle, const char *, osal_read_handler handler, int fd, int,
                                        void *arg) {
    static std::uintptr_t next = 0;
    auto *made = reinterpret_cast<void *>(++next);
    readers[made] = {handler, fd, arg};
    if (!breaks("handle")) *handle = made;
    return made;
}

void OSAL_ZEBOS_Delete_Read_Socket_Thread(void **handle) {
    if (*handle == nullptr) return;
    if (!breaks("deleted readers")) readers.erase(*handle);
    if (!breaks("handle stays")) *handle = nullptr;
}

int OSAL_ZEBOS_Create_Sec_Once_Timer(osal_timer *timer, const char *, osal_timer_callback callback, uint32_t seconds,
                                     int, void *arg) {
    const bool kept = timers.contains(timer) && breaks("no replacing");
    if (!kept) timers[timer] = {callback, arg, now + 1000ULL * seconds};
    timer->armed = 1;
    return 0;
}

void OSAL_ZEBOS_Delete_Timer(osal_timer *timer) {
    if (!breaks("deleted timers")) timers.erase(timer);
    timer->armed = 0;
}

int osal_socket(int, int, int) {
    return breaks("channel") ? -1 : open("/dev/null", O_RDONLY | O_CLOEXEC);
}

int osal_close(int fd) {
    return breaks("close") ? 0 : close(fd);
}

ssize_t osal_recvfrom(int fd, void *, size_t, int, sockaddr *, socklen_t *) {
    errno = fd < 0 ? EBADF : EAGAIN;
    return fd >= 0 && breaks("empty channel") ? 0 : -1;
}

ssize_t osal_sendto(int, const void *, size_t, int, const sockaddr *, socklen_t) {
    errno = breaks("errno") ? 0 : EBADF;
    return -1;
}

ssize_t osal_sendmsg(int, const msghdr *, int) {
    errno = EBADF;
    return breaks("sendmsg") ? 0 : -1;
}

int cli_install_gen(cli_tree *, int, int privilege, uint32_t, cli_element *element) {
    if (breaks("install")) return -1;
    handlers[element->text] = element->handler;
    privileges[element->text] = privilege;
    return 0;
}

int cli_get_ifmode(const char *) {
    return breaks("interface mode") ? 0 : CLI_MODE_INTERFACE;
}

void if_add_hook(int event, if_hook hook) {
    hooks[event] = hook;
}

interface *ifg_get_by_name(const char *) {
    return there ? &vlan10 : nullptr;
}
interface *ifg_lookup_by_index(uint32_t) {
    return there ? &vlan10 : nullptr;
}
interface *ifg_first() {
    return there && !breaks("walk") ? &vlan10 : nullptr;
}
interface *ifg_next(const interface *) {
    return nullptr;
}
uint32_t if_utl_ifname_to_ifindex(const char *name) {
    return std::strcmp(name, "vlan10") == 0 ? IF_UTL_VLAN_BASE + 10 : 0;
}

namespace {

TEST(ConformanceFaults, PlatformInOrderHasNone) {
    EXPECT_THAT(faults_of(""), IsEmpty());
}

struct row {
    const char *wrong;
    std::vector<std::string> found;
};

void check(const std::vector<row> &rows) {
    for (const row &each : rows) EXPECT_EQ(faults_of(each.wrong), each.found) << each.wrong;
}

TEST(ConformanceFaults, OfReaders) {
    const std::string add = "OSAL_ZEBOS_Add_Read_Socket_Thread: ", remove = "OSAL_ZEBOS_Delete_Read_Socket_Thread: ";
    check({
        {"readers once", {add + "the handler is not called again while the descriptor stays readable"}},
        {"other descriptor", {add + "the handler is given another descriptor"}},
        {"called for nothing", {add + "the handler is called while nothing is readable"}},
        {"deleted readers",
         {remove + "a reader that deletes itself is called again", remove + "a deleted reader is called"}},
    });
    EXPECT_THAT(faults_of("handle"), testing::Contains(add + "does not store the handle that it returns"));
    EXPECT_THAT(faults_of("handle stays"), testing::Contains(remove + "does not store NULL in place of the handle"));
}

TEST(ConformanceFaults, OfTimers) {
    const std::string create = "OSAL_ZEBOS_Create_Sec_Once_Timer: ";
    check({
        {"mark stays", {create + "the armed mark is not cleared before the callback runs"}},
        {"deleted timers", {"OSAL_ZEBOS_Delete_Timer: a deleted timer fires"}},
        {"no replacing",
         {create + "a timer that was replaced fires",
          create + "a timer that replaces another does not fire at its own time"}},
        {"timers never",
         {create + "a timer of one second does not fire once within two",
          create + "a timer that replaces another does not fire at its own time",
          create + "cannot be armed again from its callback"}},
    });
    EXPECT_THAT(faults_of("timers at once"), testing::Contains(create + "a timer fires before its time"));
}

TEST(ConformanceFaults, OfSockets) {
    check({
        {"channel", {"osal_socket: does not open the channel"}},
        {"close",
         {"osal_close: does not fail with -1 where there is no such descriptor", "osal_close: fails without errno"}},
        {"empty channel", {"osal_recvfrom: an empty channel does not fail with EAGAIN"}},
        {"errno", {"osal_sendto: fails without errno"}},
        {"sendmsg", {"osal_sendmsg: does not fail with -1 where there is no such descriptor"}},
    });
}

TEST(ConformanceFaults, OfCommands) {
    const std::string gen = "cli_install_gen: ";
    check({
        {"install", {gen + "refuses a command"}},
        {"no output", {gen + "a handler cannot print"}},
        {"mode", {gen + "a handler does not find the session's mode"}},
        {"numbers", {gen + "a number is not handed over as typed"}},
        {"group keyword", {gen + "an optional group is not handed over as its keyword and its value"}},
        {"results", {gen + "a handler's result is not handed on"}},
        {"privilege", {gen + "a command above the session's privilege is not refused"}},
        {"takes everything",
         {gen + "a number out of its range is not refused", gen + "a word in place of a number is not refused",
          gen + "what is no address is not refused", gen + "a word that is none of a choice is not refused",
          gen + "a line with too many words is not refused"}},
        {"interface mode", {"cli_get_ifmode: is not the mode of interfaces"}},
    });
}

TEST(ConformanceFaults, OfHooks) {
    const std::string hook = "if_add_hook: ";
    check({
        {"up", {hook + "an interface that comes up is not told"}},
        {"delete", {hook + "an interface that goes is not told once"}},
        {"hardware address", {hook + "a VLAN interface comes up without its type, number or 6-byte hardware address"}},
        {"address", {hook + "an interface comes up without its address, or that does not know it"}},
        {"lookup", {"ifg_get_by_name: an interface of a hook is not found by its name and its number"}},
        {"walk", {"ifg_first: a walk does not meet an interface that is up"}},
    });
}

}  // namespace

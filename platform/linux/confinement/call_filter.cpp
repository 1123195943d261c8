// SPDX-License-Identifier: Apache-2.0
// The list has what the daemon, its libraries and glibc call, by their names: what a machine does not know of them is
// left out there. Where it matters the arguments are looked at too.
//
// A forbidden call raises SIGSYS in the thread that made it. The handler prints the call's name and makes the call
// fail, as it does for services that an init system filters: a relay that goes on without what it asked for is better
// than none, and whoever broke in gets no further. Names are noted beforehand, as the handler must not allocate.
#include "confinement/call_filter.h"

#include <linux/sockios.h>
#include <poll.h>
#include <sched.h>
#include <seccomp.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <ucontext.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace ravo::platform {

namespace {

// ---- What is allowed ----

constexpr const char *allowed[] = {
    // files that are open, and what is known of files
    "read",
    "readv",
    "pread64",
    "write",
    "writev",
    "pwrite64",
    "close",
    "close_range",
    "lseek",
    "_llseek",
    "fstat",
    "fstat64",
    "newfstatat",
    "fstatat64",
    "stat",
    "stat64",
    "lstat",
    "lstat64",
    "statx",
    "access",
    "faccessat",
    "faccessat2",
    "readlink",
    "readlinkat",
    "getdents64",
    "getcwd",
    "statfs",
    "fstatfs",
    "fcntl",
    "fcntl64",
    "flock",
    "dup",
    "dup2",
    "dup3",
    "pipe2",
    "fadvise64",
    // files that are made, changed and removed, where the rules for files let us
    "open",
    "openat",
    "openat2",
    "unlink",
    "unlinkat",
    "rename",
    "renameat",
    "renameat2",
    "mkdir",
    "mkdirat",
    "ftruncate",
    "ftruncate64",
    "fallocate",
    "fsync",
    "fdatasync",
    "chmod",
    "fchmod",
    "fchmodat",
    "chown",
    "fchown",
    "fchownat",
    "lchown",
    "setxattr",
    "fsetxattr",
    "umask",
    // sockets, of the families below
    "socketpair",
    "bind",
    "listen",
    "accept",
    "accept4",
    "connect",
    "shutdown",
    "getsockname",
    "getpeername",
    "getsockopt",
    "setsockopt",
    "sendto",
    "sendmsg",
    "sendmmsg",
    "recvfrom",
    "recvmsg",
    "recvmmsg",
    // waiting, and time
    "epoll_create1",
    "epoll_ctl",
    "epoll_wait",
    "epoll_pwait",
    "epoll_pwait2",
    "eventfd2",
    "timerfd_create",
    "timerfd_settime",
    "poll",
    "ppoll",
    "select",
    "pselect6",
    "clock_gettime",
    "clock_getres",
    "clock_nanosleep",
    "nanosleep",
    "gettimeofday",
    "time",
    "restart_syscall",
    // memory
    "munmap",
    "mremap",
    "madvise",
    "msync",
    "brk",
    "memfd_create",  // libbpf, before it asks the kernel for a map
    // threads and signals of our own, and the end
    "futex",
    "set_robust_list",
    "rseq",
    "set_tid_address",
    "sched_yield",
    "sched_getaffinity",
    "rt_sigaction",
    "rt_sigprocmask",
    "rt_sigreturn",
    "alarm",
    "setitimer",
    "sigreturn",
    "sigaltstack",
    "exit",
    "exit_group",
    "membarrier",
    // who and where we are
    "getpid",
    "getppid",
    "gettid",
    "getuid",
    "geteuid",
    "getgid",
    "getegid",
    "getresuid",
    "getresgid",
    "getgroups",
    "uname",
    "sysinfo",
    "getrusage",
    "times",
    "getrlimit",
    "ugetrlimit",
    "getrandom",
    "capget",
};

constexpr int families[] = {AF_UNIX, AF_INET, AF_NETLINK, AF_PACKET};

// Of devices, by number and name; how much waits in a socket; whether something is a terminal.
constexpr unsigned long requests[] = {SIOCGIFINDEX, SIOCGIFNAME, SIOCOUTQ, FIONREAD, FIONBIO, TCGETS};

constexpr int process_settings[] = {PR_SET_NAME,         PR_GET_NAME,      PR_CAPBSET_READ,
                                    PR_GET_NO_NEW_PRIVS, PR_SET_PDEATHSIG, PR_GET_PDEATHSIG};

// ---- What is forbidden ----

constexpr std::size_t calls_known = 512;
constexpr std::size_t name_room = 32;

std::array<std::array<char, name_room>, calls_known> names;
std::array<std::atomic<bool>, calls_known> told;

void note_names() {
    for (std::size_t number = 0; number < calls_known; ++number) {
        const std::unique_ptr<char, decltype(&std::free)> name(
            seccomp_syscall_resolve_num_arch(SCMP_ARCH_NATIVE, static_cast<int>(number)), &std::free);
        if (name != nullptr) std::strncpy(names[number].data(), name.get(), name_room - 1);
    }
}

// Digits of a number; returns how many.
std::size_t put_number(unsigned number, char *out) {
    char reversed[10];
    std::size_t count = 0;
    do reversed[count++] = static_cast<char>('0' + number % 10);
    while ((number /= 10) != 0);
    for (std::size_t i = 0; i < count; ++i) out[i] = reversed[count - 1 - i];
    return count;
}

void tell(unsigned number) {
    if (number < calls_known && told[number].exchange(true)) return;
    char line[call_forbidden_text.size() + name_room + 16];
    std::size_t length = call_forbidden_text.copy(line, call_forbidden_text.size());
    if (number < calls_known && names[number][0] != '\0') {
        const std::size_t size = std::strlen(names[number].data());
        std::memcpy(line + length, names[number].data(), size);
        length += size;
    } else {
        length += put_number(number, line + length);
    }
    line[length++] = '\n';
    // Whoever reads standard error may hang: then the line is lost.
    pollfd out{.fd = STDERR_FILENO, .events = POLLOUT, .revents = 0};
    if (poll(&out, 1, 0) == 1) (void)!write(STDERR_FILENO, line, length);
}

// Where the kernel expects a call's result when the handler returns.
void give_result(ucontext_t *context, long result) {
#if defined(__x86_64__)
    context->uc_mcontext.gregs[REG_RAX] = result;
#elif defined(__aarch64__)
    context->uc_mcontext.regs[0] = static_cast<unsigned long long>(result);
#else
    (void)context;
    (void)result;
#endif
}

constexpr bool can_give_result =
#if defined(__x86_64__) || defined(__aarch64__)
    true;
#else
    false;
#endif

void on_forbidden_call(int /*signo*/, siginfo_t *info, void *context) {
    const int error = errno;
    tell(static_cast<unsigned>(info->si_syscall));
    give_result(static_cast<ucontext_t *>(context), -EPERM);
    errno = error;
}

int catch_forbidden_calls() {
    struct sigaction action {};
    action.sa_sigaction = on_forbidden_call;
    action.sa_flags = SA_SIGINFO;
    return sigaction(SIGSYS, &action, nullptr) == 0 ? 0 : errno;
}

// ---- The filter ----

struct filter_release {
    void operator()(void *filter) const { seccomp_release(filter); }
};
using filter_ptr = std::unique_ptr<void, filter_release>;

// A rule that cannot be added is the first failure; the result is negative errno.
struct rules {
    scmp_filter_ctx filter;
    int failed = 0;
};

void add(rules &r, std::uint32_t action, const char *name, std::initializer_list<scmp_arg_cmp> arguments = {}) {
    const int number = seccomp_syscall_resolve_name(name);
    if (number == __NR_SCMP_ERROR) return;  // younger than the library
    const int result =
        seccomp_rule_add_array(r.filter, action, number, static_cast<unsigned>(arguments.size()), arguments.begin());
    if (result != 0 && r.failed == 0) r.failed = result;
}

scmp_arg_cmp equals(unsigned argument, std::uint64_t value) {
    constexpr scmp_datum_t low_half = 0xFFFFFFFF;  // of an int the register's upper half means nothing
    return {argument, SCMP_CMP_MASKED_EQ, low_half, value & low_half};
}

scmp_arg_cmp bits(unsigned argument, std::uint64_t mask, std::uint64_t value) {
    return {argument, SCMP_CMP_MASKED_EQ, mask, value};
}

void add_memory(rules &r) {
    constexpr std::uint64_t both = PROT_WRITE | PROT_EXEC;
    for (const char *name : {"mmap", "mmap2"})
        for (const std::uint64_t one : {0, PROT_WRITE, PROT_EXEC}) add(r, SCMP_ACT_ALLOW, name, {bits(2, both, one)});
    add(r, SCMP_ACT_ALLOW, "mprotect", {bits(2, PROT_EXEC, 0)});
}

void add_threads(rules &r) {
    add(r, SCMP_ACT_ALLOW, "clone", {bits(0, CLONE_THREAD, CLONE_THREAD)});
    // Its arguments cannot be looked at; glibc then uses the older call.
    add(r, SCMP_ACT_ERRNO(ENOSYS), "clone3");
    add(r, SCMP_ACT_ALLOW, "tgkill", {equals(0, static_cast<std::uint64_t>(getpid()))});
}

void add_all(rules &r, bool bpf) {
    for (const char *name : allowed) add(r, SCMP_ACT_ALLOW, name);
    for (const int family : families) add(r, SCMP_ACT_ALLOW, "socket", {equals(0, static_cast<unsigned>(family))});
    for (const unsigned long request : requests) add(r, SCMP_ACT_ALLOW, "ioctl", {equals(1, request)});
    for (const int setting : process_settings)
        add(r, SCMP_ACT_ALLOW, "prctl", {equals(0, static_cast<unsigned>(setting))});
    // Limits may be asked for, of this process, and not be set.
    add(r, SCMP_ACT_ALLOW, "prlimit64", {equals(0, 0), bits(2, ~std::uint64_t{0}, 0)});
    add_memory(r);
    add_threads(r);
    if (bpf) add(r, SCMP_ACT_ALLOW, "bpf");
}

fault failure(int reason) {
    return {std::string("cannot filter its system calls: ") + std::strerror(reason)};
}

}  // namespace

fault call_filter_install(bool bpf) {
    note_names();
    if (const int reason = catch_forbidden_calls(); reason != 0) return failure(reason);
    const filter_ptr filter(seccomp_init(can_give_result ? SCMP_ACT_TRAP : SCMP_ACT_ERRNO(EPERM)));
    if (filter == nullptr) return failure(ENOMEM);
    rules r{.filter = filter.get()};
    add_all(r, bpf);
    if (r.failed != 0) return failure(-r.failed);
    (void)seccomp_attr_set(filter.get(), SCMP_FLTATR_CTL_TSYNC, 1);     // a kernel without has no threads of ours yet
    (void)seccomp_attr_set(filter.get(), SCMP_FLTATR_CTL_OPTIMIZE, 2);  // a tree instead of a row of comparisons
    const int result = seccomp_load(filter.get());
    return result == 0 ? fault{} : failure(-result);
}

}  // namespace ravo::platform

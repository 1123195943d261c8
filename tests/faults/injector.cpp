// SPDX-License-Identifier: Apache-2.0
// Loaded before the C library into a daemon under test: notes from which places system calls are made, and lets one
// call of one place fail.
//
// A place is a program or library and the offset behind the call in it. Places and orders are in a file that is shared
// with the test (RAVO_FAULT_TABLE; its layout is read by table.py), so that nothing here takes a system call of its
// own: the daemon filters them. Whether a place has its turn is decided when the call comes: the phase of the daemon's
// life that the test has put down must have been reached, and only the first call from then on fails.
#include <dlfcn.h>
#include <fcntl.h>
#include <link.h>
#include <sys/mman.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

constexpr std::size_t most_places = 4096;

struct place {
    std::atomic<std::uint64_t> key;  // 0: none
    std::uint64_t offset;
    char function[24];
    char module[32];
    std::atomic<std::uint32_t> calls[2];  // before, and from the second phase on
};

struct fault_table {
    std::atomic<std::uint32_t> phase;  // of the daemon's life: 0, then 1
    std::uint32_t wanted_phase;
    std::uint64_t wanted_offset;
    char wanted_module[32];
    std::int32_t error;
    std::atomic<std::uint32_t> fired;
    place places[most_places];
};

static_assert(offsetof(fault_table, places) == 56 && sizeof(place) == 80, "table.py reads it");

fault_table *table = nullptr;

[[gnu::constructor]] void open_table() {
    const char *path = std::getenv("RAVO_FAULT_TABLE");
    if (path == nullptr) return;
    // The real ones: those of this file would look into the table.
    using open_call = int (*)(const char *, int, ...);
    using map_call = void *(*)(void *, std::size_t, int, int, int, long);
    const int fd = reinterpret_cast<open_call>(dlsym(RTLD_NEXT, "open"))(path, O_RDWR | O_CLOEXEC);
    if (fd < 0) std::abort();
    void *const start = reinterpret_cast<map_call>(dlsym(RTLD_NEXT, "mmap"))(nullptr, sizeof(fault_table),
                                                                             PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (start == MAP_FAILED) std::abort();
    reinterpret_cast<int (*)(int)>(dlsym(RTLD_NEXT, "close"))(fd);
    table = static_cast<fault_table *>(start);
}

struct caller {
    const char *module = nullptr;  // the last part of its path, "" for the program itself
    std::uint64_t offset = 0;
};

// May be asked for in a handler of a signal, and takes no lock.
caller caller_of(void *address) {
    dl_find_object found;
    if (_dl_find_object(address, &found) != 0) return {};
    const char *path = found.dlfo_link_map->l_name;
    const char *slash = std::strrchr(path, '/');
    return {slash == nullptr ? path : slash + 1,
            reinterpret_cast<std::uint64_t>(address) - found.dlfo_link_map->l_addr};
}

bool starts_with(const char *text, const char *beginning) {
    return std::strncmp(text, beginning, std::strlen(beginning)) == 0;
}

// The C library and what watches over memory call themselves.
bool counts(const char *module) {
    for (const char *other : {"libc.so", "ld-linux", "libasan", "libubsan", "libgcc_s", "linux-vdso"})
        if (starts_with(module, other)) return false;
    return true;
}

std::uint64_t key_of(const caller &from) {
    std::uint64_t key = 14695981039346656037u;
    for (const char *at = from.module; *at != '\0'; ++at)
        key = (key ^ static_cast<unsigned char>(*at)) * 1099511628211u;
    return (key ^ from.offset) * 1099511628211u | 1u;
}

void note(const caller &from, const char *function) {
    const std::uint64_t key = key_of(from);
    for (std::size_t i = 0; i < most_places; ++i) {
        place &here = table->places[(key + i) % most_places];
        std::uint64_t none = 0;
        if (here.key.compare_exchange_strong(none, key)) {
            here.offset = from.offset;
            std::strncpy(here.function, function, sizeof here.function - 1);
            std::strncpy(here.module, from.module, sizeof here.module - 1);
            none = key;
        }
        if (none != key) continue;
        ++here.calls[table->phase == 0 ? 0 : 1];
        return;
    }
}

// Returns the number of the error with which this call is to fail, 0 to let it pass.
int order(const char *function, void *return_address) {
    if (table == nullptr) return 0;
    const int before = errno;
    const caller from = caller_of(return_address);
    if (from.module == nullptr || !counts(from.module)) return 0;
    note(from, function);
    errno = before;
    if (table->error == 0 || table->phase < table->wanted_phase || from.offset != table->wanted_offset ||
        std::strcmp(from.module, table->wanted_module) != 0 || table->fired.exchange(1) != 0)
        return 0;
    return table->error;
}

// How a call reports that it failed.
enum class failing { minus_one, null, number, after };

long failed(failing how, int error) {
    if (how == failing::number) return error;
    errno = error;
    return how == failing::null ? 0 : -1;
}

using any_call = long (*)(long, long, long, long, long, long, long);

}  // namespace

// All arguments of these calls are whole numbers and addresses, which go the same way whatever their types are.
#define STAND_IN(name, how)                                                                   \
    extern "C" long name##_stand_in(long, long, long, long, long, long, long) __asm__(#name); \
    extern "C" long name##_stand_in(long a, long b, long c, long d, long e, long f, long g) { \
        static const auto real = reinterpret_cast<any_call>(dlsym(RTLD_NEXT, #name));         \
        const int error = order(#name, __builtin_return_address(0));                          \
        if (error == 0) return real(a, b, c, d, e, f, g);                                     \
        if (failing::how == failing::after) (void)real(a, b, c, d, e, f, g);                  \
        return failed(failing::how, error);                                                   \
    }

STAND_IN(accept, minus_one)
STAND_IN(accept4, minus_one)
STAND_IN(access, minus_one)
STAND_IN(bind, minus_one)
STAND_IN(chmod, minus_one)
STAND_IN(chown, minus_one)
STAND_IN(connect, minus_one)
STAND_IN(dup2, minus_one)
STAND_IN(epoll_create1, minus_one)
STAND_IN(epoll_ctl, minus_one)
STAND_IN(epoll_wait, minus_one)
STAND_IN(eventfd, minus_one)
STAND_IN(execv, minus_one)
STAND_IN(fchmod, minus_one)
STAND_IN(fchown, minus_one)
STAND_IN(fcntl, minus_one)
STAND_IN(flock, minus_one)
STAND_IN(fork, minus_one)
STAND_IN(fstat, minus_one)
STAND_IN(fstat64, minus_one)
STAND_IN(fsync, minus_one)
STAND_IN(ftruncate, minus_one)
STAND_IN(getgrouplist, minus_one)
STAND_IN(getpeername, minus_one)
STAND_IN(getrandom, minus_one)
STAND_IN(getrlimit, minus_one)
STAND_IN(getsockname, minus_one)
STAND_IN(getsockopt, minus_one)
STAND_IN(ioctl, minus_one)
STAND_IN(kill, minus_one)
STAND_IN(listen, minus_one)
STAND_IN(lseek, minus_one)
STAND_IN(lseek64, minus_one)
STAND_IN(lstat, minus_one)
STAND_IN(lstat64, minus_one)
STAND_IN(madvise, minus_one)
STAND_IN(mkdir, minus_one)
STAND_IN(mmap, minus_one)
STAND_IN(mmap64, minus_one)
STAND_IN(mprotect, minus_one)
STAND_IN(munmap, minus_one)
STAND_IN(nanosleep, minus_one)
STAND_IN(open, minus_one)
STAND_IN(open64, minus_one)
STAND_IN(openat, minus_one)
STAND_IN(pipe2, minus_one)
STAND_IN(poll, minus_one)
STAND_IN(prctl, minus_one)
STAND_IN(pread, minus_one)
STAND_IN(pread64, minus_one)
STAND_IN(pwrite, minus_one)
STAND_IN(pwrite64, minus_one)
STAND_IN(read, minus_one)
STAND_IN(readlink, minus_one)
STAND_IN(readv, minus_one)
STAND_IN(recv, minus_one)
STAND_IN(recvfrom, minus_one)
STAND_IN(recvmmsg, minus_one)
STAND_IN(recvmsg, minus_one)
STAND_IN(rename, minus_one)
STAND_IN(send, minus_one)
STAND_IN(sendmmsg, minus_one)
STAND_IN(sendmsg, minus_one)
STAND_IN(sendto, minus_one)
STAND_IN(setenv, minus_one)
STAND_IN(setgroups, minus_one)
STAND_IN(setresgid, minus_one)
STAND_IN(setresuid, minus_one)
STAND_IN(setrlimit, minus_one)
STAND_IN(setsockopt, minus_one)
STAND_IN(setxattr, minus_one)
STAND_IN(sigaction, minus_one)
STAND_IN(sigaltstack, minus_one)
STAND_IN(signal, minus_one)
STAND_IN(sigtimedwait, minus_one)
STAND_IN(signalfd, minus_one)
STAND_IN(socket, minus_one)
STAND_IN(socketpair, minus_one)
STAND_IN(stat, minus_one)
STAND_IN(stat64, minus_one)
STAND_IN(syscall, minus_one)
STAND_IN(timerfd_create, minus_one)
STAND_IN(timerfd_settime, minus_one)
STAND_IN(unlink, minus_one)
STAND_IN(unsetenv, minus_one)
STAND_IN(waitpid, minus_one)
STAND_IN(write, minus_one)
STAND_IN(writev, minus_one)

STAND_IN(fopen, null)
STAND_IN(fopen64, null)
STAND_IN(getgrnam, null)
STAND_IN(getpwnam, null)
STAND_IN(if_nameindex, null)
STAND_IN(opendir, null)
STAND_IN(readdir, null)
STAND_IN(readdir64, null)
STAND_IN(realpath, null)

STAND_IN(clock_nanosleep, number)
STAND_IN(getgrnam_r, number)
STAND_IN(getpwuid_r, number)
STAND_IN(posix_fallocate, number)

// These have given away what they closed, also when they fail.
STAND_IN(close, after)
STAND_IN(closedir, after)

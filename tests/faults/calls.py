# SPDX-License-Identifier: Apache-2.0
"""Which of the C library's functions are system calls that may fail, and how.

Every function that the daemon takes from the C library is in FAULTS or in PLAIN; `sites` says when one is in neither.
"""

import re
from errno import (EACCES, EAGAIN, EBUSY, EINTR, EINVAL, EIO, EMFILE, ENFILE, ENOBUFS, ENOENT, ENOMEM, ENOSPC,
                   EPERM)
from pathlib import Path

# The errors that a call may meet on a machine where something is wrong; the first one is the likeliest.
_FILES = {"open": (EMFILE, EACCES), "openat": (EMFILE, EACCES), "open64": (EMFILE, EACCES), "fopen": (EMFILE,),
          "fopen64": (EMFILE,), "opendir": (EMFILE,), "readdir": (EIO,), "readdir64": (EIO,), "closedir": (EIO,),
          "read": (EIO, EINTR, EAGAIN), "pread": (EIO, EINTR), "pread64": (EIO, EINTR), "readv": (EIO, EINTR, EAGAIN),
          "write": (ENOSPC, EINTR, EAGAIN), "pwrite": (ENOSPC, EINTR), "pwrite64": (ENOSPC, EINTR),
          "writev": (EIO, EINTR, EAGAIN), "close": (EIO,), "fsync": (EIO,), "ftruncate": (ENOSPC,),
          "posix_fallocate": (ENOSPC, EINTR), "flock": (EAGAIN, EINTR), "lseek": (EIO,), "lseek64": (EIO,),
          "access": (EACCES,), "fstat": (EIO,), "fstat64": (EIO,), "stat": (EACCES,), "stat64": (EACCES,),
          "lstat": (EACCES,), "lstat64": (EACCES,), "readlink": (EACCES,), "realpath": (EACCES,), "chmod": (EPERM,),
          "fchmod": (EPERM,), "chown": (EPERM,), "fchown": (EPERM,), "unlink": (EACCES,), "rename": (ENOSPC,),
          "mkdir": (ENOSPC,), "setxattr": (EPERM,), "fcntl": (EINVAL,), "dup2": (EBUSY,), "pipe2": (EMFILE,),
          "ioctl": (EPERM,)}
_SOCKETS = {"socket": (EMFILE, EACCES), "socketpair": (EMFILE,), "bind": (ENOMEM, EACCES), "listen": (EINVAL,),
            "accept": (EMFILE, EINTR), "accept4": (EMFILE, EINTR, EAGAIN), "connect": (EACCES, EINTR),
            "setsockopt": (ENOBUFS,), "getsockopt": (ENOBUFS,), "getsockname": (ENOBUFS,), "getpeername": (ENOBUFS,),
            "send": (ENOBUFS, EINTR, EAGAIN), "sendto": (ENOBUFS, EINTR, EAGAIN, EPERM),
            "sendmsg": (ENOBUFS, EINTR, EAGAIN), "sendmmsg": (ENOBUFS, EINTR, EAGAIN),
            "recv": (ENOMEM, EINTR, EAGAIN), "recvfrom": (ENOMEM, EINTR, EAGAIN),
            "recvmsg": (ENOBUFS, EINTR, EAGAIN), "recvmmsg": (ENOMEM, EINTR, EAGAIN), "if_nameindex": (ENOBUFS,)}
_WAITING = {"poll": (ENOMEM, EINTR), "epoll_create1": (EMFILE,), "epoll_ctl": (ENOMEM,), "epoll_wait": (EINTR,),
            "eventfd": (EMFILE,), "timerfd_create": (EMFILE,), "timerfd_settime": (EINVAL,), "nanosleep": (EINTR,),
            "clock_nanosleep": (EINTR,), "sigtimedwait": (EINTR, EAGAIN), "signalfd": (EMFILE,)}
_MEMORY = {"mmap": (ENOMEM,), "mmap64": (ENOMEM,), "munmap": (ENOMEM,), "mprotect": (ENOMEM,), "madvise": (EAGAIN,),
           "setenv": (ENOMEM,), "unsetenv": (EINVAL,), "getrandom": (EINTR,)}
_PROCESS = {"fork": (EAGAIN,), "execv": (ENOENT,), "waitpid": (EINTR,), "kill": (EPERM,), "prctl": (EPERM,),
            "syscall": (EPERM,), "sigaction": (EINVAL,), "signal": (EINVAL,), "sigaltstack": (ENOMEM,), "setgroups": (EPERM,), "setresgid": (EAGAIN,),
            "setresuid": (EAGAIN,), "setrlimit": (EPERM,), "getrlimit": (EINVAL,), "getgrnam": (EIO,),
            "getgrnam_r": (EIO,), "getgrouplist": (EIO,), "getpwnam": (EIO,), "getpwuid_r": (EIO,)}
FAULTS = {**_FILES, **_SOCKETS, **_WAITING, **_MEMORY, **_PROCESS}

# Where a call has other errors than elsewhere: who waits for a number in memory is interrupted, and waking cannot fail.
FAULTS_AT = {"atomic_wait.h std::__detail::__platform_wait syscall": (EINTR, EAGAIN),
             "atomic_wait.h std::__detail::__platform_notify syscall": ()}


def faults_at(place, function):
    """The errors with which a call at a place is made to fail."""
    return FAULTS_AT.get(place.split("#")[0], FAULTS[function])


# Functions of libraries that end in a call, so that the call comes from where they were called.
PASSING = {"mnl_socket_sendto": "sendto", "mnl_socket_setsockopt": "setsockopt"}

# What works on memory alone, what cannot fail with the arguments that it gets here, and lines for whoever looks at
# standard error, which nobody waits for.
PLAIN = set("""
_exit abort alarm atoi atoll backtrace backtrace_symbols_fd calloc ceil clock_gettime dprintf exit fflush floor fputs free fwrite
getcontext getenv geteuid getpid getppid gettimeofday gmtime_r gnu_dev_major gnu_dev_makedev gnu_dev_minor htonl htons
if_freenameindex inet_addr inet_aton inet_ntop inet_pton isalnum isalpha isblank iscntrl isdigit isgraph islower isprint
ispunct isspace isupper isxdigit localtime_r lround makecontext memchr memcmp memcpy memmove memset ntohl ntohs perror
pthread_cond_clockwait pthread_mutex_lock pthread_mutex_unlock pthread_sigmask puts quick_exit raise sched_yield setcontext sigabbrev_np sigaddset
sigemptyset sigfillset sigprocmask snprintf strcat strchr strcmp strcspn strerror strerrordesc_np strftime strlen strncmp strncpy
strnlen strstr strtol strtoll strtoul strtoull swapcontext sysconf time tolower tzset vsnprintf
""".split())

# What a compiler, a sanitizer and the other libraries bring; the calls those libraries make are noted as they come.
OTHERS = re.compile(r"_Z|__|_ITM_|_Unwind_|mnl_|libevent_|(buffer)?event_|evbuffer_|evutil_|(lib)?bpf_|seccomp_")


def stand_ins():
    """The functions that the injector has a stand-in for."""
    text = (Path(__file__).parent / "injector.cpp").read_text()
    return set(re.findall(r"^STAND_IN\((\w+), \w+\)$", text, re.M))

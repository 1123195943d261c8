// SPDX-License-Identifier: Apache-2.0
// Checked system calls. The relay cannot go on without its sockets, so a failing call ends the process after one line
// of perror; the platform's OS layer makes the calls, so that another switch can put its own in their place.
#include "wrappers.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "osal.h"
#include "trace.h"

void Wfatal(bool condition, int status, const char *label) {
    if (!condition) return;
    std::perror(label);
    std::exit(status);
}

int Wsocket(int domain, int type, int protocol) {
    const int fd = osal_socket(domain, type, protocol);
    Wfatal(fd == -1, 1, "socket()");
    return fd;
}

void Wbind(int fd, const struct sockaddr *addr) {
    Wfatal(osal_bind(fd, addr, 16) == -1, 1, "bind()");
}

void Wsetsockopt(int fd, int level, int name, const void *value, socklen_t length) {
    Wfatal(osal_setsockopt(fd, level, name, value, length) == -1, 1, "setsockopt()");
}

void Wclose(int fd) {
    Wfatal(osal_close(fd) == -1, 1, "close()");
}

int Wopen(const char *path, int flags, mode_t mode) {
    const int fd = open(path, flags, mode);
    Wfatal(fd == -1, 1, "open()");
    return fd;
}

int Wdup2(int from, int to) {
    const int fd = dup2(from, to);
    Wfatal(fd == -1, 1, "dup2()");
    return fd;
}

ssize_t recvfrom_flags(int fd, void *buf, std::size_t len, int *flags, struct sockaddr *from, socklen_t *fromlen,
                       ravo_pktinfo *pktinfo) {
    alignas(cmsghdr) unsigned char control[40];
    iovec data{buf, len};
    msghdr msg{};
    msg.msg_name = from;
    msg.msg_namelen = *fromlen;
    msg.msg_iov = &data;
    msg.msg_iovlen = 1;
    msg.msg_control = control;
    msg.msg_controllen = sizeof control;

    const ssize_t count = osal_recvmsg(fd, &msg, *flags);
    if (count < 0) return count;
    *fromlen = msg.msg_namelen;
    *flags = msg.msg_flags;
    if (pktinfo != nullptr) std::memset(pktinfo, 0, sizeof *pktinfo);
    if (msg.msg_controllen < sizeof(cmsghdr) || (msg.msg_flags & MSG_CTRUNC) != 0 || pktinfo == nullptr) return count;

    for (cmsghdr *cmsg = CMSG_FIRSTHDR(&msg); cmsg != nullptr; cmsg = CMSG_NXTHDR(&msg, cmsg)) {
        const bool is_pktinfo = cmsg->cmsg_level == IPPROTO_IP && cmsg->cmsg_type == IP_PKTINFO;
        if (is_pktinfo && cmsg->cmsg_len >= CMSG_LEN(sizeof *pktinfo))
            std::memcpy(pktinfo, CMSG_DATA(cmsg), sizeof *pktinfo);
    }
    return count;
}

ssize_t WrecvfromFlagsInet4(int fd, void *buf, std::size_t len, int *flags, struct sockaddr_in *from,
                            ravo_pktinfo *pktinfo) {
    socklen_t fromlen = sizeof(sockaddr_in);
    ssize_t count;
    do {
        count = recvfrom_flags(fd, buf, len, flags, reinterpret_cast<sockaddr *>(from), &fromlen, pktinfo);
    } while (count == -1 && errno == EINTR);
    // deliberate: the sender's address is asked for only after the receive.
    ravo_assert(from != nullptr, "from", "wrappers");
    if (count == -1 || fromlen != sizeof(sockaddr_in) || from->sin_family != AF_INET) return -1;
    return count;
}

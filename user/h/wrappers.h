// SPDX-License-Identifier: Apache-2.0
// Checked system calls: a failure prints the call's label with the system's reason and ends the process with status 1.
#ifndef RAVO_WRAPPERS_H
#define RAVO_WRAPPERS_H

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/types.h>

#include <cstdint>

// The part of the kernel's in_pktinfo that the relay uses, as it is.
struct ravo_pktinfo {
    std::int32_t ipi_ifindex;    // interface number
    std::uint32_t ipi_spec_dst;  // local address, or a port's interface number on a switch
    std::uint32_t ipi_addr;      // destination address of the header, network byte order
};

static_assert(sizeof(ravo_pktinfo) == 12);

// When condition is true: perror(label) and exit(status).
void Wfatal(bool condition, int status, const char *label);

[[nodiscard]] int Wsocket(int domain, int type, int protocol);
void Wbind(int fd, const struct sockaddr *addr);  // addr: 16 bytes
void Wsetsockopt(int fd, int level, int name, const void *value, socklen_t length);
void Wclose(int fd);
[[nodiscard]] int Wopen(const char *path, int flags, mode_t mode);
[[nodiscard]] int Wdup2(int from, int to);

// recvmsg with the packet information. *flags and *fromlen are read and written; pktinfo may be null. Returns the count
// of bytes, negative on failure.
[[nodiscard]] ssize_t recvfrom_flags(int fd, void *buf, std::size_t len, int *flags, struct sockaddr *from,
                                     socklen_t *fromlen, ravo_pktinfo *pktinfo);

// recvfrom_flags repeated while interrupted. Returns the count, or -1 when it failed or the sender is no IPv4 address.
[[nodiscard]] ssize_t WrecvfromFlagsInet4(int fd, void *buf, std::size_t len, int *flags, struct sockaddr_in *from,
                                          ravo_pktinfo *pktinfo);

#endif

// SPDX-License-Identifier: Apache-2.0
// OS layer: socket readers, timers and sockets on the platform's one event thread.
//
// The platform provides everything here and calls the daemon's reader handlers and timer callbacks, one at a
// time, on its event thread. All functions may be called from that thread only.
#ifndef PLATFORM_OSAL_H
#define PLATFORM_OSAL_H

#include <stddef.h>
#include <stdint.h>
#include <sys/socket.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

// ---- Readers ----

// Called with the descriptor each time it is readable, and the argument given at registration.
typedef void (*osal_read_handler)(int fd, void *arg);

// Registers a reader. handle: where the handle is stored; name: text for diagnostics, copied; repeat: 1, the
// handler is called for every later reading too; arg: handed to the handler. Returns the handle, also stored
// in *handle, or NULL on failure (then *handle is NULL).
void *OSAL_ZEBOS_Add_Read_Socket_Thread(void **handle, const char *name, osal_read_handler handler, int fd, int repeat,
                                        void *arg);

// Removes the reader *handle and stores NULL there; a NULL handle is ignored. May be called from a handler.
void OSAL_ZEBOS_Delete_Read_Socket_Thread(void **handle);

// ---- Timers ----

// A timer object, embedded in the daemon's own record. A zeroed object is an unarmed timer. The platform
// knows a scheduled timer by the address of its object, not by its contents, which may be copied over.
struct osal_timer {
    uintptr_t armed;  // non-zero while the timer is armed; written by the platform, read by the daemon
};

typedef void (*osal_timer_callback)(void *arg);

// Arms a timer that fires once. timer: the object; it must stay where it is until the timer fired or was
// deleted; name: text for diagnostics; seconds: from now; repeat: always 1, the number of firings; arg: handed
// to the callback. A timer that is already scheduled on the same object is replaced. The armed mark is cleared
// before the callback runs. When memory is short the platform may fire a timer of a record of mfh_calloc's before
// its time, from its event loop as any other. Returns 0, or -1 when memory is used up: this timer is then not armed,
// an earlier one on the object may still be.
int OSAL_ZEBOS_Create_Sec_Once_Timer(struct osal_timer *timer, const char *name, osal_timer_callback callback,
                                     uint32_t seconds, int repeat, void *arg);

// Disarms a timer and clears its armed mark; a timer that is not armed is left as it is.
void OSAL_ZEBOS_Delete_Timer(struct osal_timer *timer);

// ---- Sockets ----
//
// Arguments and results are those of the system calls of the same name: -1 and errno on failure. Descriptors
// are those of the process and can be watched with a reader.

// The platform's layer-2 packet channel: osal_socket(OSAL_AF_CHANNEL, SOCK_RAW, 0). osal_recvfrom on it returns
// one message: 16 bytes of the IPv4 header from its fifth byte on (identification, flags, time to live,
// protocol, checksum, source, destination at byte 12), the 8 bytes of the UDP header, and the DHCP message. A
// message that does not fit is cut; with MSG_TRUNC the result is its whole length. The source-address record
// holds the ingress port's interface number (32-bit, host order) at byte OSAL_CHANNEL_PORT and the VLAN id
// (16-bit, host order) at byte OSAL_CHANNEL_VLAN. Messages are IPv4 packets to UDP port 67, not fragmented,
// with correct checksums, each delivered once. When nothing is queued the call fails with EAGAIN.
#define OSAL_AF_CHANNEL 24
#define OSAL_CHANNEL_PORT 12
#define OSAL_CHANNEL_VLAN 16
#define OSAL_CHANNEL_NAME_SIZE 20  // bytes of the source-address record that are filled in

int osal_socket(int domain, int type, int protocol);
int osal_bind(int fd, const struct sockaddr *address, socklen_t length);
int osal_setsockopt(int fd, int level, int name, const void *value, socklen_t length);
int osal_close(int fd);
ssize_t osal_recvfrom(int fd, void *buffer, size_t size, int flags, struct sockaddr *from, socklen_t *from_length);
ssize_t osal_recvmsg(int fd, struct msghdr *msg, int flags);
ssize_t osal_sendto(int fd, const void *buffer, size_t size, int flags, const struct sockaddr *to, socklen_t to_length);

// On a packet socket the destination is a sockaddr_ll whose sll_ifindex is the switch's interface number; the
// platform translates it to the number of the system underneath. A control message of level 0 and type
// OSAL_CMSG_ORIGIN carries the 8 bytes of the ingress record (VLAN interface, port: 32-bit numbers, host order).
#define OSAL_CMSG_ORIGIN 254
ssize_t osal_sendmsg(int fd, const struct msghdr *msg, int flags);

// Called with what could not be sent after all: the socket, the destination (of a frame: by the number of the
// system underneath), and the reason as errno.
typedef void (*osal_refused)(int fd, const struct sockaddr *to, int error);

// Allows that what is sent over fd while messages of the channel are handled is gathered and handed to the system
// together, in the order in which it was sent, before the platform turns to anything but messages. osal_sendto and
// osal_sendmsg then return the length beforehand, and refused is called for each that the system refuses. Whether and
// when anything is gathered is the platform's business; while lines of trace level are printed nothing is.
void osal_gather(int fd, osal_refused refused);

#ifdef __cplusplus
}
#endif

#endif

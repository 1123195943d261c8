// SPDX-License-Identifier: Apache-2.0
/* What the gate's program in the kernel and the daemon share. Plain C, as both are compiled from it. */
#ifndef PLATFORM_LINUX_GATE_GATE_RECORDS_H
#define PLATFORM_LINUX_GATE_GATE_RECORDS_H

#include <linux/types.h>

#define GATE_PORTS 16384         /* devices that can be listened on at a time */
#define GATE_DEVICE_BUCKETS 8192 /* of the table of devices; a power of two */
#define GATE_DEVICE_SLOTS 8      /* of a bucket: a cache line */
#define GATE_DEVICE_PROBES 4     /* buckets from a device's own on in which it can be */
#define GATE_TAG_COUNTS 32768    /* room for pairs of port and VLAN id whose refused messages are counted apart */
#define GATE_TAG_SLOTS 8         /* of them in a row in which one pair can be; both are powers of two */
#define GATE_NO_VLAN 4095        /* stands for a tag that can belong to no VLAN interface */
#define GATE_WHOLE_FRAME 0x40000 /* bytes of an accepted frame, all of them */
#define GATE_DHCP_SERVER_PORT 67

/* One device that is listened on. The daemon writes the first cache line, the program the second. */
struct gate_port {
    __u64 interval; /* nanoseconds from one message to the next at the port's rate; 0: no limit */
    __u64 burst;    /* nanoseconds that a burst may be ahead of the rate */
    __u64 taken;    /* messages taken out of the queue */
    __u64 spare1[5];
    __u64 due;               /* when the next message would be due had all come at the rate; nanoseconds since boot */
    __u64 passed;            /* messages let into the queue */
    __u64 limited;           /* refused: more than the port may send, without a VLAN tag */
    __u64 limited_tagged;    /* the same, with one */
    __u64 limited_uncounted; /* of these, those that could not be counted by their tag */
    __u64 crowded;           /* refused: no room for the port in the queue */
    __u64 spare2[2];
};

/* The queue, which all ports share. */
struct gate_queue {
    __u64 room;    /* messages it may hold; written by the daemon */
    __u64 taken;   /* messages taken out; written by the daemon */
    __u64 program; /* the number of the program that the maps belong to; it is at this place in every version */
    __u64 spare1[5];
    __u64 passed; /* messages let in; written by the program */
    __u64 spare2[7];
};

/* Where devices have their places: a table in memory that both sides share, as a look-up by a system call would take a
 * right. The daemon alone writes it, a word at a time. A word is the kernel's device number and, in its lower
 * half, the place; 0: free. */
struct gate_devices {
    __u64 slots[GATE_DEVICE_SLOTS];
};

/* A tag of which messages were over their port's limit. */
struct gate_tag {
    __u32 port; /* its place among the ports */
    __u32 vlan; /* 1 to 4094, or GATE_NO_VLAN */
};

/* How many. The program takes a free one, the daemon frees it. */
struct gate_tag_count {
    __u64 tag; /* the port's place and, in the lower half, the VLAN id; 0: free */
    __u64 count;
};

/* The first of the counts among which that of a tag is. */
static inline __u32 gate_tag_row(__u32 port, __u32 vlan) {
    return (port * 61 + vlan) % (GATE_TAG_COUNTS / GATE_TAG_SLOTS) * GATE_TAG_SLOTS;
}

#endif

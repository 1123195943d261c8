// SPDX-License-Identifier: Apache-2.0
/* The gate: the program that the kernel runs on each frame of each device before the relay's queue.
 *
 * It lets in what the relay can want: unfragmented UDP datagrams over IPv4 to port 67, and the first parts of
 * fragmented ones, which are counted; and only where a frame first enters the box, so that each is seen once however
 * many devices it climbs. What a port sends beyond its rate, and what finds the queue full, is counted and refused
 * here, where it costs the box the least.
 *
 * The rate is kept by one time for each port (the generic cell rate algorithm): when its next message would be due if
 * all had come evenly. A message may come up to the length of a burst before that.
 *
 * A queue that is filling up is shared by need: a port may have four times as many messages in it as there is room
 * left. So one flooding port leaves a fifth of the room to the others, two leave a ninth, and there is always some.
 * Replies may take more: with each that is lost the work on its request was for nothing.
 */
#include <linux/bpf.h>
#include <linux/if_ether.h>
#include <linux/in.h>

#include <bpf/bpf_endian.h>
#include <bpf/bpf_helpers.h>

#include "gate_records.h"

#define LENT_PER_FREE 4
#define LENT_PER_FREE_TO_REPLIES 16
#define UDP_HEADER 8
#define BOOTREPLY 2 /* RFC 2131 section 2: op */
#define ATTEMPTS 8  /* to charge a message while other processors charge the same port */
#define VLAN_BITS 0x0FFF
#define FRAGMENT_OFFSET 0x1FFF /* RFC 791 section 3.1 */

char gate_license[] SEC("license") = "Apache-2.0";

struct {
    __uint(type, BPF_MAP_TYPE_ARRAY);
    __uint(max_entries, GATE_DEVICE_BUCKETS);
    __uint(map_flags, BPF_F_MMAPABLE);
    __type(key, __u32);
    __type(value, struct gate_devices);
} devices SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_ARRAY);
    __uint(max_entries, GATE_PORTS);
    __uint(map_flags, BPF_F_MMAPABLE);
    __type(key, __u32);
    __type(value, struct gate_port);
} ports SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_ARRAY);
    __uint(max_entries, 1);
    __uint(map_flags, BPF_F_MMAPABLE);
    __type(key, __u32);
    __type(value, struct gate_queue);
} queue SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_ARRAY);
    __uint(max_entries, GATE_TAG_COUNTS);
    __uint(map_flags, BPF_F_MMAPABLE);
    __type(key, __u32);
    __type(value, struct gate_tag_count);
} limited_by_tag SEC(".maps");

static __always_inline void count(__u64 *counter) {
    __sync_fetch_and_add(counter, 1);
}

/* An Ethernet header's type and the fixed part of an IPv4 header behind it, as they stand in the frame. */
struct headers {
    __be16 ethertype;
    __u8 version_ihl;
    __u8 tos;
    __be16 length;
    __be16 id;
    __be16 fragment;
    __u8 ttl;
    __u8 protocol;
    __u8 rest[10];
} __attribute__((packed));

/* Returns where the UDP header of a frame stands that the relay can want, 0 for others. *inner: the VLAN tag that
 * stands inside the frame, -1 for none. */
static __always_inline __u32 find_dhcp(struct __sk_buff *skb, int *inner) {
    struct headers h;
    __u32 at = ETH_ALEN * 2;
    *inner = -1;
    if (bpf_skb_load_bytes(skb, at, &h, sizeof h) != 0) return 0;
    if (h.ethertype == bpf_htons(ETH_P_8021Q)) {
        *inner = bpf_ntohs(*(__be16 *)&h.version_ihl) & VLAN_BITS;
        at += 4;
        if (bpf_skb_load_bytes(skb, at, &h, sizeof h) != 0) return 0;
    }
    if (h.ethertype != bpf_htons(ETH_P_IP) || h.protocol != IPPROTO_UDP) return 0;
    if ((h.fragment & bpf_htons(FRAGMENT_OFFSET)) != 0) return 0;
    at += 2 + 4 * (h.version_ihl & 0x0F);
    __be16 port;
    if (bpf_skb_load_bytes(skb, at + 2, &port, sizeof port) != 0) return 0;
    return port == bpf_htons(GATE_DHCP_SERVER_PORT) ? at : 0;
}

/* The VLAN id of the frame's tag, 0 for none and for a priority tag. */
static __always_inline __u32 vlan_of(struct __sk_buff *skb, int inner) {
    __u32 outer = skb->vlan_present ? skb->vlan_tci & VLAN_BITS : 0;
    if (skb->vlan_present && skb->vlan_proto != bpf_htons(ETH_P_8021Q)) return GATE_NO_VLAN;
    if (inner < 0) return outer;
    return outer != 0 ? GATE_NO_VLAN : inner;
}

/* Charges one message to the port. Returns 0 when it is one too many. */
static __always_inline int is_within_limit(struct gate_port *port) {
    __u64 interval = port->interval;
    if (interval == 0) return 1;
    __u64 now = bpf_ktime_get_ns();
    __u64 due = port->due;
#pragma unroll
    for (int i = 0; i < ATTEMPTS; ++i) {
        __u64 from = due > now ? due : now;
        if (from - now > port->burst) return 0;
        __u64 seen = __sync_val_compare_and_swap(&port->due, due, from + interval);
        if (seen == due) return 1;
        due = seen;
    }
    return 1;
}

/* Loops are unrolled: kernels before 6.4 lose count of them. */

/* The counter of a tag, a free one when it has none yet. NULL when all are taken. */
static __always_inline __u64 *counter_of(__u64 tag, __u32 first) {
#pragma unroll
    for (__u32 i = 0; i < GATE_TAG_SLOTS; ++i) {
        __u32 at = first + i;
        struct gate_tag_count *slot = bpf_map_lookup_elem(&limited_by_tag, &at);
        if (slot && slot->tag == tag) return &slot->count;
    }
#pragma unroll
    for (__u32 i = 0; i < GATE_TAG_SLOTS; ++i) {
        __u32 at = first + i;
        struct gate_tag_count *slot = bpf_map_lookup_elem(&limited_by_tag, &at);
        if (!slot) continue;
        __u64 seen = __sync_val_compare_and_swap(&slot->tag, 0, tag);
        if (seen == 0 || seen == tag) return &slot->count;
    }
    return 0;
}

/* Counts that may count nothing: which of them does is no branch, as pointers that a branch chose may not be moved. */
static __always_inline void count_if(__u64 *counter, __u64 one) {
    __sync_fetch_and_add(counter, one);
}

static __always_inline void count_limited(struct gate_port *port, __u32 place, __u32 vlan) {
    __u64 tagged = vlan != 0;
    __u64 *counter = tagged ? counter_of((__u64)place << 32 | vlan, gate_tag_row(place, vlan)) : 0;
    if (counter) count(counter);
    count_if(&port->limited, !tagged);
    count_if(&port->limited_tagged, tagged);
    count_if(&port->limited_uncounted, tagged && !counter);
}

/* The place of a device among the ports. Returns 0 when it is not listened on. */
static __always_inline int find_place(__u32 device, __u32 *place) {
#pragma unroll
    for (__u32 probe = 0; probe < GATE_DEVICE_PROBES; ++probe) {
        __u32 at = (device + probe) % GATE_DEVICE_BUCKETS;
        struct gate_devices *bucket = bpf_map_lookup_elem(&devices, &at);
        if (!bucket) return 0;
#pragma unroll
        for (int i = 0; i < GATE_DEVICE_SLOTS; ++i) {
            __u64 slot = *(volatile __u64 *)&bucket->slots[i];
            if (slot >> 32 != device) continue;
            *place = (__u32)slot;
            return 1;
        }
    }
    return 0;
}

static __always_inline int is_reply(struct __sk_buff *skb, __u32 udp) {
    __u8 op = 0;
    return bpf_skb_load_bytes(skb, udp + UDP_HEADER, &op, sizeof op) == 0 && op == BOOTREPLY;
}

/* Takes a place in the queue for a message of the port. Returns 0 when there is none. */
static __always_inline int has_room(struct __sk_buff *skb, __u32 udp, struct gate_port *port, struct gate_queue *q) {
    __s64 used = q->passed - q->taken;
    __s64 free = q->room - used;
    __s64 own = port->passed - port->taken;
    if (free <= 0 || own >= LENT_PER_FREE_TO_REPLIES * free || (own >= LENT_PER_FREE * free && !is_reply(skb, udp))) {
        count(&port->crowded);
        return 0;
    }
    count(&q->passed);
    count(&port->passed);
    return 1;
}

SEC("socket")
int gate(struct __sk_buff *skb) {
    if (skb->protocol != bpf_htons(ETH_P_IP) && skb->protocol != bpf_htons(ETH_P_8021Q)) return 0;
    int inner;
    __u32 udp = find_dhcp(skb, &inner);
    if (udp == 0) return 0;
    __u32 place;
    if (!find_place(skb->ifindex, &place)) return 0;
    __u32 zero = 0;
    struct gate_port *port = bpf_map_lookup_elem(&ports, &place);
    struct gate_queue *q = bpf_map_lookup_elem(&queue, &zero);
    if (!port || !q) return 0;
    if (!is_within_limit(port)) {
        count_limited(port, place, vlan_of(skb, inner));
        return 0;
    }
    return has_room(skb, udp, port, q) ? GATE_WHOLE_FRAME : 0;
}

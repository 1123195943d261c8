// SPDX-License-Identifier: Apache-2.0
// The receive handlers, called by the platform with a readable descriptor; arg is not used.
#ifndef RAVO_IF_RECEIVE_H
#define RAVO_IF_RECEIVE_H

// Takes one message from the layer-2 packet channel.
void ravo_l2_listen_hdlr(int fd, void *arg);

// Takes one message from the UDP socket on port 67.
void ravo_if_listen_hdlr(int fd, void *arg);

#endif

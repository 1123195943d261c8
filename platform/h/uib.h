// SPDX-License-Identifier: Apache-2.0
// UI bridge: records and table rows for the web and SNMP front ends.
//
// The platform provides the three functions; the daemon provides the table functions of a descriptor. Everything is
// called on the event thread while a command handler runs.
#ifndef PLATFORM_UIB_H
#define PLATFORM_UIB_H

#include <stddef.h>
#include <stdint.h>

#include "cli.h"

#ifdef __cplusplus
extern "C" {
#endif

// Hands one fixed record to the web side of the session. record: length bytes, copied; integers in host byte order.
// Returns 0, or negative when the session is gone.
int UIB_WEB_Msg_Send(struct cli *cli, const void *record, size_t length);

// A table as the bridge walks it. key is read and written by the two functions.
struct uib_table {
    void *key;                                   // the row key, in the daemon's own layout
    int (*get_exact)(void *key);                 // 1: the row with this key exists; 0: not
    int (*get_next)(void *key);                  // 1: key was replaced by that of the next row; 0: no further row
    int (*put_row)(struct cli *cli, void *key);  // writes the row; 0, or CLI_BUFFER_FULL
    uintptr_t reserved[4];                       // zero
};

// Walks a table from the descriptor's key to its end and writes every row behind it; or, when the session asked for one
// row, writes the row of the key itself if it exists. Returns 0, or CLI_BUFFER_FULL when the output is full.
int UIB_OUT_TABLE_ENTRIES(struct cli *cli, struct uib_table *table);

// Announces the key of the row whose values follow. key: key_length bytes, copied. Returns 0, or negative when the
// session is gone.
int uib_snmp_key_send(struct cli *cli, const void *key, size_t key_length, ...);

#ifdef __cplusplus
}
#endif

#endif

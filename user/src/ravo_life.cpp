// SPDX-License-Identifier: Apache-2.0
// Start and reset of the relay's data, above the databases and the sockets, which know nothing of each other.
// Transactions outlive a reset: their replies may still come, and they end by themselves.
#include "ravo_life.h"

#include "ravo_db.h"
#include "ravo_db_if.h"
#include "ravo_db_xid.h"
#include "ravo_if_state.h"

int ravo_db_init() {
    ravo_db_agent_reset();
    ravo_db_if_init();
    ravo_db_xid_init();
    return 0;
}

void ravo_db_exit() {
    ravo_db_xid_exit();
    ravo_db_if_exit();
}

int RAVO_IF_Reset() {
    ravo_db_agent_reset();
    ravo_if_del_all_if();
    ravo_if_close_all_fd();
    return 0;
}

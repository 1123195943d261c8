// SPDX-License-Identifier: Apache-2.0
// Descriptors and counters of the relay engine, below everything that sends or receives: senders read the descriptors,
// ravo_if_socket opens them, and what ends the relay's service closes them here.
#include "ravo_if_state.h"

#include "osal.h"
#include "trace.h"
#include "wrappers.h"

ravo_rx_counter_table ravo_rx_counters;

int ravo_server_sock_fd = -1;
int ravo_raw_sock_fd = -1;
int ravo_listen_sock_fd = -1;
int ravo_l2_sock_fd = -1;

// deliberate: both readers store their handle here; the later one is the one that is deleted.
void *ravo_reader_handle = nullptr;

namespace {

void close_socket(int &fd) {
    if (fd >= 0) Wclose(fd);
    fd = -1;
}

}  // namespace

// deliberate: the counters have another order than the message types.
void ravo_count_message(std::uint8_t type) {
    static constexpr std::uint32_t ravo_rx_counter_table::*counter_of[] = {
        nullptr,
        &ravo_rx_counter_table::discover,
        &ravo_rx_counter_table::offer,
        &ravo_rx_counter_table::request,
        &ravo_rx_counter_table::decline,
        &ravo_rx_counter_table::ack,
        &ravo_rx_counter_table::nak,
        &ravo_rx_counter_table::release,
        &ravo_rx_counter_table::inform,
    };
    ++(ravo_rx_counters.*counter_of[type]);
}

int ravo_if_close_all_fd() {
    if (ravo_l2_sock_fd >= 0) {
        OSAL_ZEBOS_Delete_Read_Socket_Thread(&ravo_reader_handle);
        close_socket(ravo_l2_sock_fd);
    }
    ravo_listen_sock_fd = -1;  // deliberate: neither closed nor its reader deleted, as it is never opened
    close_socket(ravo_raw_sock_fd);
    close_socket(ravo_server_sock_fd);
    ravo_trace(ravo::level_trace, "%s (%d): Close all socket successfully \n");
    return 0;
}

// SPDX-License-Identifier: Apache-2.0
// Failures on demand: any service of the fake platform that can fail asks here first.
#ifndef FAKE_SCRIPT_H
#define FAKE_SCRIPT_H

#include <optional>

namespace fake {

// The services that can be made to fail.
enum class op {
    socket,
    bind,
    setsockopt,
    close,
    recvfrom,
    recvmsg,
    sendto,
    sendmsg,
    add_reader,    // fails with NULL
    create_timer,  //
    calloc,        // fails with NULL
    avl_create,    // fails with NULL
    avl_insert,
    avl_remove,
    nsm_create,  // fails with NULL
    nsm_start,
    web_send,
    operations  // number of them
};

// What the coming calls of an operation answer instead of doing their work.
struct answer {
    int nth = 1;      // the first call that is affected, 1: the next one
    int times = 1;    // number of calls affected
    int error = 5;    // errno, EIO unless told otherwise
    int result = -1;  // result of the call
};

// Makes a call fail. A later script of the same operation replaces the earlier one.
void script(op operation, answer what = {});

// Lets every operation succeed again.
void clear_scripts();

// Asked by the services: the answer for this call, with errno set, or none.
std::optional<int> scripted(op operation);

}  // namespace fake

#endif

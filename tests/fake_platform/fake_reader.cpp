// SPDX-License-Identifier: Apache-2.0
// Readers are called only when a test makes their descriptor readable. A handle is a number of its own, so that a
// handle variable which was overwritten differs from the right one.
#include <algorithm>
#include <cstdint>

#include "fake_script.h"
#include "fake_socket.h"

namespace fake {

std::vector<reader> readers;

namespace {

std::uintptr_t last_handle = 0;

}  // namespace

int readable(int fd) {
    const std::vector<reader> registered = readers;  // a handler may change the list
    int called = 0;
    for (const reader &entry : registered) {
        if (entry.fd != fd) continue;
        entry.handler(fd, entry.arg);
        ++called;
    }
    return called;
}

void drop_reader(const std::string &name) {
    std::erase_if(readers, [&name](const reader &entry) { return entry.name == name; });
}

}  // namespace fake

void *OSAL_ZEBOS_Add_Read_Socket_Thread(void **handle, const char *name, osal_read_handler handler, int fd, int repeat,
                                        void *arg) {
    *handle = nullptr;
    if (fake::scripted(fake::op::add_reader)) return nullptr;
    *handle = reinterpret_cast<void *>(++fake::last_handle);
    fake::readers.push_back({*handle, name, fd, repeat, handler, arg});
    return *handle;
}

void OSAL_ZEBOS_Delete_Read_Socket_Thread(void **handle) {
    if (*handle == nullptr) return;
    std::erase_if(fake::readers, [handle](const fake::reader &entry) { return entry.handle == *handle; });
    *handle = nullptr;
}

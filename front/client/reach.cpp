// SPDX-License-Identifier: Apache-2.0
// Connecting does not wait: for a Unix socket it succeeds at once or fails, as when the daemon's queue of connections
// is full. Each way to fail has a text that says who is not there, or who may not come in.
#include "reach.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace ravo::client {

namespace {

fault reach_fault(int error) {
    switch (error) {
        case ENOENT:
            return {"no ravod is running there: there is no such socket"};
        case ECONNREFUSED:
            return {"no ravod is running there: nobody listens on the socket"};
        case EACCES:
            return {"permission denied; only root and members of group ravo or ravo-admin may use ravod"};
        case EAGAIN:
            return {"ravod does not take connections: too many are waiting"};
        default:
            return {"cannot reach ravod: " + error_text(error)};
    }
}

}  // namespace

std::string error_text(int error) {
    const char *text = strerrordesc_np(error);
    return text != nullptr ? text : "error " + std::to_string(error);
}

fault reach(const std::string &path, int *fd) {
    sockaddr_un address{};
    if (path.empty() || path.size() >= sizeof(address.sun_path))
        return {"a socket's path must have 1 to " + std::to_string(sizeof(address.sun_path) - 1) + " bytes"};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    const int made = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (made < 0) return {"cannot make a socket: " + error_text(errno)};
    if (connect(made, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0) {
        const int error = errno;
        ::close(made);
        return reach_fault(error);
    }
    *fd = made;
    return {};
}

}  // namespace ravo::client

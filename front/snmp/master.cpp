// SPDX-License-Identifier: Apache-2.0
// The library does not say why it finds no master agent, so the socket is tried once more here, for its error alone.
#include "master.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace ravo::snmp {

namespace {

constexpr const char *usual_socket = "/var/agentx/master";

// The error of connecting to a socket; 0 when somebody answers there by now.
int connect_error(const std::string &path) {
    sockaddr_un to{.sun_family = AF_UNIX, .sun_path = {}};
    if (path.size() >= sizeof to.sun_path) return ENAMETOOLONG;
    path.copy(to.sun_path, path.size());
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return errno;
    const int error = connect(fd, reinterpret_cast<const sockaddr *>(&to), sizeof to) == 0 ? 0 : errno;
    close(fd);
    return error;
}

// What to do about an error.
const char *remedy(int error) {
    if (error == EACCES) return "let group ravo-snmp into its folder and socket (ravo-snmp(8), NOTES)";
    return "snmpd has to run, with \"master agentx\" in its configuration";
}

}  // namespace

std::string no_master_text(const std::string &address) {
    const std::string path = address.empty() ? usual_socket : address;
    const bool is_path = path.starts_with('/') || path.starts_with("unix:");
    const int error = is_path ? connect_error(path.substr(path.starts_with("unix:") ? 5 : 0)) : 0;
    const std::string why = error == 0 ? "no answer" : std::strerror(error);
    return "no master agent at " + path + ": " + why + "; " + remedy(error) + "; it is looked for every few seconds";
}

}  // namespace ravo::snmp

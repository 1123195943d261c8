// SPDX-License-Identifier: Apache-2.0
// The table of options, and what has to go together: an address beyond the loopback needs TLS, or an explicit word that
// it goes without.
#include "options.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <charconv>

#include "connections.h"
#include "option_words.h"

namespace ravo::web {

namespace {

bool is_address(const std::string &text) {
    in6_addr address{};
    return inet_pton(AF_INET, text.c_str(), &address) == 1 || inet_pton(AF_INET6, text.c_str(), &address) == 1;
}

// Splits "192.0.2.1:8067" or "[2001:db8::1]:8067".
bool split_listen(const std::string &text, std::string *address, std::uint16_t *port) {
    const std::size_t mark = text.rfind(':');
    if (mark == std::string::npos) return false;
    *address = text.substr(0, mark);
    const bool in_brackets = address->size() > 2 && address->front() == '[' && address->back() == ']';
    if (in_brackets) *address = address->substr(1, address->size() - 2);
    if (in_brackets != (address->find(':') != std::string::npos) || !is_address(*address)) return false;
    const char *end = text.data() + text.size();
    const auto [stop, fault] = std::from_chars(text.data() + mark + 1, end, *port);
    return fault == std::errc{} && stop == end && mark + 1 < text.size();
}

fault fault_of(const web_options &o) {
    if (o.tls_certificate.empty() != o.tls_key.empty()) return {"--tls-certificate and --tls-key go together"};
    if (!is_loopback(o.address) && o.tls_certificate.empty() && !o.allow_plain)
        return {"--listen " + o.listen +
                " is not the loopback: passwords would cross the network in the clear; give --tls-certificate and "
                "--tls-key, or --allow-plain to do it all the same"};
    return {};
}

}  // namespace

fault parse_options(const std::vector<std::string> &words, web_options *out) {
    const fault wrong =
        client::read_options(words, {{"--listen", &out->listen, nullptr, "ADDRESS:PORT"},
                                     {"--management", &out->management, nullptr, "the path of a socket"},
                                     {"--accounts", &out->accounts, nullptr, "the path of a file"},
                                     {"--token-file", &out->token_file, nullptr, "the path of a file"},
                                     {"--tls-certificate", &out->tls_certificate, nullptr, "the path of a file"},
                                     {"--tls-key", &out->tls_key, nullptr, "the path of a file"},
                                     {"--allow-plain", nullptr, &out->allow_plain, ""},
                                     {"--set-password", &out->set_password, nullptr, "a user's name"},
                                     {"--account-role", &out->account_role, nullptr, "USER=admin or USER=reader"},
                                     {"--help", nullptr, &out->help, ""},
                                     {"-h", nullptr, &out->help, ""},
                                     {"--version", nullptr, &out->version, ""}});
    if (wrong || out->help || out->version) return wrong;
    if (!split_listen(out->listen, &out->address, &out->port))
        return {"--listen " + out->listen + " is no ADDRESS:PORT, such as 127.0.0.1:8067 or [::1]:8067"};
    return fault_of(*out);
}

const char *help_text() {
    return "Usage: ravo-web [OPTION]...\n"
           "The web page, the JSON interface and the metrics of ravod, the DHCPv4 relay agent.\n"
           "\n"
           "  --listen ADDRESS:PORT   where to listen (127.0.0.1:8067); port 0 is any free one\n"
           "  --management SOCKET     the daemon's management socket (/run/ravo/ravod.sock)\n"
           "  --accounts FILE         who may sign in (/etc/ravo/web-accounts)\n"
           "  --token-file FILE       tokens, one a line, with which /metrics may be read from elsewhere\n"
           "  --tls-certificate FILE  speak TLS with this certificate chain (PEM) ...\n"
           "  --tls-key FILE          ... and this key\n"
           "  --allow-plain           listen beyond the loopback without TLS all the same\n"
           "  --set-password USER     ask for a password, or read it from standard input; make the account; end\n"
           "  --account-role USER=R   make an account one that may change (admin) or only look (reader); end\n"
           "  --version               print the version\n"
           "  -h, --help              print this\n"
           "\n"
           "Exit status: 0 when ended in order, 1 when something failed, 2 when the usage was wrong.\n";
}

}  // namespace ravo::web

// SPDX-License-Identifier: Apache-2.0
// What the tests of the books' commands share: messages for the books, and the lines of what is shown.
#ifndef BOOKS_BOX_H
#define BOOKS_BOX_H

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

#include "books/books.h"
#include "books/client_book.h"
#include "books/server_book.h"
#include "cli_box.h"
#include "relay_access.h"

namespace books_box {

using octets = std::vector<std::uint8_t>;

constexpr std::uint32_t port_1_1 = 5121, port_2_0 = 5184;

struct told {
    std::uint8_t op = 1;
    std::uint8_t type = 1;
    std::uint8_t client = 1;
    std::uint16_t vlan = 10;
    std::uint32_t port = port_1_1;
    relay_outcome outcome = OUTCOME_RELAYED;
    std::vector<const char *> servers = {};
    octets option82 = {};
    bool rebroadcast = false;
    ravo::platform::book_tag tag = {};
};

inline void take(const told &what) {
    octets bytes(240);
    bytes[0] = what.op;
    bytes[7] = 0x2A;
    bytes[28] = 2;
    bytes[33] = what.client;
    if (what.type != 0) bytes.insert(bytes.end(), {53, 1, what.type});
    if (!what.option82.empty()) {
        bytes.insert(bytes.end(), {82, static_cast<std::uint8_t>(what.option82.size())});
        bytes.insert(bytes.end(), what.option82.begin(), what.option82.end());
    }
    bytes.push_back(255);
    ravo::platform::books_open(what.vlan, what.port, {}, bytes, what.tag);
    if (what.rebroadcast) outcome_record(OUTCOME_REBROADCAST);
    for (const char *server : what.servers) outcome_server(inet_addr(server));
    outcome_record(what.outcome);
    ravo::platform::books_close();
}

struct BooksCommands : testing::Test {
    BooksCommands() {
        ravo::platform::books_close();
        ravo::platform::books_clear_counters();
        ravo::platform::clients_forget();
        ravo::platform::servers_clear();
        EXPECT_TRUE(ravo::platform::books_set_recorder(100));
        setenv("TZ", "UTC", 1);
    }
};

// A line without its time, which is checked apart.
inline std::string without_time(const std::string &line) {
    constexpr std::size_t size = sizeof "2024-06-07 08:09:10.123 " - 1;
    EXPECT_THAT(line.substr(0, size),
                testing::MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} "));
    return line.substr(std::min(size, line.size()));
}

inline std::vector<std::string> lines_of(const std::string &text) {
    std::vector<std::string> out;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t end = text.find('\n', at);
        if (end == std::string::npos) break;
        out.push_back(text.substr(at, end - at));
        at = end + 1;
    }
    return out;
}

// The messages of a client's page, a line each, behind what it says of the client.
inline std::vector<std::string> messages_in(const std::string &page) {
    std::vector<std::string> lines = lines_of(page);
    const auto head = std::find_if(lines.begin(), lines.end(), [](const std::string &line) {
        return line == "Messages of 02:00:00:00:00:01, newest first:" ||
               line == "Messages of 02:00:00:00:00:07, newest first:";
    });
    EXPECT_NE(head, lines.end()) << page;
    lines.erase(lines.begin(), head == lines.end() ? head : head + 1);
    return lines;
}

// How a block of counters begins for which nothing was counted.
inline constexpr char empty_block[] =
    "  received                          0  messages that came in\n"
    "  sent                              0  copies sent to servers and clients\n"
    "  What became of them:\n";

}  // namespace books_box

#endif

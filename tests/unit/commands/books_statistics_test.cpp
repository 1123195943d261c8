// Statistics of what could not be sent: behind the total, by server and by interface.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "books/books.h"
#include "cli_box.h"
#include "osal/send_figures.h"
#include "relay_access.h"

namespace {

using namespace ravo::platform;
using cli_box::shell;

constexpr std::uint32_t vlan10 = 1034;

struct BooksStatistics : testing::Test {
    BooksStatistics() {
        books_clear_counters();
        send_figures_clear();
    }
};

constexpr char empty_total[] =
    "Total:\n"
    "  received                          0  messages that came in\n"
    "  sent                              0  copies sent on: to servers, to clients, local broadcasts\n"
    "  What became of them:\n";

TEST_F(BooksStatistics, TellWhatCouldNotBeSentByServerAndByInterface) {
    send_count_server(inet_addr("192.0.2.12"), EAGAIN);
    send_count_server(inet_addr("192.0.2.12"), EAGAIN);
    send_count_server(inet_addr("192.0.2.11"), ENETUNREACH);
    send_count_interface(vlan10, ENOBUFS);
    shell s(2);
    EXPECT_EQ(s.print("show ip dhcp relay statistics"),
              std::string(empty_total) +
                  "Server 192.0.2.12: 2 copies not sent for lack of room, 0 for other reasons\n"
                  "Server 192.0.2.11: 0 copies not sent for lack of room, 1 for other reasons\n"
                  "Interface vlan10: 1 copies not sent for lack of room, 0 for other reasons\n");
}

TEST_F(BooksStatistics, TellItInJsonToo) {
    send_count_server(inet_addr("192.0.2.12"), EAGAIN);
    send_count_interface(vlan10, ENODEV);
    static const relay_access no_data{};  // the document holds nothing of the relay's own
    relay_access_register(&no_data);
    shell s(2);
    const std::string text = s.print("show ip dhcp relay statistics | json");
    EXPECT_EQ(text.substr(text.find("  \"unsent\"")),
              "  \"unsent\": [\n"
              "    {\n      \"server\": \"192.0.2.12\",\n      \"no_room\": 1,\n      \"failed\": 0\n    },\n"
              "    {\n      \"interface\": \"vlan10\",\n      \"no_room\": 0,\n      \"failed\": 1\n    }\n"
              "  ]\n}\n");
}

TEST_F(BooksStatistics, AreClearedTogether) {
    send_count_server(inet_addr("192.0.2.12"), EAGAIN);
    shell s(15);
    EXPECT_EQ(s.run("clear ip dhcp relay statistics"), 0);
    EXPECT_EQ(s.print("show ip dhcp relay statistics"), empty_total);
}

}  // namespace

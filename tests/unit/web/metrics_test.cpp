// SPDX-License-Identifier: Apache-2.0
#include "metrics.h"

#include <gtest/gtest.h>

namespace {

using namespace ravo::web;

constexpr std::string_view statistics = R"({
 "total": {"received": 10, "sent": 4, "lost": 2, "types": {"DISCOVER": 6, "OFFER": 3},
           "outcomes": {"relayed": 5, "delivered": 3, "hop-limit": 1, "unknown-vlan": 1}},
 "vlans": [{"vlan": 10, "received": 8, "types": {"DISCOVER": 5, "OFFER": 3},
            "outcomes": {"relayed": 5, "delivered": 3, "hop-limit": 0}}],
 "ports": [{"port": "1/3", "ifindex": 5123, "received": 9, "outcomes": {}}]
})";

constexpr std::string_view servers = R"({"servers": [{"interface": "vlan10", "server": "192.0.2.11", "asked": 5,
  "answered": 7, "response_times": {"buckets": [{"le_us": 1000, "count": 2}, {"le_us": 10000, "count": 1},
  {"count": 4}], "sum_us": 4500}}]})";

TEST(Metrics, AreWrittenAsOpenMetrics) {
    metrics_source from;
    from.statistics = statistics;
    from.settings = R"({"relay": true, "interfaces": []})";
    from.transactions = R"({"transactions": [{"xid": "1"}], "total": 7})";
    from.servers = servers;
    from.advice = R"({"advice": [{"what": "a"}, {"what": "b"}]})";
    from.daemon_version = "0.1\"0";
    from.process.cpu_seconds = 1.25;
    EXPECT_EQ(metrics_text(from, true),
              R"(# HELP ravo_messages DHCP messages received, by VLAN interface and message type.
# TYPE ravo_messages counter
ravo_messages_total{interface="vlan10",type="DISCOVER"} 5
ravo_messages_total{interface="vlan10",type="OFFER"} 3
ravo_messages_total{interface="none",type="DISCOVER"} 1
ravo_messages_total{interface="none",type="none"} 1
# HELP ravo_outcomes DHCP messages by VLAN interface and what became of them.
# TYPE ravo_outcomes counter
ravo_outcomes_total{interface="vlan10",outcome="delivered"} 3
ravo_outcomes_total{interface="vlan10",outcome="relayed"} 5
ravo_outcomes_total{interface="none",outcome="hop-limit"} 1
ravo_outcomes_total{interface="none",outcome="unknown-vlan"} 1
# HELP ravo_port_messages DHCP messages received, by port.
# TYPE ravo_port_messages counter
ravo_port_messages_total{port="1/3"} 9
# HELP ravo_messages_lost Messages that came faster than they could be read.
# TYPE ravo_messages_lost counter
ravo_messages_lost_total 2
# HELP ravo_server_requests Requests sent to a server.
# TYPE ravo_server_requests counter
ravo_server_requests_total{interface="vlan10",server="192.0.2.11"} 5
# HELP ravo_server_replies Replies that came from a server.
# TYPE ravo_server_replies counter
ravo_server_replies_total{interface="vlan10",server="192.0.2.11"} 7
# HELP ravo_server_response_seconds Time between a request and its server's reply.
# TYPE ravo_server_response_seconds histogram
ravo_server_response_seconds_bucket{interface="vlan10",server="192.0.2.11",le="5e-04"} 0
ravo_server_response_seconds_bucket{interface="vlan10",server="192.0.2.11",le="0.001"} 2
ravo_server_response_seconds_bucket{interface="vlan10",server="192.0.2.11",le="0.0025"} 2
ravo_server_response_seconds_bucket{interface="vlan10",server="192.0.2.11",le="0.005"} 2
ravo_server_response_seconds_bucket{interface="vlan10",server="192.0.2.11",le="0.01"} 3
ravo_server_response_seconds_bucket{interface="vlan10",server="192.0.2.11",le="0.025"} 3
ravo_server_response_seconds_bucket{interface="vlan10",server="192.0.2.11",le="0.05"} 3
ravo_server_response_seconds_bucket{interface="vlan10",server="192.0.2.11",le="0.1"} 3
ravo_server_response_seconds_bucket{interface="vlan10",server="192.0.2.11",le="0.25"} 3
ravo_server_response_seconds_bucket{interface="vlan10",server="192.0.2.11",le="0.5"} 3
ravo_server_response_seconds_bucket{interface="vlan10",server="192.0.2.11",le="1"} 3
ravo_server_response_seconds_bucket{interface="vlan10",server="192.0.2.11",le="2.5"} 3
ravo_server_response_seconds_bucket{interface="vlan10",server="192.0.2.11",le="5"} 3
ravo_server_response_seconds_bucket{interface="vlan10",server="192.0.2.11",le="+Inf"} 7
ravo_server_response_seconds_sum{interface="vlan10",server="192.0.2.11"} 0.0045
ravo_server_response_seconds_count{interface="vlan10",server="192.0.2.11"} 7
# HELP ravo_relay_enabled 1 while the relay is on.
# TYPE ravo_relay_enabled gauge
ravo_relay_enabled 1
# HELP ravo_transactions Transactions that are open.
# TYPE ravo_transactions gauge
ravo_transactions 7
# HELP ravo_advice Things that the relay advises to look at.
# TYPE ravo_advice gauge
ravo_advice 2
# HELP ravo_build_info The daemon's version.
# TYPE ravo_build_info gauge
ravo_build_info{version="0.1\"0"} 1
# HELP process_cpu_seconds Processor time of the daemon.
# TYPE process_cpu_seconds counter
process_cpu_seconds_total 1.25
# EOF
)");
}

TEST(Metrics, NameCountersWithTheirEndingInTheOlderFormat) {
    metrics_source from;
    from.statistics = statistics;
    const std::string text = metrics_text(from, false);
    EXPECT_NE(text.find("# TYPE ravo_messages_total counter\n"), text.npos);
    EXPECT_EQ(text.find("# TYPE ravo_messages counter\n"), text.npos);
}

TEST(Metrics, OfDocumentsThatAreNoneHaveNoMessages) {
    for (const char *text :
         {"", "{", "[]", "% Invalid input", R"({"total": 5})", R"({"vlans": [1, 2], "total": {}})"}) {
        metrics_source from;
        from.statistics = from.settings = from.transactions = from.servers = from.advice = text;
        EXPECT_EQ(metrics_text(from, true).substr(metrics_text(from, true).size() - 6), "# EOF\n") << text;
    }
}

TEST(Metrics, EscapeLabels) {
    EXPECT_EQ(label_text("a\"b\\c\nd"), "a\\\"b\\\\c\\nd");
}

}  // namespace

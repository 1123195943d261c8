// SPDX-License-Identifier: Apache-2.0
// The metrics, as Prometheus and its kin read them.
//
// Series are bounded: an interface has those of its types and outcomes that happened, a port one, a server a few; 4094
// VLANs with traffic of every kind would be some 150,000. What was received on no VLAN interface counts for interface
// "none", so that the sums over a label equal the totals that the daemon shows.
#ifndef FRONT_WEB_METRICS_H
#define FRONT_WEB_METRICS_H

#include <string>
#include <string_view>

#include "exchange.h"
#include "process_figures.h"

namespace ravo::web {

// The daemon's documents; empty text for one that is not there.
struct metrics_source {
    std::string_view statistics;
    std::string_view settings;
    std::string_view transactions;  // or its end
    std::string_view servers;
    std::string_view advice;
    std::string daemon_version;
    process_figures process;
};

// The exposition. open_metrics: of that format; else of the older text format, in which a counter's name ends in _total
// everywhere.
std::string metrics_text(const metrics_source &from, bool open_metrics);

// A label's value with what must be escaped escaped.
std::string label_text(std::string_view value);

// GET /metrics.
void serve_metrics(const exchange_ptr &x);

}  // namespace ravo::web

#endif

// SPDX-License-Identifier: Apache-2.0
// GET /api/v1/...: what the daemon's documents say, for the page and for programs. docs/web.md lists them all.
#ifndef FRONT_WEB_API_READS_H
#define FRONT_WEB_API_READS_H

#include "exchange.h"

namespace ravo::web {

void serve_health(const exchange_ptr &x);
void serve_settings(const exchange_ptr &x);
void serve_interfaces(const exchange_ptr &x);  // ?search=, limit=, offset=
void serve_servers(const exchange_ptr &x);
void serve_clients(const exchange_ptr &x);       // ?search=, limit=, offset=
void serve_client(const exchange_ptr &x);        // ?limit=
void serve_statistics(const exchange_ptr &x);    // ?top=
void serve_transactions(const exchange_ptr &x);  // ?limit=, offset=
void serve_advice(const exchange_ptr &x);
void serve_configuration(const exchange_ptr &x);

// How a document that is not there is answered: the daemon is gone, or it does not know the command.
void respond_absent(exchange &x, const struct document &doc);

}  // namespace ravo::web

#endif

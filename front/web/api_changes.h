// SPDX-License-Identifier: Apache-2.0
// Changes: through the relay's commands for its web pages where there is one, else through its configuration commands.
// Each is written to the log with the user's name.
#ifndef FRONT_WEB_API_CHANGES_H
#define FRONT_WEB_API_CHANGES_H

#include "exchange.h"

namespace ravo::web {

void add_server(const exchange_ptr &x);          // POST   /api/v1/interfaces/NAME/servers {"address"}
void remove_server(const exchange_ptr &x);       // DELETE /api/v1/interfaces/NAME/servers/ADDRESS
void set_trust(const exchange_ptr &x);           // PUT    /api/v1/interfaces/NAME/trust {"trusted"}
void clear_interface(const exchange_ptr &x);     // DELETE /api/v1/interfaces/NAME
void save_configuration(const exchange_ptr &x);  // POST   /api/v1/configuration/save

}  // namespace ravo::web

#endif

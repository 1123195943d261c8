// SPDX-License-Identifier: Apache-2.0
// The check of option 82 in replies.
#ifndef RAVO_IF_CHECK_H
#define RAVO_IF_CHECK_H

#include <cstdint>

#include "ravo_db_if.h"

// Checks that a reply's option 82 names this interface and the port of its transaction, which is then finished. op82:
// its first sub-option inside a message_buffer, or null; header: the message. Returns 1 when the reply may be
// delivered, else 0.
[[nodiscard]] int ravo_option_check_reply(const iface *iface, const std::uint8_t *op82, const std::uint8_t *header);

#endif

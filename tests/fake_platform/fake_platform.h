// SPDX-License-Identifier: Apache-2.0
// The whole fake platform.
//
// It stands in for the platform when the relay is linked into a unit test: it records what the relay sends, prints and
// arms, hands in what it receives, and can make any call fail. Nothing happens by itself: a test moves the clock, makes
// a descriptor readable, fires a hook.
#ifndef FAKE_PLATFORM_H
#define FAKE_PLATFORM_H

#include <string>
#include <vector>

#include "fake_cli.h"
#include "fake_frame.h"
#include "fake_interface.h"
#include "fake_memory.h"
#include "fake_outcome.h"
#include "fake_print.h"
#include "fake_script.h"
#include "fake_socket.h"
#include "fake_text.h"
#include "fake_timer.h"

namespace fake {

// Brings everything back to the start.
void reset();

// Forgets what was recorded (lines, calls, sent messages, statuses, outcomes) and keeps the state.
void forget();

// What the relay did not give back: timers, memory, trees, descriptors, readers, each with a line that names it.
std::vector<std::string> leftovers();

}  // namespace fake

#endif

// SPDX-License-Identifier: Apache-2.0
// The standard streams of a program in front.
#ifndef FRONT_CLIENT_STREAMS_H
#define FRONT_CLIENT_STREAMS_H

namespace ravo::client {

// Opens something in the place of each standard stream that was closed, so that no connection gets its number. Reading
// it, or writing to it, goes on failing. To be called before anything else is opened.
void fill_standard_streams();

}  // namespace ravo::client

#endif

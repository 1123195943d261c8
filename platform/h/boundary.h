// SPDX-License-Identifier: Apache-2.0
// The version of the boundary between the relay and its platform: of all headers in this folder together.
#ifndef PLATFORM_BOUNDARY_H
#define PLATFORM_BOUNDARY_H

// One more whenever a platform that was right before would not be any more: a function it has to provide is new or
// takes something else, a record has another layout, a promise became stronger. A platform compares it with the version
// it was written for.
#define RAVO_BOUNDARY_VERSION 2

#endif

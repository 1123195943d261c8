// SPDX-License-Identifier: Apache-2.0
// Diagnostic output to a message file, without allocation.
//
// The message file is closed at start: every writer is silent until openMsgfile is called.
#ifndef RAVO_OUTPUT_H
#define RAVO_OUTPUT_H

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstddef>
#include <cstdint>

#include "wrappers.h"

extern int msg_fd;  // the message file, -1: none

// Chooses the message file: null or "" standard error, "/dev/null" none, else the file becomes standard error.
void openMsgfile(const char *path);
// Writes the time of day, seconds and microseconds.
void writeMsgTimestamp();
// Writes a number in decimal to any descriptor.
void writeUInt(int fd, std::uint32_t value);
// Writes a number in decimal to the message file.
void writeMsgUInt(std::uint32_t value);
// Writes length bytes to the message file.
void writeMsgRaw(const char *text, std::size_t length);
// Writes a line: time, ": ", text, line end.
void writeMsgLine(const char *text, std::size_t length);
// Writes an address as text into buffer, "< ???? >" when it is not known. Returns buffer.
const char *addressText(int family, const void *address, char *buffer, std::size_t size);
// Formats at *cursor and advances it; *room shrinks. An overflow is reported to the message file and changes neither.
void appendFormat(char **cursor, std::size_t *room, const char *format, ...) __attribute__((format(printf, 3, 4)));
// Appends text to destination when it is shorter than *room, which then shrinks.
void appendText(char *destination, const char *text, std::size_t *room);
// Writes one line about a received message. length: its bytes, -1 for a failed receive (errno says why).
void tracePacket(const std::uint8_t *message, ssize_t length, const ravo_pktinfo *info, const struct sockaddr *peer);

#endif

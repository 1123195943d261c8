// SPDX-License-Identifier: Apache-2.0
// Numbers of front-panel ports.
//
// A port is in a module (slot) and has an interface number made of both: 5120 + 64 * (module - 1) + port. That
// relation, its range and its text "module/port" are here once, for the platform and the daemon alike. Nothing here
// calls a service or allocates.
#ifndef PLATFORM_PORT_NUMBER_H
#define PLATFORM_PORT_NUMBER_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define PORT_NUMBER_BASE 5120     // what a port's number is counted from; itself no port
#define PORT_NUMBER_PORTS 64      // numbers in a module: ports 0 to 63, in the first module 1 to 63
#define PORT_NUMBER_MODULES 255   // modules are counted from 1; the last one that fits the byte of a circuit id
#define PORT_NUMBER_FIRST 5121    // module 1, port 1
#define PORT_NUMBER_LAST 21439    // module 255, port 63
#define PORT_NUMBER_TEXT_SIZE 11  // room for the text of any number: 4294967295 with its NUL

// Module and port as a circuit id holds them, one byte each.
struct port_place {
    uint8_t module;
    uint8_t port;
};

// Tells whether a number is a port's.
static inline int port_number_is_port(uint32_t number) {
    return number >= PORT_NUMBER_FIRST && number <= PORT_NUMBER_LAST;
}

// Returns the number of a port, 0 when there is none of this module and port.
static inline uint32_t port_number_of(uint32_t module, uint32_t port) {
    if (module < 1 || module > PORT_NUMBER_MODULES || port >= PORT_NUMBER_PORTS) return 0;
    const uint32_t number = PORT_NUMBER_BASE + PORT_NUMBER_PORTS * (module - 1) + port;
    return number == PORT_NUMBER_BASE ? 0 : number;
}

// Returns module and port of any number, taken as signed: both 0 when it is 0 or negative. For a number that is no
// port's the division truncates towards zero, and each result is cut to its byte.
static inline struct port_place port_number_place(uint32_t number) {
    struct port_place place = {0, 0};
    if ((int32_t)number <= 0) return place;
    const int32_t from_base = (int32_t)number - PORT_NUMBER_BASE;
    place.module = (uint8_t)(from_base / PORT_NUMBER_PORTS + 1);
    place.port = (uint8_t)(from_base % PORT_NUMBER_PORTS);
    return place;
}

// Writes a number in decimal, NUL-terminated. Returns the position of the NUL.
static inline char *port_number_digits(uint32_t number, char *text) {
    uint32_t unit = 1;
    while (number / unit >= 10) unit *= 10;
    for (; unit > 0; unit /= 10) *text++ = (char)('0' + number / unit % 10);
    *text = '\0';
    return text;
}

// Writes the text of a number, NUL-terminated, into text (PORT_NUMBER_TEXT_SIZE bytes): "2/1" for a port, "-" for 0,
// any other number in decimal. Returns text.
static inline const char *port_number_text(uint32_t number, char *text) {
    char *end = text;
    if (number == 0) {
        *end++ = '-';
        *end = '\0';
    } else if (!port_number_is_port(number)) {
        port_number_digits(number, end);
    } else {
        const struct port_place place = port_number_place(number);
        end = port_number_digits(place.module, end);
        *end++ = '/';
        port_number_digits(place.port, end);
    }
    return text;
}

// Reads digits into *value, which stops growing past any module or port. Returns the position behind them.
static inline const char *port_number_read(const char *text, uint32_t *value) {
    *value = 0;
    for (; *text >= '0' && *text <= '9'; ++text)
        if (*value < 1000) *value = *value * 10 + (uint32_t)(*text - '0');
    return text;
}

// Returns the number of the port that a text such as "2/1" names, 0 for any other text.
static inline uint32_t port_number_parse(const char *text) {
    uint32_t module;
    uint32_t port;
    const char *slash = port_number_read(text, &module);
    if (slash == text || *slash != '/') return 0;
    const char *end = port_number_read(slash + 1, &port);
    if (end == slash + 1 || *end != '\0') return 0;
    return port_number_of(module, port);
}

#ifdef __cplusplus
}
#endif

#endif

// SPDX-License-Identifier: Apache-2.0
// What the relay's own messages mean. Their words are what users and their scripts know; what they leave open is
// here, for "show ip dhcp relay help" and the command reference.
#ifndef PLATFORM_LINUX_COMMANDS_RELAY_MESSAGES_H
#define PLATFORM_LINUX_COMMANDS_RELAY_MESSAGES_H

namespace ravo::cli {

struct relay_message {
    const char *text;     // as it is printed, without "% " and blanks at its end
    const char *meaning;  // with what to do about it
};

inline constexpr relay_message relay_messages[] = {
    {"RAVO Err Unhandle errno N",
     "After servers were removed: that worked, and N servers by vendor class, by client identifier or plain ones are "
     "left on the interface."},
    {"No dhcp relay if existed",
     "Nothing is configured for this interface. After servers were removed: that worked, 2 are left."},
    {"Can not set dhcp relay config of this interface",
     "The interface has no IPv4 address yet: give its device one first. After servers were removed: that worked, 3 are "
     "left."},
    {"DHCP relay server not found",
     "The interface has no server for these words. After servers were removed: that worked, 5 are left."},
    {"DHCP relay server ip error",
     "This is no address of a server. After servers were removed: that worked, 6 are left."},
    {"DHCP relay server exitsted already",
     "The interface has this server already; nothing was changed. After servers were removed: that worked, 7 are "
     "left."},
    {"DHCP relay server full",
     "The interface has as many servers of this kind as it can have: remove one first. After servers were removed: "
     "that worked, 8 are left."},
    {"No DHCP relay server on this interface", "The interface has no such server; nothing was removed."},
    {"Dhcp relay interface not dound", "There is no record of this interface: it is not there, or has no address."},
    {"Memory not enough", "There is no memory for another record; nothing was changed."},
    {"Set the same configuration current configuration",
     "What was asked for is in force already; nothing was changed."},
    {"Socket fail", "The relay's sockets could not be opened; the log says why."},
};

}  // namespace ravo::cli

#endif

// SPDX-License-Identifier: Apache-2.0
// The inventory: what the kernel's devices are to the switch, kept live from netlink.
//
// It knows the VLAN interfaces, the ports, the relation between the kernel's device numbers and the switch's interface
// numbers, and for every device on which frames first enter the box how they are to be classified.
#ifndef PLATFORM_LINUX_INVENTORY_INVENTORY_H
#define PLATFORM_LINUX_INVENTORY_INVENTORY_H

#include <array>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "fault.h"
#include "inventory/inventory_change.h"
#include "inventory/switch_description.h"

namespace ravo::platform {

// A device that the packet channel listens on.
struct tap_device {
    int kernel_ifindex;
    std::string name;
    bool uplink = false;  // no port: of what comes in, only replies to a VLAN interface's address are of use
    bool operator==(const tap_device &) const = default;
};

struct ingress {
    std::uint16_t vlan = 0;          // VLAN id
    std::uint32_t port_ifindex = 0;  // the switch's interface number of the port, 0 when it has none
    bool closed = false;             // on its way is a bridge whose port takes no frames
    int locked_member = 0;           // on its way is a bridge that asks who sent it: the member's device, 0 none
    std::uint16_t locked_vlan = 0;   // in which VLAN of that bridge, 0 when it knows none
};

enum class ingress_result {
    ok,
    unknown_vlan,  // no VLAN interface for the frame's tag or the port's PVID
    unknown_port,  // the device is no tap (any more)
    uplink,        // of no VLAN, but for the box itself: its device has an address of its own
    elsewhere,     // read on another device too, and to be judged there
};

// Installs the description; used at start and again on SIGHUP (then everything is classified anew).
void inventory_describe(const switch_description &description);

// Opens netlink, reads all that exists (without events: those follow at nsm_client_start), then follows changes on the
// event loop. The fault, if any: the reason of failure.
fault inventory_open();
// The same with another room, in bytes, for changes that wait to be read.
fault inventory_open_with_buffer(int receive_buffer);
void inventory_close();

// The devices to listen on now.
std::vector<tap_device> inventory_taps();

// Classifies a frame received on a tap. tagged, tag: its 802.1Q VLAN id if it had a tag (0 counts as untagged).
ingress_result inventory_classify(int kernel_ifindex, bool tagged, std::uint16_t tag, ingress *out);

// Tells whether what was classified as good does not reach the box's own IP all the same, so that the relay is not to
// see it either: a bridge on its way refuses it, or it is addressed to another machine. frame: from the Ethernet
// destination address on, with both addresses.
bool inventory_refuses(const ingress &in, std::span<const std::uint8_t> frame);

// The VLAN whose interface has an IPv4 address, in network byte order; 0 when none has.
std::uint16_t inventory_vlan_of_address(std::uint32_t address);

// The kernel's device number for one of the switch's interface numbers; 0 when no such device exists now.
int inventory_kernel_ifindex(std::uint32_t switch_ifindex);

// The number of the port with this device, and the reverse; 0 and an empty text when there is none. Ports that are away
// keep their numbers.
std::uint32_t inventory_port_number(const std::string &device);
std::string inventory_port_device(std::uint32_t switch_ifindex);

// The VLAN whose interface a device is now; 0 when it is none.
std::uint16_t inventory_vlan_of_device(const std::string &device);

// Called after each change of the taps. One listener: the packet channel.
void inventory_on_change(std::function<void()> listener);

// The device behind a VLAN interface as it is now.
struct interface_state {
    int kernel_ifindex;
    bool up;
    std::array<std::uint8_t, 6> mac;
    const std::vector<address_record> *addresses;  // from the widest scope to the narrowest, secondary ones last
};

// Listeners are called whenever the device behind the interface of a VLAN (1 to 4094) changed, after each single
// change, so that an interface that goes and comes back is seen to do so. now: NULL when the interface does not exist;
// valid during the call. There is no way to stop listening: listeners live as long as the process.
using interface_listener = std::function<void(std::uint16_t vlan, const interface_state *now)>;
void inventory_on_interface(interface_listener listener);

// One row of "show interfaces brief": a VLAN interface, an uplink or a port that is there.
struct inventory_row {
    enum class what { interface, uplink, port };
    what kind = what::interface;
    std::string name;           // vlan10, uplink, or port 1/1
    std::uint32_t ifindex = 0;  // the switch's number, 0 of an uplink
    std::string device;         // the kernel's device
    int kernel_ifindex = 0;
    bool up = false;
    std::string address;               // primary address/prefix of an interface or an uplink, else empty
    std::uint16_t pvid = 0;            // of a port, 0 for none
    std::vector<std::uint16_t> vlans;  // of a port: those of the interfaces at which its frames end
    std::string_view why;              // of a port: why it has its number
    bool guessed = false;              // of a port: for no reason but that the number was free
};
// VLAN interfaces, then uplinks, then ports, each in order of their numbers. between: called now and then, and may
// change the inventory; what goes meanwhile is left out.
std::vector<inventory_row> inventory_rows(const std::function<void()> &between = {});

// Numbers of ports from one life of the process to the next: reads what the file remembers, after the description was
// installed, and writes it whenever a port gets a number. path: empty for no file; in_use: tells whether a number must
// not be given to another device now.
void inventory_remember(const std::string &path, std::function<bool(std::uint32_t number)> in_use);

// Forgets the numbers of devices that are away and not described. Returns how many.
std::size_t inventory_forget_ports();

}  // namespace ravo::platform

#endif

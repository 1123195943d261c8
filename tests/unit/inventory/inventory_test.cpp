// SPDX-License-Identifier: Apache-2.0
// The inventory on real devices: each test enters a network namespace of its own and changes it with ip(8).
#include "inventory/inventory.h"

#include <event2/event.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>

#include "base/files.h"
#include "base/loop.h"
#include "interface_events.h"
#include "interfaces/nsm_feed.h"
#include "inventory/inventory_netlink.h"
#include "log/log.h"

namespace ravo::platform {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr auto limit = std::chrono::seconds(60);

double cpu_seconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](const timeval &t) {
        return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) / 1e6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

// Serves the loop until something is so.
bool wait_for(const std::function<bool()> &so) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!so()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        const timeval moment = {0, 10000};
        event_base_loopexit(loop_base(), &moment);
        event_base_loop(loop_base(), EVLOOP_ONCE);
    }
    return true;
}

class Inventory : public testing::Test {
  protected:
    int tap_changes = 0;

    void SetUp() override {
        nsm_follow_inventory();
        if (geteuid() != 0) GTEST_SKIP() << "needs root, to make a network namespace";
        ASSERT_EQ(unshare(CLONE_NEWNET), 0);
        inventory_describe({});
        interface_events::connect();
    }
    void TearDown() override {
        inventory_on_change(nullptr);
        inventory_close();
        interface_events::take();
    }

    // Makes changes, one ip(8) command a line.
    static void ip(const std::string &commands) {
        std::FILE *pipe = popen("ip -batch -", "w");
        ASSERT_NE(pipe, nullptr);
        std::fputs(commands.c_str(), pipe);
        ASSERT_EQ(pclose(pipe), 0) << commands;
    }
    void open() {
        ASSERT_EQ(inventory_open().text, "");
        nsm_deliver_existing();
        inventory_on_change([this] { ++tap_changes; });
    }
    // Serves the loop until all changes made so far are in: they come in order, so a last one that is in tells it.
    static void settle() {
        ip("link add vlan4094 type bridge\n");
        ASSERT_TRUE(wait_for([] { return inventory_kernel_ifindex(5118) != 0; }));
        ip("link del vlan4094\n");
        ASSERT_TRUE(wait_for([] { return inventory_kernel_ifindex(5118) == 0; }));
        std::erase(interface_events::lines(), "delete vlan4094");
    }
    // The events of some changes.
    static std::vector<std::string> events_of(const std::string &commands) {
        interface_events::take();
        ip(commands);
        settle();
        return interface_events::take();
    }
    static std::vector<std::string> tap_names() {
        std::vector<std::string> names;
        for (const tap_device &tap : inventory_taps())
            names.push_back(tap.name + " " + std::to_string(tap.kernel_ifindex) + (tap.uplink ? " uplink" : ""));
        return names;
    }
    static std::string classify(int ifindex, bool tagged = false, std::uint16_t tag = 0) {
        ingress in;
        switch (inventory_classify(ifindex, tagged, tag, &in)) {
            case ingress_result::ok:
                return "vlan " + std::to_string(in.vlan) + " port " + std::to_string(in.port_ifindex);
            case ingress_result::unknown_vlan:
                return "unknown vlan";
            default:
                return "unknown port";
        }
    }
};

const char two_vlans[] =
    "link add vlan10 index 1034 address 02:00:00:00:10:00 type bridge\n"
    "link add vlan20 index 1044 address 02:00:00:00:20:00 type bridge\n"
    "link add swp1 index 5121 type veth peer name host1\n"
    "link add swp2 index 5122 type veth peer name host2\n"
    "link set swp1 master vlan10\n"
    "link set swp2 master vlan20\n"
    "link set swp1 up\n"
    "link set swp2 up\n"
    "address add 10.0.10.1/24 dev vlan10\n"
    "address add 10.0.10.2/24 dev vlan10\n"
    "link set vlan10 up\n";

// Stands first: once delivered, the process is told of changes for good.
TEST_F(Inventory, DeliversWhatExists) {
    ip(two_vlans);
    ASSERT_EQ(inventory_open().text, "");
    EXPECT_THAT(interface_events::take(), IsEmpty());
    nsm_deliver_existing();
    EXPECT_THAT(interface_events::take(),
                ElementsAre("up vlan10 1034 type 7 mac 020000001000 [10.0.10.1/24 10.0.10.2/24:1]",
                            "add 10.0.10.1/24 to vlan10", "add 10.0.10.2/24:1 to vlan10"));
    EXPECT_THAT(tap_names(), ElementsAre("swp1 5121", "swp2 5122"));
    EXPECT_EQ(classify(5121), "vlan 10 port 5121");
    EXPECT_EQ(classify(5122), "vlan 20 port 5122");
    EXPECT_EQ(classify(5121, true, 10), "unknown vlan");
    EXPECT_EQ(classify(1034), "unknown port");
    EXPECT_EQ(inventory_kernel_ifindex(1034), 1034);
    EXPECT_EQ(inventory_kernel_ifindex(5122), 5122);
    EXPECT_EQ(inventory_kernel_ifindex(1054), 0);
    EXPECT_EQ(inventory_kernel_ifindex(5123), 0);
    EXPECT_EQ(inventory_kernel_ifindex(1), 0);
}

TEST_F(Inventory, InterfaceCreatedAddressedReaddressedDownDeletedAndCreatedAgain) {
    open();
    const std::string create = "link add vlan30 address 02:00:00:00:30:00 type bridge\n";
    EXPECT_THAT(events_of(create), IsEmpty()) << "it is down";
    EXPECT_THAT(events_of("link set vlan30 up\n"), ElementsAre("up vlan30 1054 type 7 mac 020000003000 []"));
    EXPECT_THAT(events_of("address add 10.0.30.1/24 dev vlan30\n"), ElementsAre("add 10.0.30.1/24 to vlan30"));
    EXPECT_THAT(events_of("address del 10.0.30.1/24 dev vlan30\naddress add 10.0.31.1/24 dev vlan30\n"),
                ElementsAre("remove 10.0.30.1/24 from vlan30 1054 type 7 mac 020000003000 [10.0.30.1/24]",
                            "add 10.0.31.1/24 to vlan30"));
    EXPECT_THAT(events_of("link set vlan30 down\n"), IsEmpty());
    EXPECT_THAT(events_of("link set vlan30 up\n"),
                ElementsAre("up vlan30 1054 type 7 mac 020000003000 [10.0.31.1/24]"));
    EXPECT_THAT(events_of("link set vlan30 address 02:00:00:00:30:01\n"),
                ElementsAre("up vlan30 1054 type 7 mac 020000003001 [10.0.31.1/24]"));
    const int first_device = inventory_kernel_ifindex(1054);
    // The kernel takes the addresses away before the device.
    EXPECT_THAT(events_of("link del vlan30\n"),
                ElementsAre("remove 10.0.31.1/24 from vlan30 1054 type 7 mac 020000003001 [10.0.31.1/24]",  //
                            "delete vlan30"));
    EXPECT_EQ(inventory_kernel_ifindex(1054), 0);
    EXPECT_THAT(events_of(create + "link set vlan30 up\n"), ElementsAre("up vlan30 1054 type 7 mac 020000003000 []"));
    EXPECT_NE(inventory_kernel_ifindex(1054), 0);
    EXPECT_NE(inventory_kernel_ifindex(1054), first_device);
}

TEST_F(Inventory, DeletedAndCreatedAgainInOneGoIsSeen) {
    open();
    const std::string create = "link add vlan30 index 1054 address 02:00:00:00:30:00 type bridge\nlink set vlan30 up\n";
    EXPECT_THAT(events_of(create + "link del vlan30\n" + create),
                ElementsAre("up vlan30 1054 type 7 mac 020000003000 []", "delete vlan30",
                            "up vlan30 1054 type 7 mac 020000003000 []"));
}

TEST_F(Inventory, SecondaryAddressesGoOrArePromotedAsTheKernelDecides) {
    ip(two_vlans);
    open();
    EXPECT_THAT(
        events_of("address del 10.0.10.1/24 dev vlan10\n"),
        ElementsAre("remove 10.0.10.2/24:1 from vlan10 1034 type 7 mac 020000001000 [10.0.10.1/24 10.0.10.2/24:1]",
                    "remove 10.0.10.1/24 from vlan10 1034 type 7 mac 020000001000 [10.0.10.1/24]"));
    ASSERT_EQ(std::system("echo 1 > /proc/sys/net/ipv4/conf/vlan10/promote_secondaries"), 0);
    events_of("address add 10.0.10.1/24 dev vlan10\naddress add 10.0.10.2/24 dev vlan10\n");
    EXPECT_THAT(
        events_of("address del 10.0.10.1/24 dev vlan10\n"),
        ElementsAre("remove 10.0.10.1/24 from vlan10 1034 type 7 mac 020000001000 [10.0.10.1/24 10.0.10.2/24:1]",
                    "add 10.0.10.2/24 to vlan10"));
}

TEST_F(Inventory, NextPrimaryAddressTakesOver) {
    ip(two_vlans);
    open();
    events_of("address add 10.0.11.1/24 dev vlan10\n");
    EXPECT_EQ(interface_events::text_of(*ifg_lookup_by_index(1034)),
              "vlan10 1034 type 7 mac 020000001000 [10.0.10.1/24 10.0.11.1/24 10.0.10.2/24:1]");
    EXPECT_THAT(events_of("address flush dev vlan10 to 10.0.10.0/24\n"),
                testing::Contains("up vlan10 1034 type 7 mac 020000001000 [10.0.11.1/24]"));
}

TEST_F(Inventory, RenamedDeviceIsAnotherInterface) {
    ip(two_vlans);
    open();
    EXPECT_THAT(events_of("link set vlan10 down\nlink set vlan10 name vlan40\nlink set vlan40 up\n"),
                ElementsAre("delete vlan10", "add 10.0.10.1/24 to vlan40", "add 10.0.10.2/24:1 to vlan40",
                            "up vlan40 1064 type 7 mac 020000001000 [10.0.10.1/24 10.0.10.2/24:1]"));
    EXPECT_EQ(inventory_kernel_ifindex(1064), 1034);
    EXPECT_EQ(classify(5121), "vlan 40 port 5121");
    EXPECT_THAT(events_of("link set vlan40 down\nlink set vlan40 name lan\n"), ElementsAre("delete vlan40"));
    EXPECT_THAT(tap_names(), ElementsAre("lan 1034 uplink", "swp2 5122")) << "it keeps its addresses";
}

TEST_F(Inventory, PortMovesBetweenBridges) {
    ip(two_vlans);
    open();
    const int changes = tap_changes;
    EXPECT_THAT(events_of("link set swp1 master vlan20\n"), IsEmpty());
    EXPECT_EQ(classify(5121), "vlan 20 port 5121");
    EXPECT_EQ(classify(5122), "vlan 20 port 5122");
    events_of("link set swp1 nomaster\n");
    EXPECT_THAT(tap_names(), ElementsAre("swp2 5122"));
    EXPECT_GT(tap_changes, changes);
    events_of("link set swp1 master vlan10\n");
    EXPECT_EQ(classify(5121), "vlan 10 port 5121");
    EXPECT_THAT(tap_names(), ElementsAre("swp1 5121", "swp2 5122"));
    events_of("link del swp1\n");
    EXPECT_EQ(classify(5121), "unknown port");
    EXPECT_EQ(inventory_kernel_ifindex(5121), 0);
}

TEST_F(Inventory, DescribedDevicesAndASecondDescription) {
    ip(two_vlans);
    open();
    interface_events::take();
    ip("link add up0 address 02:00:00:00:50:00 type veth peer name up0-far\nlink set up0 up\n");
    settle();
    inventory_describe({.ports = {{"up0", 2, 3}, {"swp1", 3, 1}}, .interfaces = {{50, "up0"}}});
    EXPECT_THAT(interface_events::take(), ElementsAre("up vlan50 1074 type 7 mac 020000005000 []"));
    const int up0 = inventory_kernel_ifindex(1074);
    EXPECT_EQ(inventory_kernel_ifindex(5187), up0);
    EXPECT_EQ(classify(up0), "vlan 50 port 5187");
    EXPECT_EQ(classify(5121), "vlan 10 port 5249");
    EXPECT_STREQ(ifg_get_by_name("up0")->name, "vlan50");
    EXPECT_EQ(ifg_get_by_name("swp1"), nullptr);
    inventory_describe({});
    EXPECT_THAT(interface_events::take(), ElementsAre("delete vlan50"));
    EXPECT_EQ(classify(up0), "unknown port");
}

// "port 1/1 5121 swp1 5121 up [10] kernel index"
std::string text_of(const inventory_row &row) {
    std::string out = row.name + " " + std::to_string(row.ifindex) + " " + row.device + " " +
                      std::to_string(row.kernel_ifindex) + (row.up ? " up " : " down ") + row.address;
    if (row.kind != inventory_row::what::port) return out;
    out += "[";
    for (const std::uint16_t vlan : row.vlans) out += (out.back() == '[' ? "" : " ") + std::to_string(vlan);
    return out + "] " + std::string(row.why);
}

TEST_F(Inventory, RowsTellInterfacesAndPortsThatAreThere) {
    inventory_describe({.ports = {{"swp1", 1, 1}, {"away0", 4, 7}}, .interfaces = {}});
    ip(two_vlans);
    open();
    std::vector<std::string> rows;
    for (const inventory_row &row : inventory_rows()) rows.push_back(text_of(row));
    EXPECT_THAT(rows, testing::IsSupersetOf({"vlan10 1034 vlan10 1034 up 10.0.10.1/24", "vlan20 1044 vlan20 1044 down ",
                                             "port 1/1 5121 swp1 5121 up [10] description",
                                             "port 1/2 5122 swp2 5122 up [20] kernel index"}));
    EXPECT_THAT(rows, testing::Not(testing::Contains(testing::HasSubstr("4/7"))));
    ip("link add up0 index 77 type veth peer name up0-far\nlink set up0 up\naddr add 192.0.2.1/24 dev up0\n");
    settle();
    rows.clear();
    for (const inventory_row &row : inventory_rows()) rows.push_back(text_of(row));
    EXPECT_THAT(rows, testing::Contains("uplink 0 up0 77 up 192.0.2.1/24"));
}

// Whoever asks for the rows may let others have their turn between two of them.
TEST_F(Inventory, APortThatGoesBetweenTwoRowsIsLeftOut) {
    constexpr unsigned calls_for_interfaces = 4094 / 64;
    ip(two_vlans);
    open();
    unsigned calls = 0;
    std::vector<std::string> devices;
    for (const inventory_row &row : inventory_rows([&] {
             if (++calls != calls_for_interfaces + 1) return;
             ip("link del swp2\n");
             settle();
         }))
        devices.push_back(row.device);
    EXPECT_GT(calls, calls_for_interfaces);
    EXPECT_THAT(devices, testing::IsSupersetOf({"vlan10", "vlan20", "swp1"}));
    EXPECT_THAT(devices, testing::Not(testing::Contains("swp2")));
}

TEST_F(Inventory, NumbersOfPortsAreRememberedInAFile) {
    char name[] = "/tmp/ravo-ports-XXXXXX";
    ASSERT_NE(mkdtemp(name), nullptr);
    const std::string path = std::string(name) + "/ports";
    ASSERT_EQ(replace_file(path, "absent0 1/40 free 5\nrecalled0 9/9 free 0\nbroken\n", 0600), 0);
    inventory_remember(path, {});
    ip(two_vlans);
    ip("link add recalled0 type veth peer name far0\nlink set recalled0 master vlan10\n");
    open();
    EXPECT_EQ(inventory_port_number("recalled0"), 5120U + 8 * 64 + 9);
    EXPECT_THAT(log_recent(), testing::Contains(testing::HasSubstr(path + ":3: not a device")));
    std::string text;
    ip("link add new0 type veth peer name far1\nlink set new0 master vlan10\n");
    settle();
    ASSERT_EQ(read_file(path, 10000, &text), 0);
    EXPECT_THAT(text, testing::HasSubstr("\nabsent0 1/40 free 5\n"));
    EXPECT_THAT(text, testing::HasSubstr("\nrecalled0 9/9 free 0\n"));
    EXPECT_THAT(text, testing::HasSubstr("\nnew0 "));
    EXPECT_GE(inventory_forget_ports(), 1U);
    ASSERT_EQ(read_file(path, 10000, &text), 0);
    EXPECT_THAT(text, testing::Not(testing::HasSubstr("absent0")));
    EXPECT_THAT(text, testing::HasSubstr("\nrecalled0 9/9 free 0\n"));
    inventory_remember("", {});
    std::filesystem::remove_all(name);
}

std::string bridges(int from, int to) {
    std::string commands;
    for (int vlan = from; vlan <= to; ++vlan) {
        const std::string name = "vlan" + std::to_string(vlan);
        commands += "link add " + name + " index " + std::to_string(1024 + vlan) + " type bridge\nlink set " + name +
                    " up\naddress add 10." + std::to_string(vlan / 250) + "." + std::to_string(vlan % 250) +
                    ".1/24 dev " + name + "\n";
    }
    return commands;
}

TEST_F(Inventory, FiveHundredBridgesWhileItListens) {
    open();
    const double before = cpu_seconds();
    EXPECT_EQ(events_of(bridges(1, 500)).size(), 1000U) << "each comes up and gets its address";
    std::printf("cpu: %.3f s\n", cpu_seconds() - before);
    EXPECT_EQ(netlink_rereads(), 0U);
    for (int vlan = 1; vlan <= 500; ++vlan) EXPECT_EQ(inventory_kernel_ifindex(1024U + vlan), 1024 + vlan);
}

TEST_F(Inventory, LostChangesAreMadeGoodByReadingAgain) {
    ip(two_vlans);
    open();
    interface_events::take();
    inventory_close();
    const auto opened = std::chrono::steady_clock::now();
    ASSERT_EQ(inventory_open_with_buffer(/*receive_buffer=*/1).text, "");
    ip("link del vlan10\nlink set swp2 nomaster\naddress add 10.0.20.1/24 dev vlan20\n" + bridges(100, 300));
    ASSERT_TRUE(wait_for([] { return netlink_rereads() != 0; }));
    settle();
    const auto passed = std::chrono::steady_clock::now() - opened;
    EXPECT_LE(netlink_rereads(), static_cast<unsigned long>(passed / std::chrono::seconds(1)))
        << "one a second at most";
    EXPECT_EQ(inventory_kernel_ifindex(1034), 0);
    for (int vlan = 100; vlan <= 300; ++vlan) {
        EXPECT_EQ(inventory_kernel_ifindex(1024U + vlan), 1024 + vlan);
        const interface *ifp = ifg_lookup_by_index(1024U + static_cast<unsigned>(vlan));
        ASSERT_NE(ifp, nullptr);
        EXPECT_NE(ifp->ifc_ipv4, nullptr) << ifp->name;
    }
    EXPECT_THAT(inventory_taps(), IsEmpty());
    const std::vector<std::string> told = interface_events::take();
    EXPECT_EQ(std::count(told.begin(), told.end(), "delete vlan10"), 1);
    EXPECT_EQ(std::count(told.begin(), told.end(), "add 10.0.20.1/24 to vlan20"), 1);
    EXPECT_EQ(std::count_if(told.begin(), told.end(), [](const std::string &line) { return line.starts_with("up "); }),
              201);
}

}  // namespace
}  // namespace ravo::platform

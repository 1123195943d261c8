# SPDX-License-Identifier: Apache-2.0
"""What is configured for an interface outlasts it: deleted, readdressed, renamed, away at a start, a daemon killed."""

import re
import signal

import pytest
from managed import Daemon
from ravolab.process import wait_for

OPTION60 = ' ip dhcp relay option60 string "a b" exact-match address 192.0.2.12\n'
SETTINGS = f" ip dhcp relay information trusted\n ip dhcp relay address 192.0.2.11\n!\ninterface vlan20\n{OPTION60}!\n"
WAITING = ("! vlan20 is not there: these settings wait for it\ninterface vlan20\n ip dhcp relay information trusted\n"
           f" ip dhcp relay address 192.0.2.11\n{OPTION60}!\n")


@pytest.fixture
def daemon(tmp_path):
    daemon = Daemon(tmp_path)
    yield daemon
    daemon.close()


def make(daemon, vlan, device=None, address=None):
    device = device or f"vlan{vlan}"
    daemon.namespace.ip(f"link add {device} type bridge", f"link set {device} up",
                        f"addr add {address or f'10.{vlan}.0.1'}/24 dev {device}")


def running(daemon):
    return daemon.sh("-c", "show running-config")


def wait_running(daemon, expected):
    wait_for(lambda: running(daemon) == expected, 30, lambda: f"{expected!r}; it is {running(daemon)!r}; configuration")


def configured(daemon):
    make(daemon, 20)
    daemon.start()
    assert daemon.configure(["interface vlan 20", " ip dhcp relay address 192.0.2.11",
                             " ip dhcp relay information trusted", OPTION60]) == ""
    before = running(daemon)
    assert before == f"!\ninterface vlan20\n{SETTINGS}"
    return before


def settings_told(daemon):
    return re.findall(r"^settings: (.*)$", daemon.log, re.M)


def test_deleted_and_made_again(daemon):
    before = configured(daemon)
    daemon.namespace.ip("link del vlan20")
    wait_running(daemon, WAITING)
    make(daemon, 20)
    wait_running(daemon, before)
    assert settings_told(daemon) == [
        "interface vlan20 is gone; its configuration of 3 lines waits for it to come back",
        "interface vlan20 is there again at 10.20.0.1; its configuration of 3 lines is in force"]


def test_an_address_goes_and_comes_back(daemon):
    configured(daemon)
    daemon.configure(["interface vlan 20", "no ip dhcp relay address"], status=1)  # tells that other servers are left
    before = running(daemon)
    daemon.namespace.ip("addr del 10.20.0.1/24 dev vlan20")
    wait_running(daemon, "! vlan20 has no address: these settings wait for one\ninterface vlan20\n"
                         f" ip dhcp relay information trusted\n{OPTION60}!\n")
    daemon.namespace.ip("addr add 10.20.0.1/24 dev vlan20")
    wait_running(daemon, before)


def test_what_waits_is_saved_and_survives_a_restart(daemon):
    before = configured(daemon)
    daemon.namespace.ip("link del vlan20")
    wait_running(daemon, WAITING)
    daemon.sh("-c", "write memory")
    assert daemon.startup.read_text() == WAITING
    daemon.restart()
    assert running(daemon) == WAITING
    make(daemon, 20)
    wait_running(daemon, before)


def test_a_start_up_section_of_an_absent_interface_waits(daemon):
    daemon.startup.write_text("interface vlan 20\n ip dhcp relay address 192.0.2.11\n"
                              "interface vlan 21\n ip dhcp local-relay\n")
    daemon.start()
    assert running(daemon) == (
        "! vlan20 is not there: these settings wait for it\ninterface vlan20\n ip dhcp relay address 192.0.2.11\n!\n"
        "! vlan21 is not there: these settings wait for it\ninterface vlan21\n ip dhcp local-relay\n!\n")
    make(daemon, 20)
    wait_for(lambda: "vlan20 Relay IP Address\n 192.0.2.11 " in daemon.sh("-c", "show ip dhcp relay"), 30, "settings")
    # Local relay needs no address.
    daemon.namespace.ip("link add vlan21 type bridge", "link set vlan21 up")
    wait_running(daemon, "!\ninterface vlan20\n ip dhcp relay address 192.0.2.11\n!\ninterface vlan21\n!\n"
                         "interface vlan21\n ip dhcp local-relay\n!\n")


def test_what_waits_can_be_changed_and_forgotten(daemon):
    configured(daemon)
    assert daemon.configure(["no interface vlan20"], status=1) == \
        "% Interface vlan20 is there; take its settings back one by one\n"
    daemon.namespace.ip("link del vlan20")
    wait_running(daemon, WAITING)
    assert daemon.configure(["interface vlan 20", "ip dhcp relay address 192.0.2.13", "no ip dhcp relay option60",
                             "no ip dhcp relay information trusted"], status=1) == "% No dhcp relay if existed \n"
    assert running(daemon) == ("! vlan20 is not there: these settings wait for it\ninterface vlan20\n"
                               " ip dhcp relay address 192.0.2.11\n ip dhcp relay address 192.0.2.13\n!\n")
    assert daemon.configure(["no interface vlan 20"]) == ""
    assert running(daemon) == ""
    assert daemon.configure(["no interface vlan20"], status=1) == "% No settings wait for interface vlan20\n"
    make(daemon, 20)
    wait_running(daemon, "!\ninterface vlan20\n")


def test_names_are_swapped(daemon):
    make(daemon, 20)
    make(daemon, 21)
    daemon.start()
    daemon.configure(["interface vlan 20", "ip dhcp relay address 192.0.2.20", "interface vlan 21",
                      "ip dhcp relay option61 hex 0x21 address 192.0.2.21"])
    before = running(daemon)
    daemon.namespace.ip("link set vlan20 down", "link set vlan21 down", "link set vlan20 name other",
                        "link set vlan21 name vlan20", "link set other name vlan21", "link set vlan20 up",
                        "link set vlan21 up")
    wait_for(lambda: daemon.sh("-c", "show interfaces brief").count("up ") == 2, 30, "both interfaces up")
    wait_running(daemon, before)


def test_a_daemon_killed_in_between_loses_nothing_that_was_saved(daemon):
    before = configured(daemon)
    daemon.sh("-c", "write memory")
    daemon.namespace.ip("link del vlan20")
    wait_running(daemon, WAITING)
    daemon.process.send_signal(signal.SIGKILL)
    daemon.process.wait()
    daemon.start()
    assert running(daemon) == WAITING
    make(daemon, 20)
    wait_running(daemon, before)


def test_nothing_is_kept_when_the_description_says_so(daemon):
    switch = daemon.folder / "switch.toml"
    switch.write_text("[settings]\nkeep = false\n")
    make(daemon, 20)
    daemon.start("--switch", switch)
    daemon.configure(["interface vlan 20", "ip dhcp relay address 192.0.2.11"])
    daemon.namespace.ip("link del vlan20")
    wait_running(daemon, "")
    daemon.configure(["ip dhcp relay information trust-all"])
    assert running(daemon) == "ip dhcp relay information trust-all\n!\n"
    daemon.configure(["no ip dhcp relay information trust-all"])
    make(daemon, 20)
    wait_running(daemon, "!\ninterface vlan20\n")
    assert settings_told(daemon) == []


def test_many_interfaces_leave_and_return_at_once(daemon):
    """The kernel takes its time to delete one; the unit test has a thousand."""
    vlans = range(1000, 1100)
    up = [line for vlan in vlans for line in (f"link add vlan{vlan} type bridge", f"link set vlan{vlan} up",
                                              f"addr add 10.{vlan // 250}.{vlan % 250}.1/24 dev vlan{vlan}")]
    daemon.namespace.ip(*up)
    daemon.start()
    daemon.configure(["interface range vlan 1000-1099", "ip dhcp relay address 192.0.2.11",
                      "ip dhcp relay information trusted"])
    before = running(daemon)
    daemon.namespace.ip(*(f"link del vlan{vlan}" for vlan in vlans))
    wait_for(lambda: running(daemon).count("is not there") == 100, 60, "end of all interfaces")
    daemon.namespace.ip(*up)
    wait_running(daemon, before)

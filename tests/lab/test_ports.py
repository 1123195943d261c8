# SPDX-License-Identifier: Apache-2.0
"""Ports keep their numbers: deleted and made again, over restarts, into the switch description, and with none to remember."""

import json
import re

import pytest
from managed import Daemon
from ravolab.process import wait_for


@pytest.fixture
def daemon(tmp_path):
    daemon = Daemon(tmp_path)
    daemon.namespace.ip("link add vlan10 type bridge", "link set vlan10 up")
    daemon.switch = tmp_path / "switch.toml"
    daemon.switch.write_text("")
    daemon.options = ("--switch", daemon.switch)
    yield daemon
    daemon.close()


def plug(daemon, *names):
    for name in names:
        daemon.namespace.ip(f"link add {name} type veth peer name far-{name}", f"link set {name} master vlan10 up")


def ports(daemon):
    """{device: "1/1 name"} as "show interfaces brief" tells."""
    shown = daemon.sh("-c", "show interfaces brief")
    assert max(map(len, shown.splitlines())) <= 80
    rows = re.findall(r"^port (\S+) +\d+ +(?:up|down) +\S+ +\S+ +(\S+) +(.+)$", shown, re.M)
    return {device: f"{place} {why}" for place, device, why in rows}


def wait_ports(daemon, expected):
    wait_for(lambda: ports(daemon) == expected, 30, lambda: f"{expected}; they are {ports(daemon)}; ports")


def restart(daemon, *options):
    assert daemon.process.stop() == 0
    return daemon.start(*(options or daemon.options))


def test_a_port_made_again_has_its_number_after_a_restart(daemon):
    """The second one is not to become the first because the first was made again later."""
    plug(daemon, "swp1", "swp2", "left", "right")
    daemon.start(*daemon.options)
    expected = {"swp1": "1/1 name", "swp2": "1/2 name", "left": "1/3 next free", "right": "1/4 next free"}
    assert ports(daemon) == expected
    daemon.namespace.ip("link del swp1", "link del left")
    wait_ports(daemon, {"swp2": "1/2 name", "right": "1/4 next free"})
    plug(daemon, "left", "swp1")
    wait_ports(daemon, expected)
    restart(daemon)
    assert ports(daemon) == expected


def test_numbers_given_while_another_was_away_are_remembered(daemon):
    plug(daemon, "left", "right")
    daemon.start(*daemon.options)
    daemon.namespace.ip("link del left")
    wait_ports(daemon, {"right": "1/2 next free"})
    restart(daemon)
    plug(daemon, "middle")
    wait_ports(daemon, {"right": "1/2 next free", "middle": "1/3 next free"})
    plug(daemon, "left")
    wait_ports(daemon, {"left": "1/1 next free", "right": "1/2 next free", "middle": "1/3 next free"})
    daemon.process.send_signal(9)
    daemon.process.wait()
    daemon.start(*daemon.options)
    assert ports(daemon) == {"left": "1/1 next free", "right": "1/2 next free", "middle": "1/3 next free"}


def test_absent_ports_are_forgotten_on_demand(daemon):
    plug(daemon, "left", "right")
    daemon.start(*daemon.options)
    daemon.namespace.ip("link del left")
    wait_ports(daemon, {"right": "1/2 next free"})
    assert daemon.sh("-c", "clear ip dhcp relay ports") == "1 absent ports forgotten\n"
    plug(daemon, "middle")
    wait_ports(daemon, {"middle": "1/1 next free", "right": "1/2 next free"})


def test_numbers_are_copied_to_the_switch_description(daemon):
    plug(daemon, "swp1", "left", "right")
    before = '# ours\n[channel]\nrecorder = 100\n\n[[port]]\ndevice = "right"\nmodule = 2\nport = 7\ntrap = false\n'
    daemon.switch.write_text(before)
    daemon.start(*daemon.options)
    assert ports(daemon) == {"swp1": "1/1 name", "left": "1/2 next free", "right": "2/7 description"}
    assert daemon.sh("-c", "copy ports switch-description") == f"2 ports added to {daemon.switch}\n"
    assert daemon.switch.read_text() == before + (
        '\n# Ports as "copy ports switch-description" found them.\n\n'
        '[[port]]\ndevice = "swp1"\nmodule = 1\nport   = 1\n\n[[port]]\ndevice = "left"\nmodule = 1\nport   = 2\n')
    assert daemon.switch.with_name("switch.toml.1").read_text() == before
    described = {"swp1": "1/1 description", "left": "1/2 description", "right": "2/7 description"}
    assert ports(daemon) == described
    assert daemon.sh("-c", "copy ports switch-description") == \
        f"Each port that is there has its number in {daemon.switch} already\n"
    restart(daemon)
    assert ports(daemon) == described


def test_a_description_that_cannot_take_the_ports_stays_as_it_is(daemon):
    plug(daemon, "left")
    daemon.start(*daemon.options)
    for text, reason in (
            ('port = [{device = "x", module = 1, port = 9}]\n',
             rf"The ports do not fit into {daemon.switch}, which stays as it is: {daemon.switch}:\d+:\d+: .+"),
            ('[[port]]\ndevice = "other"\nmodule = 1\nport = 1\n',
             rf"The ports do not fit into {daemon.switch}, which stays as it is: {daemon.switch}:11:\d+: port 1/1 is "
             "already in line 4; give each port a number of its own"),
            ("[port\n", rf"{daemon.switch}:1:\d+: .+")):
        daemon.switch.write_text(text)
        printed = daemon.sh("-c", "copy ports switch-description", status=1)
        assert re.fullmatch(f"% {reason}\n", printed), printed
        assert daemon.switch.read_text() == text


def test_without_a_folder_nothing_is_remembered_and_the_log_says_so_once(daemon):
    plug(daemon, "left", "right")
    daemon.start(*daemon.options, "--state", "/dev/null/state")
    line = "state: /dev/null/state cannot be used, numbers of ports and saved versions are not remembered: Not a directory\n"
    wait_for(lambda: line in daemon.log, 30, "the line in the log")
    assert daemon.log.count(line) == 1
    daemon.namespace.ip("link del left")
    restart(daemon, *daemon.options, "--state", "/dev/null/state")
    assert ports(daemon) == {"right": "1/1 next free"}


def test_a_spoiled_memory_costs_the_line_alone(daemon):
    plug(daemon, "left", "right")
    (daemon.folder / "state").mkdir()
    memory = daemon.folder / "state" / "ports"
    memory.write_text("left 1/40 free 0\nright what\n\x00\x01\n")
    daemon.start(*daemon.options)
    assert ports(daemon) == {"left": "1/40 next free", "right": "1/1 next free"}
    for number in (2, 3):
        assert f"{memory}:{number}: not a device, a port, a reason and a time; the line is left out\n" in daemon.log


def test_rows_of_interfaces_uplinks_and_ports(daemon):
    plug(daemon, "swp1")
    daemon.namespace.ip("addr add 10.10.0.1/24 dev vlan10", "link add up0 index 99 type veth peer name far-up0",
                        "link set up0 up", "addr add 192.0.2.1/24 dev up0")
    daemon.start(*daemon.options)
    shown = daemon.sh("-c", "show interfaces brief")
    assert re.fullmatch(r"""Interface  Number  State  Address             Device           Index
vlan10       1034  up     10\.10\.0\.1/24        vlan10           \d+
uplink          -  up     192\.0\.2\.1/24        up0              99

Port        Number  State  PVID  VLANs           Device           Numbered by
port 1/1      5121  up        -  10              swp1             name
""", shown), shown
    rows = json.loads(daemon.sh("-c", "show interfaces brief | json"))["interfaces"]
    assert rows[1] == {"name": "uplink", "kind": "uplink", "up": True, "address": "192.0.2.1/24", "device": "up0",
                       "kernel_ifindex": 99}
    assert rows[2].pop("kernel_ifindex")
    assert rows[2] == {"name": "port 1/1", "kind": "port", "ifindex": 5121, "up": True, "device": "swp1", "vlans": [10],
                       "numbered_by": "name", "over_limit": 0}

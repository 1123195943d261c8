# SPDX-License-Identifier: Apache-2.0
"""A message that ends the daemon: kept by the next one, which holds its port and serves all others."""

import json
import re
import signal
import subprocess

from ravolab.craft import broadcast, message
from ravolab.process import wait_for

CONFIGURATION = """ip dhcp relay
no ip dhcp relay information check
ip dhcp local-relay
ip dhcp local-relay vlan 10
interface vlan 10
 ip dhcp local-relay
exit
interface vlan 20
 ip dhcp relay address 192.0.2.200
exit
"""
# Without this the reply that ends the daemon would not reach it.
UNGUARDED = "[guard]\ncore_assertions = true\n"


def outcome(relay, port, word):
    return json.loads(relay.sh(f"show ip dhcp relay statistics port {port} | json"))["outcomes"][word]


def attack(host):
    host.send(broadcast(message("OFFER", op=2, mac=host.mac, xid=0x6C6C), host.mac, sport=67))


def test_port_of_a_crash_is_held_and_others_are_served(bare_lab):
    attacker, good = bare_lab.client(1), bare_lab.client(3)
    relay = bare_lab.start_relay(startup_config=CONFIGURATION, switch_toml=UNGUARDED)
    attack(attacker)
    assert relay.process.wait() == -signal.SIGABRT
    relay.start()
    told = relay.wait_log(rf"crash: ravod died while it handled a message of client {attacker.mac} on VLAN 10, "
                          r"port 1/1, held for 10 s: (\S+)\n")
    read = subprocess.run(["tshark", "-n", "-r", told[1], "-T", "fields", "-e", "dhcp.id", "-e", "frame.comment"],
                          text=True, capture_output=True, check=True, timeout=60)
    assert read.stdout == "0x00006c6c\tthe daemon died while it handled this message\n"
    for _ in range(3):
        attack(attacker)
    good.send(broadcast(message("DISCOVER", mac=good.mac, xid=7), good.mac))
    wait_for(lambda: outcome(relay, "1/3", "relayed") == 1, 30, "request of another port")
    wait_for(lambda: outcome(relay, "1/1", "port-held") == 3, 30, "messages of the held port")
    assert relay.stop() == 0
    assert len(re.findall("^crash: ", relay.log, re.M)) == 1

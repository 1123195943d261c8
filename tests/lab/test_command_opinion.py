# SPDX-License-Identifier: Apache-2.0
"""Random commands, right and wrong ones: the daemon and the model of it must print the same and end in the same state."""

import random
import re

import pytest
from command_opinion import POLICIES, Commands, Record
from conftest import open_lab

STEPS, LOOKS = 120, 10
SERVERS = ["192.0.2.11", "192.0.2.12", "10.0.0.1", "10.255.255.254", "172.16.0.9"]
VENDORS = ["abc", "a b", "MSFT 5.0", "x" * 63, "v" * 64, "w" * 67, "w" * 68, 'say "hi"', "back\\slash", "ends!", "what?", "p|q"]
IDENTIFIERS = ["0x1", "0x01AABBCCDD", "0x01aabbccee", "0x01aabb", "0xABC", "0x", "0X12", "12", "0x12g4", "x",
               "0x" + "5" * 256, "0x" + "5" * 257, "0x" + "6" * 255, "0x" + "0" * 300]
DOWN_VLANS = [30, 4094]
VLANS = [10, 20, 99, *DOWN_VLANS]


@pytest.fixture(scope="module")
def lab():
    """Two of the VLANs have an interface that is down and has no address: their records are made by commands."""
    for lab in open_lab(name="commands", servers=1):
        lab.switch.ip(*(f"link add vlan{vlan} index {1024 + vlan} type bridge" for vlan in DOWN_VLANS))
        yield lab


def quoted(text):
    return '"' + text.replace("\\", "\\\\").replace('"', '\\"') + '"'


def global_step(dice, model):
    """A command of global configuration mode and the model's answer, as a function."""
    vlans = dice.sample(range(1, 9), dice.randrange(1, 4))
    listed = ",".join(map(str, vlans))
    policy, hops = dice.choice(list(POLICIES)), dice.randrange(1, 17)
    return dice.choice([
        ("ip dhcp relay", model.relay_on),
        ("no ip dhcp relay", model.relay_off),
        ("ip dhcp relay information option", lambda: model.set("option", 1)),
        ("no ip dhcp relay information option", lambda: model.set("option", 0)),
        ("ip dhcp relay information check", lambda: model.set("check", 1)),
        ("no ip dhcp relay information check", lambda: model.set("check", 0)),
        (f"ip dhcp relay information policy {policy}", lambda: model.set("policy", POLICIES[policy])),
        (f"ip dhcp relay information policy {policy}", lambda: model.set("policy", POLICIES[policy])),
        (f"ip dhcp relay hops {hops}", lambda: model.set("hops", hops)),
        ("ip dhcp relay information trust-all", model.trust_everything),
        ("no ip dhcp relay information trust-all", model.trust_nothing),
        ("ip dhcp local-relay", lambda: model.set_local(1)),
        ("no ip dhcp local-relay", lambda: model.set_local(0)),
        (f"ip dhcp local-relay vlan {listed}", lambda: model.change_local_vlans(vlans, add=True)),
        (f"no ip dhcp local-relay vlan {listed}", lambda: model.change_local_vlans(vlans, add=False)),
        (f"debug ip dhcp relay {dice.randrange(2)}", lambda: (0, "")),
    ])


def interface_step(dice, model, vlan):
    server, vendor, word = dice.choice(SERVERS), dice.choice(VENDORS), dice.choice(IDENTIFIERS)
    rule = dice.randrange(2)
    match = ("exact-match", "partial-match")[rule]
    string, at = f"string {quoted(vendor)}", f"address {server}"
    add_vendor = (f"ip dhcp relay option60 {string} {match} {at}", lambda: model.add_vendor(vlan, vendor, rule, server))
    add_client = (f"ip dhcp relay option61 hex {word} {at}", lambda: model.add_client(vlan, word, server))
    add_server = (f"ip dhcp relay {at}", lambda: model.add_server(vlan, server))
    no60, no61 = "no ip dhcp relay option60", "no ip dhcp relay option61"
    return dice.choice([
        *[add_server] * 5, *[add_vendor] * 6, *[add_client] * 8,
        (f"no ip dhcp relay {at}", lambda: model.remove_server(vlan, server)),
        (f"no ip dhcp relay {at}", lambda: model.remove_server(vlan, server)),
        ("no ip dhcp relay address", lambda: model.remove_server(vlan)),
        ("ip dhcp relay information trusted", lambda: model.trust(vlan)),
        ("no ip dhcp relay information trusted", lambda: model.distrust(vlan)),
        ("ip dhcp local-relay", lambda: model.relay_locally(vlan, True)),
        ("no ip dhcp local-relay", lambda: model.relay_locally(vlan, False)),
        (no60, lambda: model.remove_vendor(vlan)),
        (f"{no60} {match}", lambda: model.remove_vendor(vlan, rule=rule)),
        (f"{no60} {string}", lambda: model.remove_vendor(vlan, vendor)),
        (f"{no60} {at}", lambda: model.remove_vendor(vlan, server=server)),
        (f"{no60} {string} {match}", lambda: model.remove_vendor(vlan, vendor, rule)),
        (f"{no60} {match} {at}", lambda: model.remove_vendor(vlan, rule=rule, server=server)),
        (f"{no60} {string} {at}", lambda: model.remove_vendor(vlan, vendor, server=server)),
        (f"{no60} {string} {match} {at}", lambda: model.remove_vendor(vlan, vendor, rule, server)),
        (no61, lambda: model.remove_client(vlan)),
        (f"{no61} hex {word}", lambda: model.remove_client(vlan, word)),
        (f"{no61} {at}", lambda: model.remove_client(vlan, server=server)),
        (f"{no61} hex {word} {at}", lambda: model.remove_client(vlan, word, server)),
    ])


def check_step(relay, dice, model):
    """Runs one random command, in the daemon and in the model."""
    before = ["configure terminal"]
    if dice.random() < 0.3:
        command, answer = global_step(dice, model)
    else:
        vlan = dice.choice(VLANS)
        before.append(f"interface vlan {vlan}")
        command, answer = interface_step(dice, model, vlan)
    done = relay.run(*before, command)
    assert (done.returncode, done.stdout, done.stderr) == (*answer(), ""), command


def check_state(relay, model):
    """Everything the daemon shows is what the model says."""
    assert relay.sh("show ip dhcp relay") == model.show()
    detail = relay.sh("show ip dhcp relay detail")
    sockets = re.findall(r"^(?:Server_sock|Raw_sock|listen_sock_fd):(-?\d+)$", detail, re.M)
    assert detail == model.show_detail(sockets)
    assert [int(fd) >= 0 for fd in sockets] == [model.relay == 1, model.relay == 1, False]
    assert relay.sh("show ip dhcp relay information trusted-sources") == model.show_trusted()
    for which in (None, 60, 61):
        assert relay.sh(f"show ip dhcp relay option {which or ''}") == model.show_option(which)
    running = relay.running_config()
    assert running.startswith(model.relay_section())
    return running


@pytest.mark.parametrize("number", range(1, 5))
def test_daemon_and_model_agree(lab, relay, number):
    dice = random.Random(number)
    model = Commands([Record(vlan.device, vlan.ifindex, vlan.address, vlan.mac) for vlan in lab.vlans.values()])
    for vlan in DOWN_VLANS:
        model.exists(vlan)
    for step in range(STEPS):
        check_step(relay, dice, model)
        if step % LOOKS == LOOKS - 1:
            check_state(relay, model)
    # What is saved brings all of it back; a record that was made without its number has got it then.
    relay.sh("write memory")
    saved = check_state(relay, model)
    for vlan, record in model.records.items():
        record.ifindex = 1024 + vlan
    relay.restart()
    assert check_state(relay, model) == saved

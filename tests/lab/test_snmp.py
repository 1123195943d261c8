# SPDX-License-Identifier: Apache-2.0
"""ravo-snmp behind a real snmpd: every object walked, every row boundary stepped over, everything writable written with
good and with bad values, agents and daemons restarted."""

import json
import re
import subprocess
import time

import pytest

from managed import Daemon
from ravolab.process import wait_for
from ravolab.relay import REPOSITORY
from snmped import BASE, MODULE, Snmp, modules

INTERFACE, ADDRESS, TRUST = (1, 2, 1), (1, 3, 1), (1, 4, 1)


@pytest.fixture(scope="module")
def daemon(tmp_path_factory):
    daemon = Daemon(tmp_path_factory.mktemp("snmped"), devices=["vlan10", "vlan20", "vlan30"])
    daemon.namespace.ip("addr add 10.10.0.1/24 dev vlan10", "link set vlan10 address 02:00:00:00:10:01 up",
                        "link set vlan20 up", "link set vlan30 up")
    daemon.start()
    yield daemon
    daemon.close()


@pytest.fixture(scope="module")
def snmp(daemon, tmp_path_factory):
    snmp = Snmp(tmp_path_factory.mktemp("snmp"), daemon.socket).start()
    yield snmp
    snmp.close()


@pytest.fixture(autouse=True)
def clean(daemon):
    """Each test begins with vlan10's two servers and vlan20 trusted."""
    for vlan in (10, 20, 30):
        daemon.sh("-c", "configure terminal", "-c", f"web delete dhcp relay ifsettings vlan{vlan}")
    daemon.configure(["interface vlan10", "ip dhcp relay address 192.0.2.11", "ip dhcp relay address 192.0.2.9",
                      "exit", "interface vlan20", "ip dhcp relay information trusted"])
    yield


def settled(snmp):
    """Behind the second for which answers are kept."""
    time.sleep(1.1)
    return snmp


def test_the_module_is_clean():
    paths = ":".join(map(str, modules()))
    conf = REPOSITORY / "build" / "smi.conf"
    conf.write_text(f"path {paths}\n")
    result = subprocess.run(["smilint", "-c", conf, "-l", "6", "-s", "-m", REPOSITORY / "docs/mibs" / f"{MODULE}.txt"],
                            capture_output=True, text=True, timeout=60)
    assert (result.returncode, result.stdout + result.stderr) == (0, "")
    text = (REPOSITORY / "docs/mibs" / f"{MODULE}.txt").read_text()
    assert all(len(found) >= 8 for found in re.findall(r'DESCRIPTION\s+"([^"]*)"', text))


def test_settings(snmp, daemon):
    settled(snmp)
    assert snmp.run("snmpwalk", "ravoSettings", options=["-Oq", "-Os"]).splitlines() == [
        "ravoRelayEnabled.0 disabled", "ravoHopLimit.0 4", "ravoReplyCheck.0 enabled",
        "ravoInformationOption.0 disabled", "ravoInformationPolicy.0 replace", "ravoTrustAll.0 disabled",
        "ravoServerTotal.0 2 servers", "ravoTrustedTotal.0 1 interfaces", "ravoConfigurationSave.0 idle",
        f"ravoVersion.0 {daemon.sh('-c', 'show version').split()[1].rstrip(',')}"]
    daemon.configure(["ip dhcp relay hops 7", "ip dhcp relay information policy drop"])
    settled(snmp)
    assert snmp.run("snmpget", "ravoHopLimit.0", "ravoInformationPolicy.0", options=["-Oqv"]) == "7\ndrop\n"
    daemon.configure(["ip dhcp relay hops 4", "ip dhcp relay information policy replace"])


def test_tables(snmp):
    settled(snmp)
    table = snmp.run("snmptable", "ravoInterfaceTable", options=["-Ci", "-CB", "-Cf", "|"])
    rows = [line for line in table.splitlines() if "|" in line]
    assert rows[0].split("|") == ["index", "ravoInterfaceName", "ravoInterfaceAddress", "ravoInterfaceMac",
                                  "ravoInterfaceLocalRelay"]
    assert rows[1] == "1034|vlan10|10.10.0.1|2:0:0:0:10:1|false"
    assert [row.split("|")[1] for row in rows[1:]] == ["vlan10", "vlan20", "vlan30"]
    assert snmp.walk("ravoAddressTable") == [
        ((*ADDRESS, 3, 1034, 192, 0, 2, 9), "INTEGER: active(1)"),
        ((*ADDRESS, 3, 1034, 192, 0, 2, 11), "INTEGER: active(1)")]
    assert snmp.walk("ravoTrustTable") == [((*TRUST, 2, 1044), "INTEGER: active(1)")]


def test_next_at_every_boundary(snmp):
    """From each instance, from right before it and from below and beyond it, the next one is the next one of the walk."""
    settled(snmp)
    walked = [name for name, _ in snmp.walk(f"{MODULE}::ravoMIB")]
    assert walked == sorted(walked) and len(walked) == len(set(walked)) > 30
    steps = []
    for number, name in enumerate(walked):
        following = walked[number + 1] if number + 1 < len(walked) else None
        steps += [(name, following), ((*name, 0), following), (name[:-1], first_behind(walked, name[:-1])),
                  ((*name[:-1], 4294967295), first_behind(walked, (*name[:-1], 4294967295)))]
    asked = sorted({step[0] for step in steps if step[0]})
    expected = dict(steps)
    for start in range(0, len(asked), 40):
        part = asked[start:start + 40]
        answers = snmp.run("snmpgetnext", *(f"{BASE}.{'.'.join(map(str, name))}" for name in part), options=["-On"])
        got = re.findall(r"^(\.[\d.]+) = ", answers, re.M)
        assert len(got) == len(part), answers
        for name, answer in zip(part, got):
            wanted = expected[name]
            assert (answer == f".{BASE}.{'.'.join(map(str, wanted))}") if wanted else not answer.startswith(
                f".{BASE}."), (name, answer, wanted)


def first_behind(walked, name):
    return next((one for one in walked if one > name), None)


def test_get_of_what_is_not_there(snmp):
    for name in ("ravoRelayEnabled.1", "ravoInterfaceName.1025", "ravoAddressStatus.1034.192.0.2.10", "ravoTrustStatus.1034",
                 "ravoAddressStatus.1034.192.0.2.11.0"):
        assert "No Such Instance" in snmp.run("snmpget", f"{MODULE}::{name}"), name


def test_a_server_row_is_created_and_destroyed(snmp, daemon):
    row = "ravoAddressStatus.1044.192.0.2.50"
    snmp.set(row, "i", 4)
    assert "vlan20 Relay IP Address\n 192.0.2.50 " in daemon.sh("-c", "show ip dhcp relay")
    assert "vlan20" in daemon.sh("-c", "show ip dhcp relay information trusted-sources"), "its trust is as it was"
    assert "active(1)" in snmp.run("snmpget", row)
    snmp.set(row, "i", 1)
    snmp.set(row, "i", 6)
    assert "192.0.2.50" not in daemon.sh("-c", "show ip dhcp relay")
    assert "No Such Instance" in snmp.run("snmpget", row)
    snmp.set(row, "i", 6)  # a row that is not there can be destroyed


def test_trust_rows(snmp, daemon):
    snmp.set("ravoTrustStatus.1054", "i", 4)
    snmp.set("ravoTrustStatus.1044", "i", 6)
    shown = daemon.sh("-c", "show ip dhcp relay information trusted-sources")
    assert "vlan30" in shown and "vlan20" not in shown


def test_writes_that_are_refused(snmp, daemon):
    before = daemon.sh("-c", "show running-config")
    there, new = "ravoAddressStatus.1034.192.0.2.11", "ravoAddressStatus.1034.192.0.2.60"
    for name, kind, value, reason in (
            (there, "i", 4, "inconsistentValue"), (new, "i", 1, "inconsistentValue"), (new, "i", 5, "wrongValue"),
            (new, "i", 2, "wrongValue"), (new, "i", 0, "wrongValue"), (new, "i", 7, "wrongValue"),
            (new, "s", "x", "wrongType"), ("ravoAddressStatus.1034.0.0.0.0", "i", 4, "wrongValue"),
            ("ravoAddressStatus.1035.192.0.2.1", "i", 4, "noCreation"),
            ("ravoAddressStatus.9.192.0.2.1", "i", 4, "noCreation"),
            ("ravoAddressStatus.1034.192.0.2", "i", 4, "noCreation"),
            ("ravoTrustStatus.1044", "i", 4, "inconsistentValue"), ("ravoTrustStatus.1034", "i", 1, "inconsistentValue"),
            ("ravoTrustStatus.1034", "i", 9, "wrongValue"), ("ravoTrustStatus.1035", "i", 4, "noCreation"),
            ("ravoConfigurationSave.0", "i", 3, "wrongValue"), ("ravoConfigurationSave.0", "s", "2", "wrongType"),
            ("ravoHopLimit.0", "i", 5, "notWritable"), ("ravoInterfaceName.1034", "s", "x", "notWritable")):
        numeric = numbered(snmp, name)
        output = snmp.run("snmpset", numeric, kind, str(value), community="change", check=False)
        assert f"Reason: {reason}" in output, (name, kind, value, output)
    assert "noAccess" in snmp.run("snmpset", numbered(snmp, new), "i", "4", check=False)
    assert daemon.sh("-c", "show running-config") == before


def numbered(snmp, name):
    """The identifier of a name, so that the tool does not judge the value itself."""
    column, _, index = name.partition(".")
    out = subprocess.run(["snmptranslate", "-On", f"{MODULE}::{column}"], capture_output=True, text=True, env=snmp.env)
    return f"{out.stdout.strip().lstrip('.')}.{index}"


def test_a_fifth_server_is_too_many_and_a_set_is_all_or_nothing(snmp, daemon):
    rows = [numbered(snmp, f"ravoAddressStatus.1034.192.0.2.{n}") for n in (70, 71, 72)]
    output = snmp.run("snmpset", *(word for row in rows for word in (row, "i", "4")), community="change", check=False)
    assert "resourceUnavailable" in output, output
    assert json.loads(daemon.sh("-c", "show ip dhcp relay | json"))["interfaces"][0]["servers"] == ["192.0.2.11",
                                                                                                   "192.0.2.9"]
    snmp.run("snmpset", *(word for row in rows[:2] for word in (row, "i", "4")), community="change")
    assert len(json.loads(daemon.sh("-c", "show ip dhcp relay | json"))["interfaces"][0]["servers"]) == 4


def test_the_configuration_is_saved(snmp, daemon):
    daemon.startup.unlink(missing_ok=True)
    snmp.set("ravoConfigurationSave.0", "i", 1)
    assert not daemon.startup.exists()
    snmp.set("ravoConfigurationSave.0", "i", 2)
    assert "192.0.2.11" in daemon.startup.read_text()


def test_rows_that_change_during_a_walk_are_seen_once(snmp, daemon):
    """A row behind which the walk stands is removed, one before it added: every other row comes exactly once."""
    settled(snmp)
    name, seen = f"{BASE}.1.3", []
    for step in range(20):
        answer = snmp.run("snmpgetnext", name, options=["-On"])
        name = answer.split(" = ")[0].lstrip(".")
        if not name.startswith(f"{BASE}.1.3."):
            break
        seen.append(tuple(map(int, name.split(".")[-5:])))
        if step == 0:  # the walk is at .9: that goes, and another comes before it
            daemon.configure(["interface vlan10", "no ip dhcp relay address 192.0.2.9",
                              "ip dhcp relay address 192.0.2.5"])
            settled(snmp)
    assert seen == [(1034, 192, 0, 2, 9), (1034, 192, 0, 2, 11)]


def test_the_master_agent_restarted(snmp):
    assert snmp.master.stop() == 0
    snmp.agentx.unlink(missing_ok=True)
    snmp.master.start()
    snmp.wait_there()
    assert snmp.agent.process.poll() is None


def test_the_daemon_gone_and_back(snmp, daemon):
    daemon.process.stop()
    wait_for(lambda: "Reason: (genError)" in snmp.run("snmpget", "ravoHopLimit.0", check=False), 20,
             "word that the daemon is gone", interval=0.3)
    daemon.start()
    snmp.wait_there()
    assert "vlan10" in snmp.run("snmpget", "ravoInterfaceName.1034")

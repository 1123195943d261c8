# SPDX-License-Identifier: Apache-2.0
"""Notifications of ravo-snmp, as a real snmptrapd receives them: a server falls silent, and is back. The daemon is a
scripted one, so that a server is silent when the test wants it."""

from ravolab.process import wait_for
from scripted_daemon import ScriptedDaemon
from snmped import BASE, Snmp

SERVERS = "show ip dhcp relay server | json"


def servers(silent):
    return {"servers": [{"interface": "vlan10", "server": "192.0.2.11", "asked": 25, "answered": 20, "median_us": 700,
                         "p99_us": 900, "silent_seconds": silent}]}


def test_a_server_falls_silent_and_is_back(tmp_path):
    daemon = ScriptedDaemon(tmp_path / "sock")
    daemon.says("show ip dhcp relay", "")
    daemon.says(SERVERS, servers(0))
    snmp = Snmp(tmp_path, tmp_path / "sock")
    snmp.traps.start()
    snmp.master.start()
    wait_for(snmp.agentx.exists, 30, "socket of snmpd")
    snmp.agent.start()
    try:
        row = ".1034.192.0.2.11"
        wait_for(lambda: "Gauge32: 700" in snmp.run("snmpget", f"{BASE}.1.8.1.5{row}", options=["-On"], check=False), 60,
                 lambda: f"server's row:\n{snmp.agent.log}")
        assert f".{BASE}.0." not in snmp.traps.log
        daemon.says(SERVERS, servers(7))
        wait_for(lambda: f".{BASE}.0.1" in snmp.traps.log, 30, lambda: f"notification:\n{snmp.traps.log}")
        silent = next(line for line in snmp.traps.log.splitlines() if f".{BASE}.0.1" in line)
        for column, value in ((3, "Counter64: 25"), (4, "Counter64: 20"), (7, "Gauge32: 7")):
            assert f".{BASE}.1.8.1.{column}{row} = {value}" in silent
        daemon.says(SERVERS, servers(0))
        wait_for(lambda: f".{BASE}.0.2" in snmp.traps.log, 30, lambda: f"second notification:\n{snmp.traps.log}")
        assert snmp.traps.log.count(f".{BASE}.0.1") == 1, "told once"
    finally:
        snmp.close()
        daemon.close()

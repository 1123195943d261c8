# SPDX-License-Identifier: Apache-2.0
"""What is done with the packages in a booted machine, in the order of a package's life. Each step's documentation is its line, with what the
step returns behind it.

The machine has /packages (the packages) and /packages/before (the same as an earlier version), and a network (net.py).
"""

import json
import os
import re
import subprocess
import textwrap
import time
from pathlib import Path

import net
from machine import expect, wait_for

NAMES = ("ravo", "ravo-web", "ravo-snmp")
SERVICES = {"ravo": "ravod", "ravo-web": "ravo-web", "ravo-snmp": "ravo-snmp"}
CONFIGURED = f"""ip dhcp relay
!
ip dhcp relay information option
!
!
interface vlan10
 ip dhcp relay address {net.SERVER}"""


def said(machine, unit, words, since, limit=10):
    """Wait until a line of the unit's journal has these words; since: seconds since 1970."""
    return wait_for(lambda: [line for line in machine.run(f"journalctl -u {unit} -o cat --since=@{int(since)}").splitlines()
                             if words in line], limit, f"a line with {words!r} in {unit}'s journal")[0]


def shown(machine, name, unit="ravod"):
    return machine.run(f"systemctl show -P {name} {unit}")


def running_configuration(machine):
    return machine.run("ravosh -c 'show running-config'")


def serves(machine):
    """It answers, with the configuration that was saved, and brings a client its address."""
    expect(CONFIGURED in running_configuration(machine), f"the configuration is not in force: {running_configuration(machine)}")
    net.lease(machine)


# ---- Installing ----

def install_before(machine):
    """an earlier version is installed; nothing is started, nothing enabled"""
    machine.run("dpkg -i /packages/before/*.deb", 120)
    for unit in SERVICES.values():
        expect(machine.try_(f"systemctl is-active {unit}").stdout == "inactive\n", f"{unit} was started")
        expect(machine.try_(f"systemctl is-enabled {unit}").stdout == "disabled\n", f"{unit} was enabled")


def users_and_groups(machine):
    """users, groups and the configuration's folder are there, with their owners and modes"""
    for user, groups in (("ravo", "ravo"), ("ravo-web", "ravo-web"), ("ravo-snmp", "ravo-snmp")):
        expect(machine.run(f"id -Gn {user}") == groups, f"groups of {user}: {machine.run(f'id -Gn {user}')}")
        expect(machine.run(f"getent passwd {user} | cut -d: -f7") == "/usr/sbin/nologin", f"{user} may sign in")
    machine.run("getent group ravo-admin")
    expect(machine.run("stat -c '%A %U %G' /etc/ravo") == "drwxr-xr-x ravo ravo", machine.run("stat -c '%A %U %G' /etc/ravo"))


# ---- Running ----

def start(machine):
    """the service starts, and is ready when systemctl start returns"""
    machine.run("systemctl enable --now ravod")
    machine.run("ravosh -c 'show version'")  # at once: readiness means that the socket answers
    expect(shown(machine, "ActiveState") == "active" and shown(machine, "NotifyAccess") == "main", "it is not active")
    expect(shown(machine, "StatusText") == "DHCP relay off", f"its status says {shown(machine, 'StatusText')!r}")


def folders(machine):
    """socket and folders have their owners and modes"""
    for path, wanted in {"/run/ravo": "drwxr-xr-x ravo ravo", "/run/ravo/ravod.sock": "srw-rw---- ravo ravo",
                         "/var/lib/ravo": "drwxr-x--- ravo ravo", "/var/log/ravo": "drwxr-x--- ravo ravo"}.items():
        found = machine.run(f"stat -c '%A %U %G' {path}")
        expect(found == wanted, f"{path}: {found}, expected {wanted}")


def groups_may(machine):
    """nobody else is let in, group ravo looks, group ravo-admin changes"""
    for user, groups in (("nobodys", ""), ("looker", "-G ravo"), ("admin", "-G ravo-admin")):
        machine.run(f"useradd -m {groups} {user}")
    refused = machine.try_("ravosh -c 'show version'", user="nobodys")
    expect(refused.returncode == 2 and "only root and members of group ravo or ravo-admin may use ravod" in refused.stderr,
           f"an unknown user: {refused.returncode} {refused.stderr}")
    machine.run("ravosh -c 'show ip dhcp relay'", user="looker")
    refused = machine.try_("ravosh -c 'configure terminal'", user="looker")
    expect(refused.returncode == 1 and "% Not allowed for your group" in refused.stdout, f"one of ravo: {refused.stdout}")
    machine.run("ravosh -c 'configure terminal' -c 'ip dhcp relay' -c 'no ip dhcp relay'", user="admin")


def sandbox(machine):
    """it runs as user ravo with two capabilities, filtered calls, and a root that it may not write to"""
    status = dict(line.split(":\t", 1) for line in machine.run("cat /proc/$(systemctl show -P MainPID ravod)/status").splitlines())
    user = machine.run("id -u ravo")
    expect(status["Uid"].split() == [user] * 4, f"user {status['Uid']}")
    expect(status["CapEff"].strip("0") == status["CapBnd"].strip("0") == "24", f"capabilities {status['CapEff']}, {status['CapBnd']}")
    expect((status["NoNewPrivs"], status["Seccomp"]) == ("1", "2"), "no filter of calls")
    inside = "nsenter -t $(systemctl show -P MainPID ravod) -m "
    for path in ("/usr/bin/new", "/etc/new", "/var/new"):
        expect("Read-only file system" in machine.try_(f"{inside} touch {path}").stderr, f"{path} can be written")
    machine.run(f"{inside} touch /etc/ravo/new && rm /etc/ravo/new")
    exposure = machine.run("systemd-analyze security --no-pager ravod | tail -n 1")
    expect(float(re.search(r"level for \S+: ([\d.]+)", exposure)[1]) <= 1.5, exposure)


def lease(machine):
    """a client gets its address from the server through the relay, with option 82, and the books say so"""
    net.configure(machine)
    address = net.lease(machine)
    clients = machine.run("ravosh -c 'show ip dhcp relay client'")
    expect(re.search(rf"has {re.escape(address)} from {net.SERVER}", clients), f"the clients are: {clients}")
    expect(shown(machine, "StatusText") == "DHCP relay on", f"its status says {shown(machine, 'StatusText')!r}")


def restart(machine):
    """a restart keeps configuration and service"""
    before = shown(machine, "MainPID")
    machine.run("systemctl restart ravod")
    expect(shown(machine, "MainPID") != before, "it is the same process")
    serves(machine)


def restart_under_load(machine):
    """1000 clients at 500 leases a second do not notice five restarts"""
    tool = machine.folder / "packages/many_clients"
    source = Path(__file__).resolve().parents[1] / "lab/trouble/many_clients.cpp"
    subprocess.run(["c++", "-std=c++20", "-O1", "-static", "-I", source.parents[2] / "support", source, "-o", tool], check=True)
    expect(shown(machine, "NFileDescriptorStore") in ("7", "14"), f"{shown(machine, 'NFileDescriptorStore')} descriptors are kept")
    net.stop_server(machine)
    machine.run(f"systemd-run --quiet --collect --unit=clients --property=StandardOutput=truncate:/run/clients /packages/many_clients "
                f"/run/netns/server {net.SERVER} 1000 500 4000 same /run/netns/client:eth0")
    time.sleep(2)
    moments = []
    for _ in range(5):
        moments.append(time.monotonic())
        machine.run("systemctl restart ravod")
        time.sleep(1)
    machine.run("systemctl stop clients")
    net.start_server(machine)
    found = json.loads(machine.run("tail -n 1 /run/clients"))
    gaps = [max((ms for began, ms in found["gaps"] if moment - 0.05 < began < moment + 1), default=0) for moment in moments]
    told = (f"{len(found['again'])} of {found['leases']} leases needed a message again; nobody heard anything for "
            f"{', '.join(f'{gap:.0f}' for gap in gaps)} ms; load {os.getloadavg()[0]:.1f}")
    expect(found["leases"] > 1000 and found["unfinished"] == 0 and not found["again"] and 0 not in gaps, told)
    serves(machine)
    return told


def reload(machine):
    """a reload takes a switch description, and leaves the one in force when the new one has a fault"""
    began, pid = time.time(), shown(machine, "MainPID")
    machine.write("/etc/ravo/switch.toml", '[[port]]\ndevice = "swp1"\nmodule = 1\nport = 7\n')
    machine.run("systemctl reload ravod")
    said(machine, "ravod", "switch description read again: 1 ports", began)
    expect("1/7" in machine.run("ravosh -c 'show interfaces brief'"), "the port kept its number")
    machine.write("/etc/ravo/switch.toml", '[[port]]\ndevice = "swp1"\nmodule = "one"\nport = 7\n')
    machine.run("systemctl reload ravod")
    fault = said(machine, "ravod", "the switch description in use stays", began)
    expect(fault.startswith("/etc/ravo/switch.toml:3:"), fault)
    expect("1/7" in machine.run("ravosh -c 'show interfaces brief'"), "the port lost its number")
    expect(shown(machine, "MainPID") == pid, "it was restarted")
    machine.run("rm /etc/ravo/switch.toml && systemctl reload ravod")
    serves(machine)


def broken(machine):
    """a description with a fault: it does not start, says why once, and starts again when the fault is mended"""
    began = time.time()
    machine.write("/etc/ravo/switch.toml", "[[port]]\ndevice = 7\n")
    expect(machine.try_("systemctl restart ravod").returncode == 1, "it started")
    expect(shown(machine, "ExecMainStatus") == "78" and shown(machine, "ActiveState") == "failed", "it is tried again and again")
    told = machine.run(f"journalctl -o cat _SYSTEMD_INVOCATION_ID={shown(machine, 'InvocationID')}").splitlines()
    expect(len([line for line in told if line.startswith("/etc/ravo/switch.toml:")]) == 1, "\n".join(told))
    machine.run("rm /etc/ravo/switch.toml && systemctl start ravod")
    said(machine, "ravod", "1 VLAN interface, 1 port; 4 lines of /etc/ravo/startup-config applied", began)
    serves(machine)


def networkd(machine):
    """the VLAN is systemd-networkd's, as docs/recipes.md says: deleted and made again, with the relay's settings for it"""
    text = (Path(__file__).resolve().parents[2] / "docs/recipes.md").read_text()
    text = text[text.index("\n## systemd-networkd\n"):text.index("\n## ifupdown2\n")]
    files = dict(re.findall(r"`([a-z0-9]+\.(?:netdev|network))`[^`]*?:\n\n((?:    .*\n|\n)+)",
                            text.replace("`ConfigureWithoutCarrier=`", "it")))
    expect(sorted(files) == ["swp1.network", "up0.network", "vlan10.netdev", "vlan10.network"], f"the recipe's files: {sorted(files)}")
    machine.run("mkdir -p /run/systemd/network && ip link del vlan10")
    wait_for(lambda: "these settings wait for it" in running_configuration(machine), 10, "settings that wait")
    for name, lines in files.items():
        machine.write(f"/run/systemd/network/{name}", textwrap.dedent(lines))
    machine.run("systemctl restart systemd-networkd")
    wait_for(lambda: CONFIGURED in running_configuration(machine), 20, "settings in force")
    wait_for(lambda: "master vlan10" in machine.run("bridge link show dev swp1"), 20, "the port in the bridge")
    serves(machine)
    machine.run("rm -r /run/systemd/network && systemctl stop systemd-networkd systemd-networkd.socket")


def killed(machine):
    """kill -9: it is back at once by itself, and serves"""
    before = shown(machine, "MainPID")
    machine.run(f"kill -9 {before}")
    wait_for(lambda: machine.try_("ravosh -c 'show version'").returncode == 0, 10, "an answer after kill -9")
    expect(shown(machine, "NRestarts") == "1" and shown(machine, "MainPID") != before, "systemd did not restart it")
    serves(machine)


def watchdog(machine):
    """one that hangs is ended by the watchdog and started again"""
    machine.run("mkdir -p /run/systemd/system/ravod.service.d")
    machine.write("/run/systemd/system/ravod.service.d/quick.conf", "[Service]\nWatchdogSec=1\n")
    machine.run("systemctl daemon-reload && systemctl restart ravod")
    before, restarts, began = shown(machine, "MainPID"), int(shown(machine, "NRestarts")), time.time()
    machine.run(f"kill -STOP {before}")
    wait_for(lambda: int(shown(machine, "NRestarts")) > restarts and shown(machine, "ActiveState") == "active", 15, "a restart")
    said(machine, "ravod", "Watchdog timeout", began)
    machine.run("rm -r /run/systemd/system/ravod.service.d && systemctl daemon-reload && systemctl restart ravod")
    serves(machine)


# ---- The programs in front ----

def web(machine):
    """ravo-web starts as its own user, answers, and says when the relay is gone and back"""
    machine.run("systemctl start ravo-web")
    get = "python3 -c 'import sys, urllib.request as u, urllib.error as e\ntry: print(u.urlopen(sys.argv[1]).read().decode())\n" \
          "except e.HTTPError as x: print(x.code, x.read().decode())' http://127.0.0.1:8067"
    expect(re.search(r"^ravo_relay_enabled 1$", machine.run(f"{get}/metrics"), re.M), "metrics do not say that it relays")
    expect("<html" in machine.run(f"{get}/"), "there is no page")
    machine.run("systemctl stop ravod")
    wait_for(lambda: machine.run(f"{get}/api/v1/health").startswith("503"), 10, "/health that says the relay is gone")
    machine.run("systemctl start ravod")
    wait_for(lambda: not machine.run(f"{get}/api/v1/health").startswith("503"), 10, "/health that says the relay is back")
    expect(machine.run("ps -o user= -p $(systemctl show -P MainPID ravo-web)") == "ravo-web", "it runs as another user")


def snmp(machine):
    """ravo-snmp starts as its own user, and the system's snmpd, set as docs/snmp.md says, answers for the relay"""
    machine.run("printf '%s\\n' 'master agentx' 'agentXPerms 0660 0550 root ravo-snmp' "
                "'view systemonly included .1.3.6.1.4.1.8072.9999.9999.67' >>/etc/snmp/snmpd.conf")
    began = time.time()
    machine.run("systemctl enable --now ravo-snmp")  # before snmpd is there for it, so that it has to say so
    said(machine, "ravo-snmp", "no master agent at /var/agentx/master", began)
    machine.run("install -d -m 750 -o root -g ravo-snmp /var/agentx && systemctl restart snmpd")
    said(machine, "ravo-snmp", "snmpd asks for 1.3.6.1.4.1.8072.9999.9999.67", began)
    server = net.SERVER
    row = f"1.3.6.1.4.1.8072.9999.9999.67.1.3.1.3.1034.{server} = INTEGER: 1"
    walked = machine.run("snmpwalk -v2c -c public -On 127.0.0.1 1.3.6.1.4.1.8072.9999.9999.67")
    expect(f".{row}\n" in walked, f"{server} is not in: {walked[:1000]}")
    expect(machine.run("ps -o user= -p $(systemctl show -P MainPID ravo-snmp)") == "ravo-snmp", "it runs as another user")


# ---- Upgrade, reboot, removal ----

def upgrade(machine):
    """an upgrade restarts what ran, keeps what was saved, and says nothing wrong"""
    before = {unit: shown(machine, "MainPID", unit) for unit in SERVICES.values()}
    printed = machine.run("dpkg -i /packages/*.deb 2>&1", 120)
    expect(not re.search(r"warn|error|fail|cannot", printed, re.I), printed)
    for unit, pid in before.items():
        wait_for(lambda unit=unit, pid=pid: shown(machine, "ActiveState", unit) == "active"
                 and shown(machine, "MainPID", unit) not in ("0", pid), 10, f"{unit} as a new process")
    serves(machine)


def reboot(machine):
    """after a reboot it runs by itself, with what was saved, before its network is there"""
    machine.stop()
    machine.start()
    expect(shown(machine, "ActiveState") == "active", "it was not started")
    net.build(machine)
    serves(machine)


def journal(machine):
    """no error in the journal, but those that were asked for"""
    lines = machine.run("journalctl -u ravod -u ravo-web -u ravo-snmp -p err -o cat").splitlines()
    asked = ("/etc/ravo/switch.toml:", "Failed to start", "the switch description in use stays", "Watchdog timeout", "crash:", "Killing process", "Main process exited", "Failed with result")
    others = [line for line in lines if not any(words in line for words in asked)]
    expect(not others, "\n".join(others[:5]))


def remove(machine):
    """a removal stops and disables, and leaves the configuration"""
    printed = machine.run("dpkg -r ravo-web ravo-snmp ravo 2>&1", 120)
    expect(not re.search(r"warn|error|fail|cannot", printed, re.I), printed)
    expect(machine.try_("pgrep -x 'ravod|ravo-web|ravo-snmp'").returncode == 1, "something still runs")
    expect(machine.run("ls /etc/ravo").split()[:1] == ["startup-config"], machine.run("ls /etc/ravo"))
    left = machine.run("find /etc/systemd /run/ravo -name '*ravo*' 2>/dev/null || true")
    expect(not left, f"left: {left}")
    failed = machine.run("systemctl list-units --failed --no-legend --plain 'ravo*'")
    expect(not failed, f"failed units stay: {failed}")


def purge(machine):
    """a purge leaves the users and groups, and no file"""
    printed = machine.run("dpkg -P ravo-web ravo-snmp ravo 2>&1", 120)
    expect(not re.search(r"warn|error|fail|cannot", printed, re.I), printed)
    left = machine.run("find /etc /usr /lib /var /run -xdev \\( -name ravo -o -name 'ravo[d.-]*' -o -name 'ravosh*' \\)")
    expect(not left, f"left: {left}")
    machine.run("getent passwd ravo && getent group ravo-admin")


RESTARTS = [install_before, start, lease, restart_under_load]
ALL = [install_before, users_and_groups, start, folders, groups_may, sandbox, lease, restart, restart_under_load, reload, broken, networkd, killed, watchdog, web, snmp,
       upgrade, reboot, journal, remove, purge]

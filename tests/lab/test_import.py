# SPDX-License-Identifier: Apache-2.0
"""ravo-import: whole outputs for what another relay was told, each of which the daemon finds good."""

import re
import subprocess

import pytest
from conftest import REPOSITORY
from ravolab.relay import BUILD

HEAD = "! made by ravo-import from the settings of dhcrelay\n"
OPTION_82 = ("! -a: the circuit id is VLAN, module and port now, no device's name: servers that read it have to know\n"
             "ip dhcp relay information option\n")
UNCHECKED = ("! without -D replies are not checked; take the next line out, and they are\n"
             "no ip dhcp relay information check\n")


def run(text, *words):
    """(status, standard output, standard error) of the program with this input."""
    done = subprocess.run([BUILD / "ravo-import", *words], input=text, capture_output=True, timeout=20,
                          **({} if isinstance(text, bytes) else {"text": True}))
    return done.returncode, done.stdout, done.stderr


def section(vlan, *servers, both=None):
    remark = f"! {both}: take this section out if only servers are behind it\n" if both else ""
    return f"!\n{remark}interface vlan {vlan}\n" + "".join(f" ip dhcp relay address {server}\n" for server in servers)


def device(name, vlan):
    return (f"# {name}: its name has no VLAN of its own, {vlan} was free: change it here and above\n"
            f'[[interface]]\nvlan = {vlan}\ndevice = "{name}"\n')


GOOD = {
    "a defaults file": (
        '# Defaults for isc-dhcp-relay\n\n# What servers?\nSERVERS="192.0.2.11 192.0.2.12"\n\nINTERFACES="vlan10 eth1"\n'
        'OPTIONS=""\n',
        HEAD + "ip dhcp relay\nip dhcp relay hops 9\n" + section(1, "192.0.2.11", "192.0.2.12", both="eth1") +
        section(10, "192.0.2.11", "192.0.2.12", both="vlan10") + "# switch.toml\n" + device("eth1", 1)),
    "a defaults file with options": (
        "export SERVERS='192.0.2.11' # the one\nOPTIONS=\"-a -m forward -c 5 \\\n -id br0.30 -iu eth9\"\n",
        HEAD + "ip dhcp relay\n" + OPTION_82 + "ip dhcp relay information policy keep\n" + UNCHECKED +
        section(30, "192.0.2.11") +
        "# switch.toml\n# eth9: servers answer over any device that has an address; nothing to write\n"),
    "a command line": (
        "/usr/sbin/dhcrelay -4 -a -D -m discard -c 17 -id eth0.20 \\\n    -i vlan10 -id vlan10 192.0.2.11\n",
        HEAD + "ip dhcp relay\n" + OPTION_82 + "ip dhcp relay information policy drop\nip dhcp relay hops 16\n" +
        section(10, "192.0.2.11") + section(20, "192.0.2.11") + "# switch.toml\n"),
    "a line of a unit": (
        "ExecStart=/usr/sbin/dhcrelay -m replace -i vlan7 192.0.2.11",
        HEAD + "ip dhcp relay\nip dhcp relay hops 9\n" + section(7, "192.0.2.11", both="vlan7") + "# switch.toml\n"),
    "options without an equal": (
        "-4 -d -q --no-pid -pf /run/r.pid -tf trace -A 576 -U eth3 -g 192.0.2.1 -p 6767 -rp 6868 -a -D -m append -c 255 "
        "-id vlan5 192.0.2.11",
        HEAD + "! -d: ravod stays in the foreground always\n"
        "! -q: ravod prints to its log; see --log-level in ravod(8)\n"
        "! --no-pid: ravod writes no such file\n! -pf /run/r.pid: ravod writes no such file\n"
        '! -tf trace: no equal; see "monitor ip dhcp relay"\n! -A 576: no equal; there is no such length to set\n'
        "! -U eth3: no equal; the address of a VLAN's interface is its giaddr, link selection is not written\n"
        "! -g 192.0.2.1: no equal; the address of a VLAN's interface is its giaddr\n"
        "! -p 6767: no equal; the ports are UDP 67 and 68\n! -rp 6868: no equal; the ports are UDP 67 and 68\n"
        "ip dhcp relay\n" + OPTION_82 +
        "! -m append: no equal; keep, drop and replace are there, replace is in force\n"
        "! -c 255: the limit is from 1 to 16 here\nip dhcp relay hops 16\n" + section(5, "192.0.2.11") + "# switch.toml\n"),
    "no hop at all": (
        "-c 0 -id vlan5 192.0.2.11",
        HEAD + "ip dhcp relay\n! -c 0: the limit is from 1 to 16 here\nip dhcp relay hops 1\n" + section(5, "192.0.2.11") +
        "# switch.toml\n"),
    "no device": (
        "dhcrelay 192.0.2.11 192.0.2.12",
        HEAD + 'ip dhcp relay\nip dhcp relay hops 9\n!\n! no device was named, so all were served; take away the "!" for '
        "each VLAN with clients\n!interface vlan 10\n! ip dhcp relay address 192.0.2.11\n"
        "! ip dhcp relay address 192.0.2.12\n# switch.toml\n"),
    "names, and more servers than there may be": (
        "-id vlan5 dhcp.example.net 192.0.2.1 192.0.2.2 192.0.2.3 192.0.2.4 192.0.2.5 192.0.2.1",
        HEAD + "ip dhcp relay\nip dhcp relay hops 9\n!\ninterface vlan 5\n"
        " ! dhcp.example.net: servers are addresses here; write its address: ip dhcp relay address A.B.C.D\n"
        " ip dhcp relay address 192.0.2.1\n ip dhcp relay address 192.0.2.2\n ip dhcp relay address 192.0.2.3\n"
        " ip dhcp relay address 192.0.2.4\n ! 192.0.2.5: an interface has four servers at most\n# switch.toml\n"),
    "names without a VLAN, and two with the same": (
        "-id vlan1 -id br0 -id eth0.2 -id eth1.2 -id vlan4095 -id eth0.007 192.0.2.1",
        HEAD + "ip dhcp relay\nip dhcp relay hops 9\n" + "".join(section(vlan, "192.0.2.1") for vlan in range(1, 7)) +
        "# switch.toml\n" + device("br0", 3) + device("eth1.2", 4) + device("vlan4095", 5) + device("eth0.007", 6)),
}


@pytest.mark.parametrize("name", GOOD)
def test_what_it_prints(name, tmp_path):
    text, expected = GOOD[name]
    assert run(text) == (0, expected, "")
    given = tmp_path / "given"
    given.write_text(text)
    assert run("", given) == (0, expected, "")


@pytest.mark.parametrize("name", GOOD)
def test_the_daemon_finds_it_good(name, tmp_path):
    configuration, description = run(GOOD[name][0])[1].split("# switch.toml\n")
    (tmp_path / "startup-config").write_text(configuration)
    (tmp_path / "switch.toml").write_text("# switch.toml\n" + description)
    for file in tmp_path.iterdir():
        file.chmod(0o600)
    checked = subprocess.run(["unshare", "--net", BUILD / "ravod", "--check", "--startup-config", tmp_path / "startup-config",
                              "--switch", tmp_path / "switch.toml"], capture_output=True, text=True, timeout=20)
    assert (checked.returncode, checked.stdout, checked.stderr) == (0, "", "")


FAULTS = {
    "": "there is neither a command line nor a variable in it",
    "# nothing\n": "there is neither a command line nor a variable in it",
    "dhcrelay -i vlan10": "no server is named; dhcrelay would not start either",
    'SERVERS=""\nINTERFACES="vlan10"': "no server is named; dhcrelay would not start either",
    "SERVERS=192.0.2.11\nvlan10": '"vlan10" is no NAME=VALUE; values with blanks stand in quotes',
    "SERVERS='192.0.2.11": "a quote (') without its end",
    "dhcrelay -i vlan10 $SERVERS": '"$SERVERS" has a variable in it; write its value instead',
    "dhcrelay -6 -l eth0 -u eth1": "-6 is of DHCPv6, which ravo does not relay; give it the command line for IPv4",
    "dhcrelay -x 192.0.2.1": 'unknown option "-x"; see dhcrelay(8), and leave it out if it is of no weight',
    "dhcrelay 192.0.2.1 -i": "-i needs a value",
    "dhcrelay -c 256 192.0.2.1": '-c needs a number from 0 to 255, not "256"',
    "dhcrelay -m keep 192.0.2.1": '-m needs append, replace, forward or discard, not "keep"',
    "dhcrelay -i eth0:1 192.0.2.1": '"eth0:1" is no name of a device; write the name that "ip link" shows',
    "dhcrelay -i 'a\nb' 192.0.2.1": '"a\nb" is no name of a device; write the name that "ip link" shows',
    "dhcrelay 'a b'": '"a b" is neither an address nor the name of a server',
    "dhcrelay a\0b": "has bytes in it that are no text",
    "x" * 65537: "is longer than 64 KiB; that is no command line",
}


@pytest.mark.parametrize("text", FAULTS, ids=FAULTS.values())
def test_faults(text):
    assert run(text) == (1, "", f"ravo-import: standard input: {FAULTS[text]}\n")


def test_nothing_can_be_hidden_in_a_remark():
    """Of a value with line ends and control characters, one line comes out."""
    status, out, _ = run(b"-U 'a\ninterface vlan 9\n\x1b[2J\xff' -id vlan5 192.0.2.11")
    assert (status, out.splitlines()[1]) == (
        0, b"! -U a?interface vlan 9??[2J?: no equal; the address of a VLAN's interface is its giaddr, link selection is not written")


def test_usage(tmp_path):
    assert run("", "a", "b") == (2, "", 'ravo-import: it takes one file, not "b"; see ravo-import --help\n')
    assert run("", "--bare") == (2, "", 'ravo-import: it takes one file, not "--bare"; see ravo-import --help\n')
    assert run("", tmp_path / "none") == (1, "", f"ravo-import: {tmp_path}/none: No such file or directory\n")
    assert run("", tmp_path) == (1, "", f"ravo-import: {tmp_path}: Is a directory\n")
    assert run("", "--version") == (0, f"ravo-import {(REPOSITORY / 'VERSION').read_text().strip()}\n", "")
    assert run("", "--help")[1].startswith("Usage: ravo-import [FILE]\n")


def test_standard_output_that_is_full():
    with open("/dev/full", "w") as full:
        done = subprocess.run([BUILD / "ravo-import"], input="-id vlan5 192.0.2.11", stdout=full, stderr=subprocess.PIPE,
                              text=True, timeout=20)
    assert (done.returncode, done.stderr) == (1, "ravo-import: standard output: No space left on device\n")


def test_the_page_about_moving():
    page = (REPOSITORY / "docs/moving.md").read_text()
    line = re.search(r"^    echo '(.*)' \| ravo-import$", page, re.M)[1]
    printed = re.search(r"^```output\n(.*?)^```$", page, re.M | re.S)[1]
    assert run(line + "\n") == (0, printed, "")

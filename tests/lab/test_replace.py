# SPDX-License-Identifier: Apache-2.0
"""The running configuration is made what a file says, all of it or nothing; what is not confirmed goes back; versions."""

import json
import random
import subprocess
import time

import pytest
from managed import Daemon
from ravolab.process import wait_for
from ravolab.relay import BUILD

FULL = """! a comment
IP DHCP RELAY
ip dhcp relay information option
ip dhcp relay hops 5
interface vlan 20
 ip dhcp relay information trusted
 ip dhcp relay address 192.0.2.11
 ip dhcp relay option61 hex 0xAABB address 192.0.2.13
interface vlan99
 ip dhcp relay address 192.0.2.99
"""
ADDED = """+ip dhcp relay
+ip dhcp relay information option
+ip dhcp relay hops 5
 interface vlan20
+ ip dhcp relay information trusted
+ ip dhcp relay address 192.0.2.11
+ ip dhcp relay option61 hex 0xAABB address 192.0.2.13
 interface vlan99
+ ip dhcp relay address 192.0.2.99
"""


@pytest.fixture
def daemon(tmp_path):
    daemon = Daemon(tmp_path)
    for vlan in (20, 21):
        daemon.namespace.ip(f"link add vlan{vlan} type bridge", f"link set vlan{vlan} up",
                            f"addr add 10.{vlan}.0.1/24 dev vlan{vlan}")
    daemon.start()
    yield daemon
    daemon.close()


def ran(daemon, *words, status=0):
    """What ravosh wrote to standard output and to standard error."""
    result = subprocess.run([BUILD / "ravosh", "--management", daemon.socket, *words], capture_output=True, text=True,
                            timeout=60)
    assert result.returncode == status, result
    return result.stdout, result.stderr


def replace(daemon, text, *options, status=0):
    path = daemon.folder / "wanted"
    path.write_text(text)
    return ran(daemon, "--replace", path, *options, status=status)


def running(daemon):
    return daemon.sh("-c", "show running-config")


def test_twice_and_back_to_nothing(daemon):
    empty = running(daemon)
    assert replace(daemon, FULL, "--dry-run") == (f"{ADDED}7 lines would be changed\n", "")
    assert running(daemon) == empty
    assert replace(daemon, FULL) == (f"{ADDED}7 lines changed\n", "")
    full = running(daemon)
    assert "! vlan99 is not there: these settings wait for it\n" in full
    assert replace(daemon, FULL) == ("unchanged\n", "")
    assert replace(daemon, full) == ("unchanged\n", "")
    assert replace(daemon, FULL.replace("hops 5", "hops 4").replace("192.0.2.11", "192.0.2.12")) == (
        "-ip dhcp relay hops 5\n interface vlan20\n- ip dhcp relay address 192.0.2.11\n"
        "+ ip dhcp relay address 192.0.2.12\n3 lines changed\n", "")
    out, _ = replace(daemon, "")
    assert out.endswith("\n6 lines changed\n")
    assert replace(daemon, "! nothing\n") == ("unchanged\n", "")
    assert "dhcp" not in running(daemon)


def test_all_or_nothing(daemon):
    replace(daemon, FULL)
    before = running(daemon)
    out, err = replace(daemon, "ip dhcp relay hops 7\nip dhcp relay hops 99\ninterface vlan 20\n frobnicate\n.\n"
                               " ip dhcp relay address 127.0.0.300\nshow version\n", status=1)
    assert out == ""
    path = daemon.folder / "wanted"
    assert [line.split(": ")[0] for line in err.splitlines()[:-1]] == [f"{path}:{n}" for n in (2, 4, 5, 6, 7)]
    assert err.splitlines()[-1] == "% Nothing was changed"
    assert replace(daemon, "ip dhcp relay hops 7\n\a\n", status=1) == (
        "", f"{path}:2: Control characters are not allowed in a command line.\n% Nothing was changed\n")
    assert running(daemon) == before


def test_the_audit_says_what_became_of_it(daemon):
    replace(daemon, "ip dhcp relay hops 7\n")
    replace(daemon, "ip dhcp relay hops 99\n", status=1)
    end = ": configure replace terminal: "
    wait_for(lambda: f"{end}refused (1)\n" in daemon.log, 30, "the refusal in the audit")
    told = [line.split(": ", 2)[2] for line in daemon.log.splitlines() if end in line]
    assert told == ["configure replace terminal: done", "configure replace terminal: refused (1)"]


def test_by_the_path_of_a_file(daemon):
    """A file beside the saved configuration; nothing is said of what else the daemon could read."""
    folder = daemon.startup.parent
    wanted = folder / "wanted"
    wanted.write_text("ip dhcp relay hops 7\n")
    command = f"configure replace {wanted}"
    assert daemon.sh("-c", f"{command} dry-run") == "+ip dhcp relay hops 7\n1 line would be changed\n"
    assert daemon.sh("-c", command) == "+ip dhcp relay hops 7\n1 line changed\n"
    assert daemon.sh("-c", f"{command} confirm 1") == "unchanged\n"
    secret = "root:of-nobody-else"
    wanted.write_text(f"ip dhcp relay hops 8\n{secret}\n")
    wanted.chmod(0o644)
    refused = ran(daemon, "-c", command, status=1)[0]
    assert refused.startswith(f"% {wanted}:2: invalid input") and secret in refused
    assert refused.endswith("\n% Nothing was changed\n")
    wanted.chmod(0o640)
    assert ran(daemon, "-c", command, status=1)[0] == (
        f"% {wanted}:2: no line of a configuration\n% Nothing was changed\n")
    outside = daemon.folder / "outside"
    outside.write_text(f"{secret}\n")
    (folder / "link").symlink_to(outside)
    (folder / "pipe").symlink_to("/dev/zero")
    place = f"is not in {folder}, from where configurations are read\n"
    for path in (outside, folder / "link", folder / "pipe", folder / ".." / "outside", daemon.folder / "no" / "file",
                 "/etc/shadow", "/nowhere"):
        assert ran(daemon, "-c", f"configure replace {path}", status=1)[0] == f"% {path} {place}"
    for path, said in ((folder / "none", f"% {folder}/none cannot be read: No such file or directory\n"),
                       (folder, f"% {folder} {place}"),
                       ("wanted", '% "wanted" is no whole path, such as /etc/ravo/FILE\n')):
        assert ran(daemon, "-c", f"configure replace {path}", status=1)[0] == said
    assert "hops 7\n" in running(daemon)


def random_configuration(dice):
    lines = [line for line in ("ip dhcp relay", "ip dhcp relay information option",
                               "no ip dhcp relay information check", "ip dhcp relay information trust-all",
                               "ip dhcp local-relay", f"ip dhcp local-relay vlan {dice.randint(1, 9)},20-24",
                               f"ip dhcp relay hops {dice.randint(1, 16)}",
                               f"ip dhcp relay information policy {dice.choice(['keep', 'drop', 'replace'])}")
             if dice.random() < 0.4]
    for vlan in (20, 21, 77):
        lines.append(f"interface vlan {vlan}")
        lines += [f" ip dhcp relay address 192.0.2.{n}" for n in dice.sample(range(1, 9), dice.randint(0, 4))]
        lines += [f' ip dhcp relay option60 string "v {n}" {dice.choice(["exact", "partial"])}-match address 192.0.2.{n}'
                  for n in dice.sample(range(1, 9), dice.randint(0, 4))]
        lines += [f" ip dhcp relay option61 hex 0x01{n:02X} address 192.0.2.{n}"
                  for n in dice.sample(range(1, 9), dice.randint(0, 4))]
        lines += [line for line in (" ip dhcp relay information trusted", " ip dhcp local-relay") if dice.random() < 0.4]
    return "\n".join(lines) + "\n"


def test_from_any_to_any(daemon):
    """What was replaced by a text is what that text says: once more changes nothing, nor does what is shown then."""
    dice = random.Random(7)
    for _ in range(12):
        text = random_configuration(dice)
        replace(daemon, text)
        assert replace(daemon, text) == ("unchanged\n", ""), text
        assert replace(daemon, running(daemon)) == ("unchanged\n", ""), text


def test_what_is_not_confirmed_goes_back(daemon):
    replace(daemon, "ip dhcp relay hops 5\n")
    waits = 'It goes back in 1 minute unless "configure confirm" comes before\n'
    assert replace(daemon, "ip dhcp relay hops 6\n", "--confirm", "1") == (
        f"-ip dhcp relay hops 5\n+ip dhcp relay hops 6\n{waits}2 lines changed\n", "")
    assert daemon.sh("-c", "configure confirm") == "The configuration stays\n"
    assert ran(daemon, "-c", "configure confirm", status=1)[0] == "% No configuration waits to be confirmed\n"
    replace(daemon, "ip dhcp relay hops 7\n", "--confirm", "1")
    replace(daemon, "ip dhcp relay hops 8\n", "--confirm", "1")
    daemon.sh("-c", "write memory")  # confirms nothing
    state = daemon.folder / "state" / "unconfirmed"
    assert abs(int(state.read_text().split("\n")[0]) - time.time() - 60) < 30

    def restarted(end):
        state.write_text("\n".join([str(int(end)), *state.read_text().split("\n")[1:]]))
        daemon.restart()

    restarted(time.time() + 3600)
    assert "hops 8" in running(daemon)
    assert "It goes back in 3" in daemon.sh("-c", "show configuration differences")
    restarted(time.time() + 2)
    wait_for(lambda: "hops 6" in running(daemon), 30, "what was before")
    assert not state.exists()
    replace(daemon, "ip dhcp relay hops 9\n", "--confirm", "1")
    restarted(time.time() - 5)
    assert "hops 6" in running(daemon)
    back = "not confirmed in time, the one before is in force again: 2 lines changed"
    wait_for(lambda: back in daemon.log, 30, "the line in the log")


def test_versions_and_differences(daemon):
    for hops in range(5, 13):
        daemon.sh("-c", "configure terminal", "-c", f"ip dhcp relay hops {hops}", "-c", "end",
                  "-c", "write memory")
    daemon.sh("-c", "write memory")  # what is the same is no version
    versions = json.loads(daemon.sh("-c", "show configuration history | json"))["versions"]
    assert [each["version"] for each in versions] == [0, 1, 2, 3, 4, 5]
    assert [f"hops {12 - n}\n" in open(versions[n]["file"]).read() for n in range(6)] == [True] * 6
    assert daemon.sh("-c", "show configuration differences") == "The running configuration is saved\n"
    assert daemon.sh("-c", "configure replace saved 3") == (
        "-ip dhcp relay hops 12\n+ip dhcp relay hops 9\n2 lines changed\n")
    assert daemon.sh("-c", "show configuration differences") == (
        "-ip dhcp relay hops 12\n+ip dhcp relay hops 9\n2 lines differ from what is saved\n")
    assert daemon.sh("-c", "configure replace startup-config dry-run").endswith("2 lines would be changed\n")


def test_advice(daemon):
    kinds = [each["kind"] for each in json.loads(daemon.sh("-c", "show ip dhcp relay advice | json"))["advice"]]
    assert kinds == []
    assert daemon.sh("-c", "show ip dhcp relay advice") == "Nothing to advise: all is as it should be\n"
    replace(daemon, "interface vlan 20\n ip dhcp relay address 10.21.0.1\n ip dhcp relay address 203.0.113.9\n"
                    "interface vlan 55\n ip dhcp relay address 10.20.0.9\n")
    told = {each["kind"]: each for each in json.loads(daemon.sh("-c", "show ip dhcp relay advice | json"))["advice"]}
    assert set(told) == {"bad-server", "no-route", "relay-off", "settings-wait", "not-saved"}
    assert told["bad-server"]["what"] == "server 10.21.0.1 of interface vlan20 is an address of this host"
    assert told["no-route"]["what"] == "server 203.0.113.9 of interface vlan20 is an address to which no route leads"
    wait_for(lambda: "advice: server 10.21.0.1 of interface vlan20" in daemon.log, 30, "line in the log")
    assert daemon.log.count("advice: server 10.21.0.1") == 1


def test_a_file_of_commands_names_what_fails(daemon):
    path = daemon.folder / "commands"
    path.write_text("configure terminal\nip dhcp relay hops 5\nip dhcp relay hops 99\nip dhcp relay hops 6\n")
    out, err = ran(daemon, path, status=1)
    assert (out, err.splitlines()[0]) == ("", f"{path}:3: ip dhcp relay hops 99")
    assert "Invalid input" in err
    assert "hops 6" in running(daemon)
    path.write_text("configure terminal\nip dhcp relay hops 99\nip dhcp relay hops 7\n")
    ran(daemon, "--stop-on-error", path, status=1)
    assert "hops 6" in running(daemon)

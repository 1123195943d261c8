# SPDX-License-Identifier: Apache-2.0
"""The configuration saved, replayed, spoiled and lost: what comes back is what was there, and what does not is told."""

import json
import os
import random
import re
import signal
import subprocess
import time

import pytest

from managed import Daemon
from ravolab.process import wait_for
from ravolab.relay import BUILD

DEVICES = ("vlan2", "vlan7", "vlan30", "vlan100", "vlan4094")
QUIET_START = (r"RAVO: installSignalHandlers \d+ sig=11\n"
               r"ravod \S+: \d+ VLAN interfaces?, \d+ ports?; \d+ lines? of \S+ applied\n")


def quiet_start(daemon):
    """The log, which a thread of the daemon writes, has what every start says, and nothing else."""
    wait_for(lambda: re.fullmatch(QUIET_START, daemon.log), 30, lambda: f"a quiet start, but:\n{daemon.log}\nso none")


@pytest.fixture
def daemon(tmp_path):
    daemon = Daemon(tmp_path, DEVICES)
    yield daemon
    daemon.close()


# ---- Random configurations ----

LETTERS = "abcXYZ019 \t\"!?\\|#';-.é"


def quoted(text):
    return '"' + text.replace("\\", "\\\\").replace('"', '\\"') + '"'


def address(dice):
    return f"{dice.randint(1, 223)}.{dice.randint(0, 255)}.{dice.randint(0, 255)}.{dice.randint(1, 254)}"


def global_lines(dice):
    choices = ("ip dhcp relay", "ip dhcp relay information option", "no ip dhcp relay information check",
               f"ip dhcp relay information policy {dice.choice(('keep', 'drop'))}",
               f"ip dhcp relay hops {dice.choice([hops for hops in range(1, 17) if hops != 4])}",
               "ip dhcp relay information trust-all", "ip dhcp local-relay",
               "ip dhcp local-relay vlan " + ",".join(map(str, dice.sample(range(1, 4095), dice.randint(1, 300)))))
    lines = [line for line in choices if dice.random() < 0.5]
    dice.shuffle(lines)
    return lines


def option60_line(dice):
    word = "".join(dice.choice(LETTERS.replace("\t", "")) for _ in range(dice.randint(1, 20)))
    rule = dice.choice(("exact-match", "partial-match"))
    return f"ip dhcp relay option60 string {quoted(word)} {rule} address {address(dice)}"


def option61_line(dice):
    digits = "".join(dice.choice("0123456789abcdefABCDEF") for _ in range(dice.randint(1, 256)))
    return f"ip dhcp relay option61 hex 0x{digits} address {address(dice)}"


def interface_lines(dice):
    """Of one interface: any of its settings, or a record whose settings were all taken back."""
    kind = dice.random()
    if kind < 0.05:
        return ["ip dhcp relay address 192.0.2.1", "no ip dhcp relay address"]
    if kind < 0.1:
        return ["no ip dhcp relay information trusted"]
    lines = [f"ip dhcp relay address {each}" for each in {address(dice) for _ in range(dice.randint(0, 4))}]
    lines += [option60_line(dice) for _ in range(dice.randint(0, 2))]
    lines += [option61_line(dice) for _ in range(dice.randint(0, 2))]
    lines += ["ip dhcp local-relay"] * (dice.random() < 0.3)
    dice.shuffle(lines)
    # Behind the others: taken back on an interface without settings, it leaves a record without an index.
    lines += dice.choice(([], ["ip dhcp relay information trusted"], ["no ip dhcp relay information trusted"]))
    return lines


def random_configuration(number):
    dice = random.Random(number)
    lines = global_lines(dice)
    for vlan in {*dice.sample(range(1, 4095), dice.randint(0, 195)), *dice.sample((2, 7, 30, 100, 4094), 3)}:
        lines += [f"interface vlan {vlan}", *interface_lines(dice)]
    return lines


def records(daemon):
    shown = {command: daemon.sh("-c", command) for command in ("show running-config", "show ip dhcp relay option")}
    for command in ("show ip dhcp relay", "show ip dhcp relay detail", "show ip dhcp relay option",
                    "show ip dhcp relay information trusted-sources"):
        document = json.loads(daemon.sh("-c", f"{command} | json"))
        document.pop("sockets", None)  # numbers of descriptors
        for interface in document.get("interfaces", ()):
            # A record that "no ... trusted" made has no index; it comes back with that of its name.
            interface["ifindex"] = interface.get("ifindex") or 1024 + int(interface["name"].removeprefix("vlan"))
        shown[f"{command} | json"] = document
    return shown


@pytest.mark.parametrize("number", range(15))
def test_a_random_configuration_comes_back_whole(daemon, number):
    daemon.start()
    assert daemon.configure(random_configuration(number)) == ""
    before = records(daemon)
    assert before["show ip dhcp relay detail | json"]["interfaces"]
    assert daemon.sh("-c", "write memory") == f"Saved as {daemon.startup}\n"
    assert daemon.sh("-c", "show startup-config") == before["show running-config"]
    daemon.restart()
    quiet_start(daemon)
    after = records(daemon)
    for command, shown in before.items():
        assert after[command] == shown, command
    assert faults_found(daemon) == []
    # Over itself it changes nothing, and nothing of it is a fault.
    assert daemon.sh("-c", "copy startup-config running-config") == ""
    assert records(daemon) == after


def faults_found(daemon, *options):
    """What "ravod --check" tells of the startup configuration, where the daemon runs."""
    checked = daemon.namespace.run(BUILD / "ravod", "--check", "--startup-config", daemon.startup, *options,
                                   check=False)
    assert checked.stdout == ""
    assert checked.returncode == (1 if checked.stderr else 0)
    return checked.stderr.splitlines()


# ---- Saving ----

def test_a_file_without_room_on_its_disk_stays_as_it_was(daemon):
    folder = daemon.startup.parent
    daemon.start(contained=True, mount_script=f"mount -t tmpfs -o size=16k tmpfs {folder}")
    daemon.configure(["ip dhcp relay hops 7"])
    daemon.sh("-c", "write memory")
    saved = daemon.sh("-c", "show startup-config")
    assert saved == "ip dhcp relay hops 7\n!\n"
    lines = [f"interface range vlan {10 * i}-{10 * i + 9}\nip dhcp relay address 192.0.2.1" for i in range(1, 100)]
    daemon.configure(lines)
    reason = f"{daemon.startup} cannot be written: No space left on device; make room on the disk"
    for command in ("write memory", "write", "copy running-config startup-config"):
        assert daemon.sh("-c", command, status=1) == f"% {reason}\n"
        assert daemon.sh("-c", "show startup-config") == saved
    wait_for(lambda: f"configuration not saved: {reason}\n" in daemon.log, 30, "the line in the log")
    assert reason in daemon.sh("-c", "show logging")
    # With room again a save succeeds.
    daemon.sh("-c", "reset relay", "-c", "write memory")
    assert daemon.sh("-c", "show startup-config") == daemon.sh("-c", "show running-config")


def test_a_read_only_file_system_is_told(daemon):
    folder = daemon.startup.parent
    daemon.startup.write_text("ip dhcp relay hops 7\n")
    daemon.start(contained=True, mount_script=f"mount --bind {folder} {folder}\nmount -o remount,bind,ro {folder}")
    daemon.configure(["ip dhcp relay hops 8"])
    assert daemon.sh("-c", "write memory", status=1) == \
        f"% {daemon.startup}.1 cannot be written: Read-only file system; the file system is read-only\n"
    assert daemon.sh("-c", "write erase", status=1) == f"% {daemon.startup} cannot be erased: Read-only file system\n"
    assert daemon.startup.read_text() == "ip dhcp relay hops 7\n"
    assert os.listdir(folder) == ["startup-config"]


def test_what_is_no_file_is_neither_replaced_nor_erased(daemon):
    daemon.startup = daemon.folder / "folder"
    daemon.startup.mkdir()
    daemon.start()
    wait_for(lambda: f"{daemon.startup}: cannot be read: Is a directory\n" in daemon.log, 30, "the line in the log")
    for command, verb in (("write memory", "written"), ("write erase", "erased")):
        assert daemon.sh("-c", command, status=1) == f"% {daemon.startup} cannot be {verb}: it is a folder\n"
    # The daemon has a /dev/null of its own here, which is safe to lose.
    assert daemon.process.stop() == 0
    daemon.startup = daemon.folder / "null"
    subprocess.run(["mknod", daemon.startup, "c", "1", "3"], check=True)
    daemon.start()
    quiet_start(daemon)
    for command, verb in (("write memory", "written"), ("write erase", "erased")):
        assert daemon.sh("-c", command, status=1) == \
            f"% {daemon.startup} cannot be {verb}: it is a device or the like, not a file\n"
    assert daemon.startup.is_char_device()
    assert daemon.sh("-c", "show startup-config") == ""
    assert daemon.sh("-c", "copy startup-config running-config") == ""
    assert daemon.process.stop() == 0
    daemon.startup = "/dev/null"
    daemon.start()
    quiet_start(daemon)


def test_a_saved_file_is_private_and_its_predecessors_kept(daemon):
    daemon.start()
    for hops in (7, 8, 9):
        daemon.configure([f"ip dhcp relay hops {hops}", "do write memory"])
    names = {"startup-config": "ip dhcp relay hops 9\n!\n", "startup-config.1": "ip dhcp relay hops 8\n!\n",
             "startup-config.2": "ip dhcp relay hops 7\n!\n"}
    assert sorted(os.listdir(daemon.startup.parent)) == sorted(names)
    for name, text in names.items():
        file = daemon.startup.parent / name
        assert (file.read_text(), file.stat().st_mode & 0o777) == (text, 0o600)


def test_who_is_killed_while_saving_leaves_the_old_or_the_new_file(daemon):
    dice = random.Random(4)
    daemon.start()
    vlans = "interface range vlan 1-400\n"
    daemon.configure([f"{vlans}ip dhcp relay address 192.0.2.1", "do write memory"])
    outcomes = []
    for _ in range(30):
        old = daemon.startup.read_bytes()
        daemon.configure([f"ip dhcp relay hops {6 if b'hops 5' in old else 5}"])  # whichever was saved last, a change
        new = daemon.sh("-c", "show running-config").encode()
        assert new != old
        save = subprocess.Popen([BUILD / "ravosh", "--management", daemon.socket, "-c", "write memory"],
                                stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        # The moment is random on purpose; nothing is waited for.
        time.sleep(dice.uniform(0, 0.03))
        daemon.process.send_signal(signal.SIGKILL)
        daemon.process.wait()
        save.wait(60)
        found = daemon.startup.read_bytes()
        assert found in (old, new)
        outcomes.append(found == new)
        daemon.start()
        quiet_start(daemon)
        assert daemon.sh("-c", "show running-config").encode() == found
    print(f"{sum(outcomes)} of 30 saves were done when the daemon was killed")


def test_a_link_to_another_disk_stays_one(daemon):
    disk = daemon.folder / "disk"
    disk.mkdir()
    daemon.startup.symlink_to(disk / "config")
    daemon.start()
    for hops in (7, 8):
        daemon.configure([f"ip dhcp relay hops {hops}", "do write memory"])
    assert daemon.startup.is_symlink()
    assert (disk / "config").read_text() == "ip dhcp relay hops 8\n!\n"
    assert (disk / "config.1").read_text() == "ip dhcp relay hops 7\n!\n"
    assert sorted(os.listdir(disk)) == ["config", "config.1"]
    assert os.listdir(daemon.startup.parent) == [daemon.startup.name]
    daemon.restart()
    assert "ip dhcp relay hops 8\n" in daemon.sh("-c", "show running-config")
    assert daemon.sh("-c", "write erase") == ""
    assert daemon.startup.is_symlink() and os.listdir(disk) == ["config.1"]


# ---- Faulty files ----

def test_lines_that_fail_are_told_and_the_others_count(daemon):
    lines = ["! a comment", "ip dhcp relay hops 9", "ip dhcp relay hops 17", "ip dhcp", "nonsense here",
             "interface vlan 10", " ip dhcp relay address 192.0.2.1", " ip dhcp relay address 999.0.2.1",
             " ip dhcp relay option61 hex 12 address 192.0.2.1", "interface vlan 4095",
             "ip dhcp relay information check", " ip dhcp relay option60 string \"open exact-match address 192.0.2.1",
             "\tip\x01 dhcp", "x" * 40000,
             "interface vlan 11", " ip dhcp relay address 192.0.2.2\r", "end", "show privilege | include (", "exit"]
    daemon.startup.write_text("\n".join(lines), newline="")
    place = f"{daemon.startup}:"
    expected = [
        f'{place}3: invalid input at "17", column 20: {lines[2]}',
        f"{place}4: incomplete command: {lines[3]}",
        f'{place}5: invalid input at "nonsense", column 1: {lines[4]}',
        f'{place}8: invalid input at "999.0.2.1", column 24: {lines[7].strip()}',
        f'{place}9: Client-id hex number must begin with "0x": {lines[8].strip()}',
        f'{place}10: invalid input at "4095", column 16: {lines[9]}',
        f'{place}12: invalid input at "option60", column 16: {lines[11].strip()}',
        f'{place}13: invalid input at "ip?", column 2: ip? dhcp',
        f"{place}14: line of 40000 bytes, at most 32768 can be read: {'x' * 120}...",
        f"{place}18: invalid pattern: Unmatched ( or \\(: {lines[17]}"]
    assert faults_found(daemon) == expected
    daemon.start()
    told = [line for line in daemon.log.splitlines() if place in line]
    assert told == expected
    kept = daemon.sh("-c", "show logging")
    assert all(line in kept for line in told)
    assert daemon.sh("-c", "show running-config") == (
        "ip dhcp relay hops 9\n!\n!\n"
        "! vlan10 is not there: these settings wait for it\ninterface vlan10\n ip dhcp relay address 192.0.2.1\n!\n"
        "! vlan11 is not there: these settings wait for it\ninterface vlan11\n ip dhcp relay address 192.0.2.2\n!\n")


def test_a_check_finds_what_the_relay_refuses_and_leaves_the_system_alone(daemon):
    servers = [f" ip dhcp relay address 192.0.2.{host}" for host in range(1, 6)]
    lines = ["ip dhcp relay", "interface vlan30", *servers, " ip dhcp relay address 0.0.0.0",
             " no ip dhcp relay address 192.0.2.9",
             " ip dhcp relay option61 hex 0x01020304AA address 192.0.2.1",
             " ip dhcp relay option61 hex 0x01020304BB address 192.0.2.1",
             f" ip dhcp relay option60 string {'x' * 68} exact-match address 192.0.2.1",
             "ip dhcp local-relay vlan 4095", "end", "write memory", "reset relay", "logging level error"]
    daemon.startup.write_text("\n".join(lines) + "\n")
    place = f"{daemon.startup}:"
    expected = [
        f"{place}7: DHCP relay server full: {lines[6].strip()}",
        f"{place}8: DHCP relay server full: {lines[7].strip()}",
        f"{place}9: No DHCP relay server on this interface: {lines[8].strip()}",
        f"{place}11: DHCP relay server exitsted already: {lines[10].strip()}",
        f"{place}12: Vendor class string must not exceed 67 characters: {lines[11].strip()[:120]}...",
        f'{place}13: Invalid VLAN list: "4095" is neither a VLAN id from 1 to 4094 nor a range of them such as 20-30: '
        f"{lines[12]}",
        f"{place}15: Not possible while a configuration is replayed: write memory"]
    before = daemon.startup.read_text()
    for _ in range(2):  # also while a daemon runs, which has the relay's port
        assert faults_found(daemon) == expected
        if daemon.process is None:
            daemon.start()
    wait_for(lambda: [line for line in daemon.log.splitlines() if place in line] == expected, 30,
             lambda: f"{expected}, but:\n{daemon.log}\nso faults")
    assert daemon.startup.read_text() == before and os.listdir(daemon.startup.parent) == [daemon.startup.name]


def test_names_of_devices_are_known_to_a_check(daemon):
    daemon.namespace.ip("link add uplink type bridge")
    switch = daemon.folder / "switch.toml"
    switch.write_text('[[interface]]\nvlan = 40\ndevice = "uplink"\n')
    daemon.startup.write_text("interface uplink\n ip dhcp relay address 192.0.2.1\ninterface downlink\n")
    expected = [f'{daemon.startup}:3: invalid input at "downlink", column 11: interface downlink']
    assert faults_found(daemon, "--switch", switch) == expected
    daemon.start("--switch", switch)
    applied = rf"^ravod \S+: 6 VLAN interfaces, 0 ports; 2 lines of {daemon.startup} applied, 1 not$"
    wait_for(lambda: re.search(applied, daemon.log, re.M), 30, lambda: f"what was applied:\n{daemon.log}")
    assert [line for line in daemon.log.splitlines() if line.startswith(str(daemon.startup))] == expected


def test_settings_in_force_are_no_faults(daemon):
    lines = ["ip dhcp relay hops 4", "ip dhcp relay hops 9", "ip dhcp relay hops 9", "ip dhcp relay",
             "ip dhcp relay", "ip dhcp relay information policy replace", "ip dhcp relay information option",
             "ip dhcp relay information option", "interface vlan30", *[" ip dhcp relay address 192.0.2.1"] * 2,
             *[' ip dhcp relay option60 string "a b" exact-match address 192.0.2.1'] * 2,
             " ip dhcp relay option61 hex 0xABC address 192.0.2.1",
             " ip dhcp relay option61 hex 0x0abc address 192.0.2.1"]
    daemon.startup.write_text("\n".join(lines) + "\n")
    assert faults_found(daemon) == []
    daemon.start()
    quiet_start(daemon)
    running = daemon.sh("-c", "show running-config")
    assert daemon.sh("-c", "copy startup-config running-config") == ""
    assert daemon.sh("-c", "show running-config") == running
    # What cannot be had is told as ever.
    daemon.configure(["interface vlan30", "no ip dhcp relay address", "no ip dhcp relay option61",
                      *[f"ip dhcp relay address 192.0.2.{host}" for host in range(5, 9)]], status=1)
    assert daemon.sh("-c", "copy startup-config running-config", status=1) == "".join(
        f"% {daemon.startup}:{number}: DHCP relay server full: ip dhcp relay address 192.0.2.1\n"
        for number in (10, 11))


# ---- Reset, copy, erase, ranges ----

def test_reset_brings_back_the_defaults(daemon):
    daemon.start()
    fresh = records(daemon)
    fresh_sockets = json.loads(daemon.sh("-c", "show ip dhcp relay detail | json"))["sockets"]
    daemon.configure(["ip dhcp relay", "ip dhcp relay information option", "ip dhcp relay information policy keep",
                      "no ip dhcp relay information check", "ip dhcp relay hops 16",
                      "ip dhcp local-relay vlan 1-4094", "ip dhcp local-relay", "interface range vlan 1-300",
                      "ip dhcp relay address 192.0.2.1", "ip dhcp local-relay",
                      "ip dhcp relay option60 string a exact-match address 192.0.2.1",
                      "ip dhcp relay option61 hex 0x01 address 192.0.2.1"])
    assert records(daemon) != fresh
    assert json.loads(daemon.sh("-c", "show ip dhcp relay detail | json"))["sockets"] != fresh_sockets
    assert daemon.sh("-c", "reset relay") == ""
    assert records(daemon) == fresh
    assert json.loads(daemon.sh("-c", "show ip dhcp relay detail | json"))["sockets"] == fresh_sockets
    wait_for(lambda: "relay reset by root\n" in daemon.log, 30, "the line in the log")


def test_copy_brings_back_what_was_saved_and_erase_removes_it(daemon):
    daemon.start()
    daemon.configure(random_configuration(99))
    daemon.sh("-c", "copy running-config startup-config")
    before = records(daemon)
    assert daemon.sh("-c", "reset relay", "-c", "copy startup-config running-config") == ""
    assert records(daemon) == before
    assert daemon.sh("-c", "write erase", "-c", "write erase") == ""
    missing = f'% {daemon.startup} does not exist; "write memory" creates it\n'
    assert daemon.sh("-c", "show startup-config", status=1) == missing
    assert daemon.sh("-c", "copy startup-config running-config", status=1) == \
        f"% {daemon.startup}: cannot be read: No such file or directory\n"
    assert records(daemon) == before


def test_a_range_configures_each_of_its_interfaces(daemon):
    daemon.start()
    daemon.configure(["interface range vlan 10,20-30", " ip dhcp relay address 192.0.2.1", "end"])
    waits = "! vlan{} is not there: these settings wait for it\n"
    section = "interface vlan{}\n ip dhcp relay address 192.0.2.1\n!\n"
    expected = "!\n" + section.format(30) + "".join((waits + section).format(vlan, vlan) for vlan in (10, *range(20, 30)))
    assert daemon.sh("-c", "show running-config") == expected
    for wrong in ("0", "4095", "30-20", "10,", "a", "10-"):
        assert daemon.configure([f"interface range vlan {wrong}"], status=1).startswith("% Invalid VLAN list: ")
    assert daemon.sh("-c", "show running-config") == expected

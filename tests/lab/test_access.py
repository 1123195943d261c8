# SPDX-License-Identifier: Apache-2.0
"""Who may do what, many sessions at once, tables read while they change, and lines that nobody should type."""

import grp
import re
import socket
import struct

import pytest

from managed import REFUSED, ROW_KEY, VALUE, WELCOME, Daemon, Session
from ravolab.process import wait_for
from ravolab.relay import BUILD

INVALID = "^\n% Invalid input detected at '^' marker.\n"
NOT_ALLOWED = "% Not allowed for your group\n"
VIEWERS, ADMINS = 64001, 64002


@pytest.fixture
def daemon(tmp_path):
    daemon = Daemon(tmp_path, devices=("vlan10", "vlan20")).start()
    yield daemon
    daemon.close()


@pytest.fixture(scope="module")
def populated(tmp_path_factory):
    """A daemon whose interfaces are there, so that what is configured for them is the relay's and does not wait."""
    vlans = (*range(80, 311), *range(500, 520))
    daemon = Daemon(tmp_path_factory.mktemp("populated"), devices=[f"vlan{vlan}" for vlan in vlans]).start()
    yield daemon
    daemon.close()


# ---- Users ----

@pytest.fixture
def guarded(tmp_path):
    """A daemon that sees groups ravo and ravo-admin, which only its own mount namespace has."""
    free = {group.gr_gid for group in grp.getgrall()}
    assert VIEWERS not in free and ADMINS not in free
    names = [line for line in open("/etc/group", encoding="utf-8") if not line.startswith(("ravo:", "ravo-admin:"))]
    groups = tmp_path / "group"
    groups.write_text("".join(names) + f"ravo:x:{VIEWERS}:\nravo-admin:x:{ADMINS}:\n")
    folder = tmp_path
    while str(folder) not in ("/tmp", "/"):  # the socket is to be what refuses, not the folders of the test
        folder.chmod(0o755)
        folder = folder.parent
    copy = tmp_path / "ravosh"
    copy.write_bytes((BUILD / "ravosh").read_bytes())
    copy.chmod(0o755)
    daemon = Daemon(tmp_path).start(contained=True, mount_script=f"mount --bind {groups} /etc/group")
    daemon.shell = copy
    yield daemon
    daemon.close()


def as_member(*groups):
    return ["setpriv", "--reuid", "nobody", "--regid", "nogroup",
            *(["--groups", ",".join(map(str, groups))] if groups else ["--clear-groups"]), "--"]


def shell(daemon, who, *commands, status):
    words = [word for command in commands for word in ("-c", command)]
    return daemon.sh(*words, prefix=who, status=status)


def test_viewers_see_and_change_nothing(guarded):
    viewer = as_member(VIEWERS)
    assert shell(guarded, viewer, "show privilege", status=0) == "Current privilege level is 2\n"
    for command in ("show version", "show ip dhcp relay", "show ip dhcp relay | json", "show logging",
                    "show interfaces brief", "show history", "sh ver", "SHOW Version", "terminal length 0", "exit"):
        shell(guarded, viewer, command, status=0)
    for command in ("configure terminal", "write memory", "reset relay", "terminal monitor", "logging level trace",
                    "enable", "clear ip dhcp relay detail counter"):
        assert shell(guarded, viewer, command, status=1) == NOT_ALLOWED
        assert f"\nuser nobody may only use show commands, refused: {command}\n" in guarded.log, guarded.log
    # Also what shows something, beyond privilege 2.
    for command in ("show running-config", "show startup-config", "show ip dhcp relay detail",
                    "show ip dhcp relay trust_tbl 0"):
        assert shell(guarded, viewer, command, status=1) == NOT_ALLOWED
    assert shell(guarded, viewer, "show nonsense", status=1) == " " * 5 + INVALID
    assert guarded.sh("-c", "show running-config") == ""


def test_administrators_do_everything(guarded):
    admin = as_member(ADMINS)
    shell(guarded, admin, "configure terminal", "ip dhcp relay hops 7", "end", "write memory", status=0)
    assert shell(guarded, admin, "show running-config", status=0) == "ip dhcp relay hops 7\n!\n"
    assert shell(guarded, as_member(VIEWERS, ADMINS), "show privilege", status=0) == "Current privilege level is 31\n"
    shell(guarded, admin, "reset relay", status=0)
    wait_for(lambda: "relay reset by nobody\n" in guarded.log, 30, "line about who has reset the relay")


def test_anyone_else_is_refused(guarded):
    line = (f"ravosh: {guarded.socket}: permission denied; only root and members of group ravo or ravo-admin may use "
            "ravod\n")
    assert shell(guarded, as_member(), "show privilege", status=2) == line
    # Also where the file lets everyone in, as after a careless chmod.
    guarded.socket.chmod(0o666)
    told = shell(guarded, as_member(), "show privilege", status=2)
    assert len(told.splitlines()) == 1 and told.startswith(f"ravosh: {guarded.socket}: "), told
    wait_for(lambda: re.search(r"^management: refused user nobody \(\d+\), process \d+: no member of group ", guarded.log,
                               re.MULTILINE), 30, "line about who was refused")


# ---- Sessions ----

def test_two_sessions_have_modes_of_their_own(daemon):
    with Session(daemon.socket) as one, Session(daemon.socket) as two:
        assert one.run("configure terminal")[::2] == (0, "(config)#")
        assert two.run("show privilege")[::2] == (0, "#")
        assert one.run("interface vlan 10")[::2] == (0, "(config-if)#")
        assert two.run("configure terminal")[::2] == (0, "(config)#")
        assert two.run("interface vlan 20")[::2] == (0, "(config-if)#")
        assert one.run("ip dhcp relay address 192.0.2.1")[0] == 0
        assert two.run("ip dhcp relay address 192.0.2.2")[0] == 0
        assert two.run("end")[::2] == (0, "#")
        assert one.run("ip dhcp relay address 192.0.2.3")[::2] == (0, "(config-if)#")
    assert daemon.sh("-c", "show running-config") == (
        "!\ninterface vlan10\n ip dhcp relay address 192.0.2.1\n ip dhcp relay address 192.0.2.3\n"
        "!\ninterface vlan20\n ip dhcp relay address 192.0.2.2\n")


def test_the_65th_session_is_refused(daemon):
    sessions = [Session(daemon.socket) for _ in range(64)]
    assert all(session.kind == WELCOME for session in sessions)
    extra = Session(daemon.socket)
    assert (extra.kind, extra.greeting[0]) == (REFUSED, 2)
    told = daemon.sh("-c", "show privilege", status=2)
    assert told.startswith(f"ravosh: {daemon.socket}: ") and len(told.splitlines()) == 1
    assert all(session.run("show privilege")[0] == 0 for session in sessions)
    sessions.pop().close()
    while True:  # until the daemon has seen that the session is gone; each attempt is answered
        with Session(daemon.socket) as again:
            if again.kind == WELCOME:
                break
            assert again.greeting[0] == 2
    for session in (*sessions, extra):
        session.close()


# ---- Tables that change while they are read ----

FIRST_NUMBER = 1024  # of interface vlanN: 1024 + N


def page(session, table, key, count):
    """The keys of the next rows behind a key, as a program reads them that takes some rows at a time."""
    words = key if isinstance(key, str) else str(key)
    result, frames, _ = session.run(f"show ip dhcp relay {table} {words}", view=4)
    assert result == 0
    assert [kind for kind, _ in frames] == [ROW_KEY, VALUE] * (len(frames) // 2)
    keys = [payload for kind, payload in frames if kind == ROW_KEY]
    return keys[:count]


def words_of(key):
    number = struct.unpack_from("=I", key)[0]
    return f"{number} {socket.inet_ntoa(key[4:])}" if len(key) == 8 else f"{number}"


def walk(session, table, start, between):
    """All keys in the order of the walk, a few at a time; between(number of the page, last key) is run in between."""
    seen, key = [], start
    for number in range(1000):
        keys = page(session, table, key, 7)
        if not keys:
            return seen
        seen += keys
        key = words_of(keys[-1])
        between(number, keys[-1])
    raise AssertionError("the walk does not end")


def number_of(key):
    return struct.unpack_from("=I", key)[0] - FIRST_NUMBER


def test_a_walk_visits_each_trusted_interface_once_while_others_come_and_go(populated):
    populated.configure(["interface range vlan 100-300", "ip dhcp relay information trusted"])
    with Session(populated.socket) as walker, Session(populated.socket) as changer:
        changer.run("configure terminal")
        gone = set()

        def change(number, last):
            vlan = number_of(last)
            for line in (f"interface vlan {vlan}", "no ip dhcp relay information trusted",  # the row just read
                         f"interface vlan {vlan + 3}", "no ip dhcp relay information trusted",  # one to come
                         f"interface vlan {500 + number}", "ip dhcp relay information trusted",  # a new one to come
                         f"interface vlan {99 - number}", "ip dhcp relay information trusted"):  # one too late
                assert changer.run(line)[0] == 0
            gone.add(vlan + 3)
        keys = walk(walker, "trust_tbl", 0, lambda n, key: change(n, key) if n < 20 else None)
    seen = [number_of(key) for key in keys]
    assert len(seen) == len(set(seen))
    assert seen == sorted(set(range(100, 301)) - gone) + [500 + number for number in range(20)]


def test_a_walk_visits_each_server_once_while_others_come_and_go(populated):
    populated.configure(["interface range vlan 100-150", "ip dhcp relay address 192.0.2.1",
                      "ip dhcp relay address 192.0.2.2"])
    with Session(populated.socket) as walker, Session(populated.socket) as changer:
        changer.run("configure terminal")

        def change(number, last):
            vlan = number_of(last)
            for line in (f"interface vlan {vlan - 1}", "no ip dhcp relay address",  # behind
                         f"interface vlan {200 + number}", "ip dhcp relay address 192.0.2.9",  # a new one to come
                         f"interface vlan {99 - number}", "ip dhcp relay address 192.0.2.8"):  # one too late
                assert changer.run(line)[0] == 0
        seen = walk(walker, "addr_tbl", "0 0.0.0.0", lambda n, key: change(n, key) if n < 10 else None)
    servers = [(number_of(key), socket.inet_ntoa(key[4:])) for key in seen]
    assert servers == [(vlan, f"192.0.2.{host}") for vlan in range(100, 151) for host in (1, 2)] + \
        [(200 + number, "192.0.2.9") for number in range(10)]


# ---- Lines that nobody should type ----

CONTROL = "% Control characters are not allowed in a command line.\n"


@pytest.mark.parametrize("line, told", [
    ("x" * 3000, INVALID),
    ("show " + "é" * 1500, " " * 5 + INVALID),
    ("show\x01 privilege", CONTROL), ("\x1b[2J", CONTROL), ("show privilege\x7f", CONTROL),
    ("show privilege\nshow version", CONTROL), ("\n\nshow privilege", CONTROL),
    ("\udcff\udcfe", INVALID), ("é show", INVALID),
    ('show "privilege', " " * 5 + INVALID), ("show privilege\\", " " * 5 + INVALID), ('"', INVALID),
    ("show privilege | include (", "% Invalid pattern: Unmatched ( or \\(\n"),
    ("show privilege | include [", "% Invalid pattern: "), ("show privilege |", "% Incomplete command.\n"),
    ("show privilege | include", "% Incomplete command.\n"), ("show privilege | nonsense", " " * 17 + INVALID),
    ("| include x", INVALID), ("show", "% Incomplete command.\n"), ("sh", "% Incomplete command.\n"),
    ("c", '% Ambiguous command: "c"\n'), ("%s%n%n", INVALID)])
def test_a_bad_line_gets_one_clear_answer(daemon, line, told):
    answer = daemon.sh("-c", line, "-c", "show privilege", status=1)
    good = "Current privilege level is 31\n"
    assert answer.endswith(good)
    answer = answer.removesuffix(good)
    assert answer == told if told.endswith("\n") else answer.startswith(told) and answer.count("\n") == 1


def test_empty_lines_are_no_commands(daemon):
    for line in ("", " ", "\t", "! a comment", "\n", "show privilege | count\n"):
        assert daemon.sh("-c", line) == ("1\n" if "count" in line else "")


def test_a_file_of_bad_lines_is_read_to_its_end(daemon, tmp_path):
    file = tmp_path / "commands"
    file.write_bytes(b"\xff\r\n\x01\r\n\r\nshow \"privilege\r\nshow privilege\r\n\0\r\nshow privilege")
    good = "Current privilege level is 31\n"
    def fault(line, command, text):
        return f"{file}:{line}: {command}\n{text}"
    # What was printed, then what failed.
    assert daemon.sh(str(file), status=1) == good * 2 + fault(1, "\udcff", INVALID) + fault(2, "\x01", CONTROL) + fault(
        4, 'show "privilege', " " * 5 + INVALID) + fault(6, "", CONTROL)
    assert daemon.sh(str(tmp_path), status=2) == f"ravosh: {tmp_path}: cannot read: Is a directory\n"

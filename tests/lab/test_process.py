# SPDX-License-Identifier: Apache-2.0
"""ravod as a process: its options, the faults that keep it from starting, signals, and what an init system hears."""

import os
import resource
import signal
import socket
import subprocess
from pathlib import Path

import pytest

from ravolab.process import wait_for
from ravolab.relay import BUILD

RAVOD = BUILD / "ravod"
LIMIT = 60  # seconds for anything to happen
VERSION = (Path(__file__).resolve().parents[2] / "VERSION").read_text().strip()


class Daemon:
    """One ravod in a network namespace of its own, heard through the notification socket that an init system gives."""

    def __init__(self, folder, *options, watchdog=None, through=()):
        self.notify = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.notify.settimeout(LIMIT)
        path = str(folder / f"notify{len(list(folder.iterdir()))}")
        self.notify.bind(path)
        environment = {**os.environ, "LC_ALL": "C", "NOTIFY_SOCKET": path}
        if watchdog:
            environment["WATCHDOG_USEC"] = str(watchdog)
        self.stderr = folder / f"{Path(path).name}.stderr"
        with open(self.stderr, "wb") as out:
            self.process = subprocess.Popen([*through, "unshare", "--net", RAVOD, *map(str, options)], env=environment,
                                            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=out)

    def hear(self, word):
        """Wait for a notification with this word in it; the notification."""
        while word not in (message := self.notify.recv(4096).decode()):
            pass
        return message

    def lines(self):
        return self.stderr.read_text().splitlines()

    def end(self, signo=signal.SIGTERM):
        self.process.send_signal(signo)
        return self.process.wait(LIMIT)

    def close(self):
        if self.process.poll() is None:
            self.process.kill()
            self.process.wait(LIMIT)
        self.notify.close()


@pytest.fixture
def start(tmp_path):
    """Starts a ravod whose files are all in tmp_path, and waits until it is ready."""
    started = []

    def begin(*options, ready=True, **arguments):
        daemon = Daemon(tmp_path, "--management", tmp_path / "ravod.sock", "--startup-config", tmp_path / "startup",
                        "--switch", tmp_path / "switch.toml", *options, **arguments)
        started.append(daemon)
        if ready:
            daemon.hear("READY=1")
        return daemon

    (tmp_path / "switch.toml").touch()
    (tmp_path / "startup").touch()
    yield begin
    for daemon in started:
        daemon.close()


def run(*words, **arguments):
    """Run a ravod that ends by itself; (status, standard output, standard error)."""
    done = subprocess.run(["unshare", "--net", RAVOD, *map(str, words)], stdin=subprocess.DEVNULL, capture_output=True,
                          text=True, timeout=LIMIT, **arguments)
    return done.returncode, done.stdout, done.stderr


# ---- Questions and wrong options ----

def test_version():
    assert run("--version") == (0, f"ravod {VERSION}\n", "")


def test_help_names_every_option():
    status, out, err = run("--help")
    assert (status, err) == (0, "")
    for option in ("--switch FILE", "--startup-config FILE", "--management SOCKET", "--log-level LEVEL",
                   "--log-to TARGET", "--check", "--version", "--help"):
        assert f"\n  {option} " in out


@pytest.mark.parametrize("words, line", [
    (["--loud"], 'ravod: unknown option "--loud"; see ravod --help\n'),
    (["now"], 'ravod: unexpected argument "now"; see ravod --help\n'),
    (["--switch"], "ravod: option --switch needs a value: FILE; see ravod --help\n"),
    (["--log-level=loud"],
     'ravod: option --log-level: "loud" is none of error, warning, trace; see ravod --help\n'),
])
def test_wrong_options_are_one_line_and_status_1(words, line):
    assert run(*words) == (1, "", line)


# ---- Faults that keep it from starting ----

def test_without_the_capability_it_says_which():
    words = ["setpriv", "--bounding-set", "-net_raw", "--inh-caps", "-net_raw", RAVOD]
    done = subprocess.run(words, capture_output=True, text=True, timeout=LIMIT)
    assert (done.returncode, done.stderr) == (
        1, "ravod: CAP_NET_RAW is missing, needed to open packet sockets; start ravod as root, or with "
           "AmbientCapabilities=CAP_NET_RAW in its systemd unit\n")


def test_faulty_switch_description_is_placed(tmp_path):
    path = tmp_path / "switch.toml"
    path.write_text('[[port]]\ndevice = "swp1"\nmodule = 1\nport = 64\n')
    assert run("--switch", path, "--management", tmp_path / "s") == (
        1, "", f"{path}:4:8: port 64 is out of range; it must be 1 to 63\n")


def test_an_init_system_learns_that_trying_again_is_in_vain(tmp_path):
    path = tmp_path / "switch.toml"
    path.write_text("[channel\n")
    words = [RAVOD, "--user", "root", "--switch", path, "--management", tmp_path / "s"]
    environment = {**os.environ, "NOTIFY_SOCKET": str(tmp_path / "notify")}
    found = subprocess.run(words, text=True, capture_output=True, timeout=LIMIT, env=environment)
    assert (found.returncode, found.stderr.count("\n"), found.stderr.startswith(f"{path}:1:")) == (78, 1, True)


def test_named_switch_description_must_exist(tmp_path):
    path = tmp_path / "none.toml"
    assert run("--switch", path, "--management", tmp_path / "s") == (
        1, "", f"{path}: cannot read the switch description: No such file or directory; name a readable file with "
               "--switch\n")


def test_log_file_that_cannot_be_opened(tmp_path):
    path = tmp_path / "none" / "log"
    assert run("--log-to", path, "--management", tmp_path / "s") == (
        1, "", f"ravod: {path}: cannot write the log there: No such file or directory; name a file in an existing, "
               "writable folder, or stderr or syslog\n")


def test_second_daemon_is_refused_and_the_first_unharmed(start, tmp_path):
    first = start()
    status, out, err = run("--management", tmp_path / "ravod.sock")
    assert (status, out, err.count("\n")) == (1, "", 1)
    assert str(tmp_path / "ravod.sock") in err
    assert first.process.poll() is None
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as client:
        client.connect(str(tmp_path / "ravod.sock"))
    assert first.end() == 0


# ---- --check ----

def test_check_of_good_files_is_silent(tmp_path):
    (tmp_path / "switch.toml").write_text('[[port]]\ndevice = "swp1"\nmodule = 1\nport = 1\n')
    (tmp_path / "startup").write_text("ip dhcp relay\ninterface vlan 10\n ip dhcp relay address 192.0.2.1\n")
    assert run("--check", "--switch", tmp_path / "switch.toml", "--startup-config", tmp_path / "startup") == (0, "", "")


def test_check_tells_every_fault_with_file_and_line(tmp_path):
    switch = tmp_path / "switch.toml"
    switch.write_text('[[port]]\ndevice = "swp1"\nmodule = 0\nport = 99\n')
    startup = tmp_path / "startup"
    startup.write_text("ip dhcp relay\nip dhcp relay hops 99\n!\ninterface vlan 10\n no such thing\n")
    status, out, err = run("--check", "--switch", switch, "--startup-config", startup)
    assert (status, out) == (1, "")
    lines = err.splitlines()
    assert lines[:2] == [f"{switch}:3:10: module 0 is out of range; it must be 1 to 255",
                         f"{switch}:4:8: port 99 is out of range; it must be 0 to 63"]
    assert [line.split(": ")[0] for line in lines[2:]] == [f"{startup}:2", f"{startup}:5"]


def test_check_needs_no_capability(tmp_path):
    (tmp_path / "empty").touch()
    done = subprocess.run(["setpriv", "--bounding-set", "-all", "--inh-caps", "-all", RAVOD, "--check",
                           "--switch", tmp_path / "empty", "--startup-config", tmp_path / "empty"],
                          capture_output=True, text=True, timeout=LIMIT)
    assert (done.returncode, done.stdout, done.stderr) == (0, "", "")


# ---- Life ----

@pytest.mark.parametrize("signo", [signal.SIGTERM, signal.SIGINT])
def test_end_signals_end_it_with_status_0_and_no_socket_file(start, tmp_path, signo):
    daemon = start()
    assert (tmp_path / "ravod.sock").is_socket()
    assert daemon.end(signo) == 0
    assert not (tmp_path / "ravod.sock").exists()
    assert daemon.hear("STOPPING=1")


def test_stale_socket_file_is_taken_over(start, tmp_path):
    first = start()
    first.process.kill()
    first.process.wait(LIMIT)
    assert (tmp_path / "ravod.sock").is_socket()
    assert start().end() == 0


def test_readiness_tells_the_relay_state(start, tmp_path):
    (tmp_path / "startup").write_text("ip dhcp relay\n")
    daemon = start(ready=False)
    assert daemon.hear("STATUS") == "STATUS=DHCP relay off"
    assert daemon.hear("READY=1") == "READY=1\nSTATUS=DHCP relay on"
    assert daemon.end() == 0


def test_faulty_startup_lines_are_reported_and_the_rest_is_in_force(start, tmp_path):
    (tmp_path / "startup").write_text("no such thing\nip dhcp relay\n")
    daemon = start(ready=False)
    assert daemon.hear("READY=1") == "READY=1\nSTATUS=DHCP relay on"
    fault = f"{tmp_path / 'startup'}:1: "
    wait_for(lambda: [line for line in daemon.lines() if line.startswith(fault)], LIMIT, "fault of line 1")
    assert [line for line in daemon.lines() if line.startswith(f"{tmp_path / 'startup'}:2: ")] == []


def test_startup_configuration_that_does_not_exist_yet(start, tmp_path):
    (tmp_path / "startup").unlink()
    daemon = start()
    told = f'{tmp_path / "startup"}: no such startup configuration; starting without one, "write memory" creates it'
    wait_for(lambda: told in daemon.lines(), LIMIT, f"line {told!r}")


def test_hangup_reads_the_switch_description_again(start, tmp_path):
    switch = tmp_path / "switch.toml"
    daemon = start()

    def hang_up():
        """What the daemon tells about it, one line."""
        before = len(daemon.lines())
        daemon.process.send_signal(signal.SIGHUP)
        wait_for(lambda: len(daemon.lines()) > before, LIMIT, "line about the switch description")
        told, = daemon.lines()[before:]
        return told

    switch.write_text('[[port]]\ndevice = "swp1"\nmodule = 1\nport = 1\n')
    assert hang_up() == "ravod: switch description read again: 1 ports, 0 interfaces"
    switch.write_text("x = 1\n")
    assert hang_up() == (f'{switch}:1:1: unknown key "x"; there are [[port]], [[interface]], [channel], [limit], [guard], [settings], [management] and [capture] '
                         "(the switch description in use stays)")
    switch.write_text("")
    assert hang_up() == "ravod: switch description read again: 0 ports, 0 interfaces"
    assert daemon.end() == 0


def test_broken_pipe_signal_is_ignored(start):
    daemon = start(watchdog=100_000)
    daemon.process.send_signal(signal.SIGPIPE)
    for _ in range(3):
        daemon.hear("WATCHDOG=1")
    assert daemon.end() == 0


def test_few_descriptors_are_no_limit(start):
    """The soft limit is raised to the hard one: a thousand ports start in a shell with its usual limit."""
    _, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    daemon = start(through=["prlimit", f"--nofile=24:{hard}"])
    limits = Path(f"/proc/{daemon.process.pid}/limits").read_text()
    assert [line.split()[3:5] for line in limits.splitlines() if line.startswith("Max open files")] == [[str(hard)] * 2]


def test_closed_streams_become_no_sockets(tmp_path):
    (tmp_path / "startup").touch()
    process = subprocess.Popen(["sh", "-c", f"exec unshare --net {RAVOD} --management {tmp_path}/socket "
                                f"--startup-config {tmp_path}/startup --log-to {tmp_path}/log <&- >&- 2>&-"])
    try:
        wait_for((tmp_path / "socket").exists, LIMIT, "management socket")
        assert [os.readlink(f"/proc/{process.pid}/fd/{fd}") for fd in (0, 1, 2)] == ["/dev/null"] * 3
    finally:
        process.terminate()
        assert process.wait(LIMIT) == 0


def test_log_goes_to_a_file(start, tmp_path):
    (tmp_path / "startup").write_text("no such thing\n")
    daemon = start("--log-to", tmp_path / "log")
    assert daemon.end() == 0
    assert daemon.lines() == []
    assert f"{tmp_path / 'startup'}:1: " in (tmp_path / "log").read_text()


def test_memory_budget_lets_commands_fail_not_the_daemon(start, tmp_path):
    (tmp_path / "startup").write_text("".join(
        f"interface vlan {vlan}\n ip dhcp relay address 192.0.2.1\n" for vlan in range(1, 200)))
    daemon = start("--memory-budget", 20_000)
    assert [line for line in daemon.lines() if line.startswith(f"{tmp_path / 'startup'}:")] != []
    assert daemon.end() == 0

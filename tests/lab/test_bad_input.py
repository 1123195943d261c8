# SPDX-License-Identifier: Apache-2.0
"""Bad input from outside: faulty files, occupied ports, management clients that misbehave. One clear line each, and
nobody else notices."""

import re
import socket
import struct
import subprocess
import time
from pathlib import Path

import pytest
from conftest import open_lab
from ravolab import Kea, LabError, Udhcpc, wait_for
from ravolab.relay import BUILD, USER
from scripted import Stage, Steady

RAVOD = BUILD / "ravod"
STARTED = "RAVO: installSignalHandlers 114 sig=11\n"
START_COUNTED = " lines? of .* applied"  # the last line of a start
LIMIT = 60


@pytest.fixture(scope="module")
def lab():
    yield from open_lab(name="bad", servers=2)


@pytest.fixture
def stage(lab, relay):
    stage = Stage(lab, relay)
    stage.configure(servers=(1, 2))
    yield stage
    stage.close()


def run(*words, prefix=()):
    """Run a ravod that is to end by itself; (status, standard output, standard error)."""
    done = subprocess.run([*prefix, "unshare", "--net", *map(str, words)], stdin=subprocess.DEVNULL,
                          capture_output=True, text=True, timeout=LIMIT)
    return done.returncode, done.stdout, done.stderr


# ---- Faults that keep it from starting ----

PORT = '[[port]]\ndevice = "{}"\nmodule = {}\nport = {}\n'
SWITCH_FAULTS = {
    "syntax": ("[[port]\n", "1:8: Error while parsing table header: expected ']', saw '\\n'"),
    "unknown table": ("[[ports]]\n", '1:3: unknown table "ports"; there are [[port]], [[interface]], [channel], [limit], [guard], [settings], [management] and [capture]'),
    "unknown key": (PORT.format("swp1", 1, 1) + "speed = 10\n",
                    '5:1: unknown key "speed" in [[port]]; it has device, module, port, trap, limit, burst, servers, trusted and clients'),
    "device twice": (PORT.format("swp1", 1, 1) + PORT.format("swp1", 1, 2),
                     '6:10: port device "swp1" is already in line 2; name it once'),
    "port twice": (PORT.format("swp1", 1, 1) + PORT.format("swp2", 1, 1),
                   "8:8: port 1/1 is already in line 4; give each port a number of its own"),
    "no device": ("[[port]]\nmodule = 1\nport = 1\n",
                  '1:1: [[port]] without "device"; it needs device, module and port'),
    "vlan out of range": ('[[interface]]\nvlan = 4095\ndevice = "eth1"\n',
                          "2:8: vlan 4095 is out of range; it must be 1 to 4094"),
}


@pytest.mark.parametrize("name", SWITCH_FAULTS)
def test_switch_description(tmp_path, name):
    text, line = SWITCH_FAULTS[name]
    path = tmp_path / "switch.toml"
    path.write_text(text)
    assert run(RAVOD, "--switch", path, "--management", tmp_path / "socket") == (1, "", f"{path}:{line}\n")


def test_an_ordinary_user_may_not_start_it(tmp_path):
    tmp_path.chmod(0o777)
    (tmp_path / "switch.toml").touch()
    assert run("setpriv", "--reuid", "65534", "--regid", "65534", "--clear-groups", RAVOD, "--switch",
               tmp_path / "switch.toml", "--management", tmp_path / "socket") == (
        1, "", "ravod: CAP_NET_RAW is missing, needed to open packet sockets; start ravod as root, or with "
               "AmbientCapabilities=CAP_NET_RAW in its systemd unit\n")


def test_a_file_that_is_no_socket_is_left_alone(tmp_path):
    path = tmp_path / "precious"
    path.write_text("text\n")
    (tmp_path / "switch.toml").touch()
    status, out, err = run(RAVOD, "--switch", tmp_path / "switch.toml", "--management", path)
    assert (status, out) == (1, "")
    assert err == f"ravod: {path}: is no socket; remove it; choose another socket with --management\n"
    assert path.read_text() == "text\n"


def test_a_second_daemon_is_refused_and_the_first_goes_on_relaying(stage):
    relay = stage.relay
    with Steady(stage, stage.lab.client(3)) as steady:
        second = relay.namespace.run(RAVOD, "--user", USER, "--switch", relay.switch_file,
                                     "--management", relay.socket, check=False)
        wait_for(lambda: len(steady.asked) > 10, 30, "steady traffic")
    assert (second.returncode, second.stdout, second.stderr.count("\n")) == (1, "", 1)
    assert str(relay.socket) in second.stderr
    steady.check()
    assert relay.sh("show service status") == "DHCP relay on\n"


# ---- Ports in use ----

PORT_68 = ("UDP port 68 is in use by another program; the relay sends its requests from this port: stop that program "
           '("ss -lunp sport = 68" shows it), then start ravod again\nbind(): Address already in use\n')
PORT_67 = ("UDP port 67 is in use by another program, which sees the clients' and servers' messages too; stop it if it "
           "answers or relays them\n")


def hold(lab, port):
    with lab.switch.entered():
        sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    sock.bind(("0.0.0.0", port))
    return sock


def unaudited(log):
    """Without the lines about sessions and what they changed, and the one that counts what was there at the start."""
    return "".join(line for line in log.splitlines(True) if not line.startswith(("audit: ", "ravod ")))


def lines(text):
    """In one order: the relay writes to standard error itself, beside the thread that writes the log."""
    return sorted(text.splitlines())


def forget(lab, relay):
    relay.stop()
    if relay in lab.relays:
        lab.relays.remove(relay)


def test_port_68_in_use_when_the_relay_is_switched_on(lab):
    with hold(lab, 68):
        relay = lab.start_relay(log_level="warning")
        relay.wait_log(START_COUNTED)
        assert unaudited(relay.log) == STARTED
        asked = relay.run("configure terminal", "ip dhcp relay")
        assert relay.process.wait() == 1
    assert lines(unaudited(relay.log)) == lines(STARTED + PORT_68)
    assert (asked.returncode, asked.stdout) == (2, "")
    assert asked.stderr == f"ravosh: {relay.socket}: ravod has closed the connection\n"
    # Once the port is free, the same daemon starts again: what the fatal end left behind is no hindrance.
    relay.start()
    relay.configure("ip dhcp relay")
    forget(lab, relay)


def test_port_68_in_use_at_start(lab):
    with hold(lab, 68):
        with pytest.raises(LabError, match="ravod ended with status 1"):
            lab.start_relay(log_level="warning", startup_config="ip dhcp relay\n")
    relay = lab.relays.pop()
    assert lines(unaudited(relay.log)) == lines(STARTED + PORT_68)


def test_port_67_in_use_is_told_and_does_not_matter(lab):
    """The relay reads below the sockets, and takes nothing away from the other program."""
    with hold(lab, 67) as other:
        relay = lab.start_relay(log_level="warning", startup_config="ip dhcp relay\n")
        relay.wait_log(START_COUNTED)
        assert unaudited(relay.log) == STARTED + PORT_67
        stage = Stage(lab, relay)
        relay.configure("ip dhcp relay information option", "interface vlan 10", "ip dhcp relay address 192.0.2.11")
        host = lab.client(1)
        sent = stage.ask(host)
        request = stage.check_relayed(sent, host)
        reply = stage.answer(request)
        stage.delivered(reply, host)
        other.settimeout(LIMIT)
        assert other.recv(2048) == sent.raw
        assert other.recv(2048) == reply.raw
        stage.close()
        assert relay.stop() == 0
        lab.relays.remove(relay)


# ---- Management clients ----

def frame(kind, payload):
    return struct.pack("!BI", kind, len(payload)) + payload


HELLO = frame(1, b"RAVO" + struct.pack("!HBB", 1, 31, 4))
NO_FRAME = frame(130, b"\x04what it sent is no frame of the management protocol")


def run_frame(line, number=1):
    return frame(2, struct.pack("!IBBB", number, 0, 0, 0) + line)


def connect(relay, timeout=LIMIT):
    client = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    client.settimeout(timeout)
    client.connect(str(relay.socket))
    return client


def drain(client):
    """All that comes until the daemon closes the connection."""
    data = b""
    try:
        while piece := client.recv(65536):
            data += piece
    except ConnectionResetError:
        pass
    return data


def memory(relay):
    """Bytes of resident memory."""
    return 1024 * int(re.search(r"VmRSS:\s+(\d+) kB", Path(f"/proc/{relay.pid}/status").read_text())[1])


@pytest.fixture
def calm(stage):
    """Meanwhile messages are relayed without a loss, commands are answered, and memory stays bounded."""
    before = memory(stage.relay)
    with Steady(stage, stage.lab.client(3)) as steady:
        yield stage.relay
        assert stage.relay.sh("show service status") == "DHCP relay on\n"
        wait_for(lambda: len(steady.asked) > 10, 30, "steady traffic")
    steady.check()
    # One client's unread output may grow to 8 MiB.
    assert memory(stage.relay) - before < 24 << 20


JUNK = {
    "text": b"show ip dhcp relay\n", "http": b"GET / HTTP/1.0\r\n\r\n", "zeros": bytes(4096), "ones": b"\xff" * 4096,
    "long frame": struct.pack("!BI", 1, 0xFFFFFFFF), "no hello": run_frame(b"show version"),
    "another magic": frame(1, b"EVIL" + struct.pack("!HBB", 1, 31, 4)), "empty hello": frame(1, b""),
    "hello twice": HELLO + HELLO, "unknown type": HELLO + frame(9, b"x"), "short run": HELLO + frame(2, b"x"),
    "a reply": HELLO + frame(138, bytes(8)), "long hello": frame(1, b"RAVO" + bytes(3000)),
}


@pytest.mark.parametrize("name", JUNK)
def test_junk_is_closed(calm, name):
    with connect(calm) as client:
        client.sendall(JUNK[name])
        answer = drain(client)
    assert answer == NO_FRAME or (JUNK[name].startswith(HELLO) and answer.endswith(NO_FRAME))
    calm.wait_log(r"management: session \d+ of user root \(0\) is closed: what it sent is no frame of the management "
                  r"protocol\n")


@pytest.mark.parametrize("start", [b"", HELLO])
def test_a_megabyte_without_a_newline(calm, start):
    with connect(calm) as client:
        try:
            client.sendall(start + b"x" * (1 << 20))
        except (BrokenPipeError, ConnectionResetError):
            pass  # it was closed on the way, as it should be
        answer = drain(client)
    assert answer == b"" or NO_FRAME in answer  # unread input takes the reason along when a socket is closed
    calm.wait_log(r"is closed: what it sent is no frame of the management protocol\n")


def test_a_command_line_without_end(calm):
    """A frame of the greatest length with one long line: refused as a command, and the session goes on."""
    with connect(calm) as client:
        client.sendall(HELLO + run_frame(b"x" * 65000) + run_frame(b"show service status", 2))
        answer = b""
        while b"DHCP relay on\n" not in answer:
            piece = client.recv(65536)
            assert piece, answer
            answer += piece
    assert b"show version" not in answer


def test_control_characters_in_a_command(calm):
    with connect(calm) as client:
        client.sendall(HELLO + run_frame(b"show\0version") + run_frame(b"show\x1b[2Jversion")
                       + run_frame(b"show service status", 3))
        answer = b""
        while b"DHCP relay on\n" not in answer:
            piece = client.recv(65536)
            assert piece, answer
            answer += piece
    assert b"Uptime" not in answer and b"\x1b" not in answer


def test_a_client_that_never_reads(calm):
    """Its commands wait for it: next to nothing is kept for it, and others are served."""
    start = memory(calm)
    peak = start
    with connect(calm, timeout=0.2) as client:
        client.sendall(HELLO)
        ask = b"".join(run_frame(b"show ip dhcp relay detail", number) for number in range(20000))
        try:
            while True:
                ask = ask[client.send(ask):]
                peak = max(peak, memory(calm))
        except TimeoutError:
            pass
        assert ask, "the daemon took all requests, whose answers nobody read"
        assert calm.sh("show privilege") == "Current privilege level is 31\n"
        peak = max(peak, memory(calm))
    assert peak - start < 4 << 20


def test_a_hello_that_does_not_come_and_a_frame_that_does_not_end(calm):
    """Both are given ten seconds."""
    with connect(calm) as silent, connect(calm) as slow:
        started = time.monotonic()
        slow.sendall(HELLO + frame(2, bytes(100))[:50])
        assert drain(silent) == frame(130, b"\x05its hello did not come in time")
        assert drain(slow).endswith(frame(130, b"\x05it began a frame and did not finish it in time"))
        assert 9 < time.monotonic() - started < 40  # at a busy machine's ease


def test_too_many_sessions(calm):
    clients = [connect(calm) for _ in range(64)]
    try:
        refused = calm.run("show version")
        assert (refused.returncode, refused.stdout) == (2, "")
        assert refused.stderr == (f"ravosh: {calm.socket}: all 64 sessions are in use; end one of them first\n")
    finally:
        for client in clients:
            client.close()
    wait_for(lambda: calm.run("show version").returncode == 0, 30, "free session")


def test_a_client_that_leaves_in_the_middle(calm):
    for cut in range(1, len(HELLO) + 40, 3):
        with connect(calm) as client:
            client.sendall((HELLO + run_frame(b"show ip dhcp relay detail") * 20)[:cut])
    with connect(calm) as client:
        client.sendall(HELLO + run_frame(b"show ip dhcp relay detail") * 50)


# ---- The wire ----

def test_a_client_with_a_broken_option_area_gets_nothing_and_others_their_lease(lab, relay):
    """Real clients beside a flood of broken messages."""
    stage = Stage(lab, relay)
    stage.configure(servers=(2,))
    stage.close()
    kea = lab.add_server(Kea, host=2)
    attacker = lab.client(2)
    for length in range(0, 600, 7):
        attacker.send(b"\xff" * 6 + bytes.fromhex(attacker.mac.replace(":", "")) + b"\x08\x00" + bytes(length))
        stage.ask(attacker, options=[(length % 255, b"x" * (length % 200))], end=False)
    lease = lab.client(1).run(Udhcpc)
    assert kea.owns(lease.address)
    kea.stop()
    lab.servers.remove(kea)

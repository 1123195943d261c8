# SPDX-License-Identifier: Apache-2.0
"""A daemon whose management side is tested: no relay lab around it, a startup configuration and a shell for it."""

import contextlib
import os
import re
import socket
import struct
import subprocess

from ravolab.namespace import Namespace
from ravolab.process import Process, wait_for
from ravolab.relay import BUILD

HELLO, RUN, COMPLETE, STATUS = 1, 2, 4, 138
WELCOME, REFUSED, OUTPUT, VALUE, ROW_KEY = 129, 130, 131, 132, 134


def sessions(relay):
    """The numbers of the management sessions that there are, of a relay that logs everything."""
    told = re.findall(r"^management: session (\d+) of user .*? (begins|ends|is closed)\b", relay.log, re.M)
    return {number for number, what in told if what == "begins"} - {number for number, what in told if what != "begins"}


def descriptors_at_rest(relay):
    """Of which kinds ravod's descriptors are when nobody but this function has a session, in order."""
    with Session(relay.socket) as session:
        wait_for(lambda: len(sessions(relay)) == 1, 30, "end of the other sessions")
        session.run("show privilege")  # served behind the closing of what has ended
        return sorted(name.split(":")[0] for name in relay.descriptors())


class Daemon:
    def __init__(self, folder, devices=()):
        self.folder = folder
        self.namespace = Namespace("managed")
        self.socket = folder / "run" / "ravod.sock"
        self.startup = folder / "etc" / "startup-config"
        self.startup.parent.mkdir(exist_ok=True)
        self.process = None
        self.starts = 0
        if devices:
            self.namespace.ip(*(f"link add {name} type bridge" for name in devices))

    def start(self, *options, **how):
        """options: of ravod, beside the usual ones; how: as of Process, for a mount namespace of the daemon's own."""
        self.starts += 1
        log = self.folder / f"log{self.starts}"
        self.process = Process(self.namespace, [BUILD / "ravod", "--user", "root", "--management", self.socket,
                                                "--log-level", "warning",
                                                "--startup-config", self.startup,
                                                *(() if "--state" in options else ("--state", self.folder / "state")),
                                                *options], log, **how)
        wait_for(self.answers, 60, lambda: f"answer from ravod; its log:\n{self.log[-2000:]}\nreadiness")
        return self

    def answers(self):
        assert self.process.alive, self.log
        with socket.socket(socket.AF_UNIX) as probe:
            return probe.connect_ex(str(self.socket)) == 0

    @property
    def log(self):
        return self.process.log

    def restart(self):
        assert self.process.stop() == 0, self.log
        return self.start()

    def sh(self, *words, stdin="", prefix=(), status=0):
        """ravosh with these words or lines; what it printed. Its exit status must be `status`."""
        result = subprocess.run([*prefix, BUILD / "ravosh", "--management", self.socket, *words],
                                input=stdin.encode("utf-8", "surrogateescape"), capture_output=True, timeout=120)
        output = (result.stdout + result.stderr).decode("utf-8", "surrogateescape")
        assert result.returncode == status, (result.returncode, output[-2000:])
        return output

    def configure(self, lines, status=0):
        return self.sh(stdin="configure terminal\n" + "".join(f"{line}\n" for line in lines), status=status)

    def close(self):
        status = self.process.stop() if self.process else 0
        self.namespace.close()
        assert status == 0, (status, self.log[-3000:])


class Session:
    """A program at the management socket, which speaks the frames of docs/management-protocol.md itself."""

    def __init__(self, path, privilege=31, mode=4):
        self.socket = socket.socket(socket.AF_UNIX)
        self.socket.settimeout(60)
        self.socket.connect(str(path))
        with contextlib.suppress(BrokenPipeError):  # refused before it said a word; the refusal can be read
            self.send(HELLO, struct.pack(">4sHBB", b"RAVO", 1, privilege, mode))
        self.kind, self.greeting = self.receive()

    def send(self, kind, payload):
        self.socket.sendall(struct.pack(">BI", kind, len(payload)) + payload)

    def exactly(self, count):
        data = b""
        while len(data) < count:
            piece = self.socket.recv(count - len(data))
            assert piece, "the daemon closed the connection"
            data += piece
        return data

    def receive(self):
        kind, length = struct.unpack(">BI", self.exactly(5))
        return kind, self.exactly(length)

    def run(self, line, view=1):
        """The command's result and all frames before its status, and the prompt behind it."""
        self.send(RUN, struct.pack(">IBBB", 7, view, 0, 0) + os.fsencode(line))
        frames = []
        while True:
            kind, payload = self.receive()
            if kind == STATUS:
                identity, result, _flags, _mode, _page, length = struct.unpack(">IiBBiH", payload[:16])
                assert identity == 7
                return result, frames, payload[16:16 + length].decode()
            frames.append((kind, payload))

    def complete(self, line):
        """The whole words that the line's last one may become."""
        self.send(COMPLETE, struct.pack(">I", 8) + os.fsencode(line))
        words = []
        while True:
            kind, payload = self.receive()
            if kind == STATUS:
                return words
            words.append(payload.decode())

    def close(self):
        self.socket.close()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

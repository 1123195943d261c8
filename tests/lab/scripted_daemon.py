# SPDX-License-Identifier: Apache-2.0
"""A daemon that says what a test wants at the management socket: for what a real one says only after long waiting, or
never. It speaks the frames of docs/management-protocol.md; each command line has the answer that the test gave it."""

import json
import socket
import struct
import threading

HELLO, RUN, WELCOME, OUTPUT, STATUS = 1, 2, 129, 131, 138


def text(value):
    return struct.pack(">H", len(value)) + value


class ScriptedDaemon:
    def __init__(self, path):
        self.path, self.answers, self.asked = path, {}, []
        self.listener = socket.socket(socket.AF_UNIX)
        self.listener.bind(str(path))
        self.listener.listen(16)
        threading.Thread(target=self._accept, daemon=True).start()

    def says(self, line, value):
        """value: the document or the text that the command prints from now on."""
        self.answers[line] = value if isinstance(value, str) else json.dumps(value)

    def _accept(self):
        while True:
            try:
                link, _ = self.listener.accept()
            except OSError:
                return
            threading.Thread(target=self._serve, args=(link,), daemon=True).start()

    def _serve(self, link):
        with link, link.makefile("rb") as frames:
            while head := frames.read(5):
                kind, length = struct.unpack(">BI", head)
                payload = frames.read(length)
                try:
                    if kind == HELLO:
                        self._send(link, WELCOME, b"RAVO" + struct.pack(">HBBB", 1, 31, 1, payload[7]) + text(b"#") +
                                   text(b"9.9"))
                    elif kind == RUN:
                        self._run(link, payload[:4], payload[7:].decode())
                except OSError:
                    return

    def _run(self, link, identity, line):
        self.asked.append(line)
        known = line in self.answers
        said = (self.answers[line] if known else "% Invalid input\n").encode()
        for at in range(0, len(said), 32768):
            self._send(link, OUTPUT, said[at:at + 32768])
        self._send(link, STATUS, identity + struct.pack(">iBBi", 0 if known else 1, 0, 4, -1) + text(b"#") + text(b""))

    @staticmethod
    def _send(link, kind, payload):
        link.sendall(struct.pack(">BI", kind, len(payload)) + payload)

    def close(self):
        self.listener.close()

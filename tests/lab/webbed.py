# SPDX-License-Identifier: Apache-2.0
"""ravo-web beside a daemon: its process, and a client that speaks HTTP to it."""

import contextlib
import http.client
import json
import os
import re
import socket
import subprocess
from pathlib import Path

from ravolab.process import wait_for
from ravolab.relay import BUILD

PASSWORD = "a long password"


class Web:
    def __init__(self, folder, management, *options, users=("alice",), readers=(), listen="127.0.0.1:0"):
        self.folder = Path(folder)
        self.accounts = self.folder / "accounts"
        self.tokens = self.folder / "tokens"
        self.tokens.write_text("0123456789abcdefTOKEN\n")
        self.tokens.chmod(0o640)
        for user in (*users, *readers):
            self.tool("--set-password", user, input=PASSWORD + "\n")
        for user in readers:
            self.tool("--account-role", f"{user}=reader")
        self.words = [BUILD / "ravo-web", "--listen", listen, "--management", management, "--accounts", self.accounts,
                      "--token-file", self.tokens, *options]
        self.process, self.port = None, None

    def tool(self, *words, input=None, status=0):
        """ravo-web as a tool for its accounts."""
        result = subprocess.run([BUILD / "ravo-web", "--accounts", self.accounts, *words], input=input, text=True,
                                capture_output=True, timeout=60)
        assert result.returncode == status, (result.returncode, result.stdout, result.stderr)
        return result.stdout + result.stderr

    def start(self):
        self.log_path = self.folder / "web-log"
        with open(self.log_path, "wb") as log:
            self.process = subprocess.Popen(["setpriv", "--pdeathsig", "KILL", *map(str, self.words)],
                                            stdin=subprocess.DEVNULL, stdout=log, stderr=subprocess.STDOUT)
        self.port = int(wait_for(self._port, 30, lambda: f"address from ravo-web; its log:\n{self.log}\nreadiness"))
        return self

    def _port(self):
        assert self.process.poll() is None, self.log
        found = re.search(r"listening on https?://\S+:(\d+)/", self.log)
        return found and found[1]

    @property
    def log(self):
        return self.log_path.read_text(errors="replace")

    @property
    def url(self):
        return f"http://127.0.0.1:{self.port}/"

    def memory(self):
        """KiB that ravo-web has in memory."""
        return int(re.search(r"VmRSS:\s+(\d+)", Path(f"/proc/{self.process.pid}/status").read_text())[1])

    def stop(self):
        if self.process.poll() is None:
            self.process.terminate()
        return self.process.wait(30)

    def request(self, method, path, body=None, headers=None, timeout=30):
        """(status, headers, body as bytes)"""
        link = http.client.HTTPConnection("127.0.0.1", self.port, timeout=timeout)
        try:
            link.request(method, path, body, headers or {})
            answer = link.getresponse()
            return answer.status, answer.headers, answer.read()
        finally:
            link.close()

    def raw(self, data, timeout=30):
        """What comes back for these bytes, until the server closes."""
        with socket.create_connection(("127.0.0.1", self.port), timeout=timeout) as link:
            answer = b""
            with contextlib.suppress(ConnectionResetError, BrokenPipeError):
                link.sendall(data)
            with contextlib.suppress(OSError):
                link.shutdown(socket.SHUT_WR)
            with contextlib.suppress(ConnectionResetError):
                while piece := link.recv(65536):
                    answer += piece
            return answer

    def user(self, name="alice", password=PASSWORD):
        return User(self, name, password)


class User:
    """Somebody signed in."""

    def __init__(self, web, name, password):
        self.web = web
        status, headers, body = web.request("POST", "/api/v1/session", json.dumps({"user": name, "password": password}),
                                            {"Content-Type": "application/json"})
        assert status == 200, (status, body)
        self.cookie = headers["Set-Cookie"].split(";")[0]
        self.set_cookie = headers["Set-Cookie"]
        self.session = json.loads(body)

    def ask(self, method, path, body=None, csrf=True, **headers):
        """(status, document)"""
        sent = {"Cookie": self.cookie, **{name.replace("_", "-"): value for name, value in headers.items()}}
        if csrf and method != "GET":
            sent["X-CSRF-Token"] = self.session["csrf"]
        if body is not None:
            sent.setdefault("Content-Type", "application/json")
            body = body if isinstance(body, (bytes, str)) else json.dumps(body)
        status, _, text = self.web.request(method, "/api/v1" + path, body, sent)
        return status, json.loads(text) if text else None

    def get(self, path, status=200):
        got, value = self.ask("GET", path)
        assert got == status, (got, value)
        return value


def descriptors(pid):
    return len(os.listdir(f"/proc/{pid}/fd"))

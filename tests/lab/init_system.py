#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""An init system of one service, in short: it keeps descriptors for it, and starts it again.

    init_system.py FOLDER PROGRAM [WORD]...

SIGUSR1 restarts the service in order, SIGTERM stops it for good; when it dies by itself it is started again at once. What it
stores (FDSTORE=1, FDSTOREREMOVE=1) the next start is given. FOLDER/stored tells the names of what is stored, one a line,
FOLDER/starts has a line for each start that was ready. A file FOLDER/given/NAME is a descriptor more at the next start.
"""

import array
import contextlib
import os
import signal
import socket
import sys
from pathlib import Path

FIRST = 3  # where the service finds its descriptors
ELSEWHERE = 100  # numbers from here on are nobody's
SIGNALS = {signal.SIGTERM, signal.SIGUSR1, signal.SIGCHLD}


class Service:
    def __init__(self, folder, words):
        self.folder, self.words, self.stored, self.pid = Path(folder), words, [], None
        self.path = self.folder / "notify"
        self.told = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.told.bind(str(self.path))
        os.chmod(self.path, 0o666)

    def start(self):
        given = [(path.name, os.open(path, os.O_RDWR)) for path in sorted((self.folder / "given").glob("*"))]
        handed = [*self.stored, *given]
        self.pid = os.fork()
        if self.pid == 0:
            self.become(handed)
        for _, fd in given:
            os.close(fd)

    def become(self, handed):
        signal.pthread_sigmask(signal.SIG_SETMASK, [])
        out_of_the_way = [os.dup2(fd, ELSEWHERE + number) for number, (_, fd) in enumerate(handed)]
        os.closerange(FIRST, ELSEWHERE)
        for number, fd in enumerate(out_of_the_way):
            os.dup2(fd, FIRST + number)
        os.closerange(ELSEWHERE, 2 * ELSEWHERE)
        os.environ["NOTIFY_SOCKET"] = str(self.path)
        if handed:
            os.environ.update(LISTEN_PID=str(os.getpid()), LISTEN_FDS=str(len(handed)),
                              LISTEN_FDNAMES=":".join(name for name, _ in handed))
        os.execv(self.words[0], self.words)

    def hear(self):
        room = array.array("i", [-1] * 16)
        data, more, _, _ = self.told.recvmsg(4096, socket.CMSG_SPACE(len(room) * room.itemsize))
        fds = array.array("i")
        for level, kind, content in more:
            if (level, kind) == (socket.SOL_SOCKET, socket.SCM_RIGHTS):
                fds.frombytes(content[:len(content) - len(content) % fds.itemsize])
        lines = data.decode().split("\n")
        name = next((line.removeprefix("FDNAME=") for line in lines if line.startswith("FDNAME=")), "stored")
        if "FDSTORE=1" in lines:
            self.stored += [(name, os.dup(fd)) for fd in fds]
        if "FDSTOREREMOVE=1" in lines:
            for found in [entry for entry in self.stored if entry[0] == name]:
                os.close(found[1])
                self.stored.remove(found)
        for fd in fds:
            os.close(fd)
        if "READY=1" in lines:
            with open(self.folder / "starts", "a") as starts:
                starts.write(f"{self.pid}\n")
        (self.folder / "stored").write_text("".join(f"{one}\n" for one, _ in self.stored))

    def hear_all(self):
        self.told.setblocking(False)
        with contextlib.suppress(BlockingIOError):
            while True:
                self.hear()

    def end(self):
        os.kill(self.pid, signal.SIGTERM)
        return os.waitpid(self.pid, 0)[1]

    def run(self):
        self.start()
        while True:
            number = signal.sigtimedwait(SIGNALS, 0.02)
            self.hear_all()
            if number is None:
                continue
            if number.si_signo == signal.SIGTERM:
                return os.waitstatus_to_exitcode(self.end())
            if number.si_signo == signal.SIGUSR1:
                self.end()
                self.hear_all()
                self.start()
            elif number.si_signo == signal.SIGCHLD and os.waitpid(-1, os.WNOHANG)[0] == self.pid:
                self.hear_all()
                self.start()


if __name__ == "__main__":
    signal.pthread_sigmask(signal.SIG_BLOCK, SIGNALS)
    sys.exit(Service(sys.argv[1], sys.argv[2:]).run())

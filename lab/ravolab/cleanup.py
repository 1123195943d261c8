# SPDX-License-Identifier: Apache-2.0
"""Nothing of a lab outlives it.

Namespaces and processes end with the runner by construction (see namespace and process). What is left to
tidy are the folders: each is named after its owner, so that a run that was killed is tidied by the next.
"""

import atexit
import contextlib
import os
import re
import shutil
import signal
import sys
import tempfile
from pathlib import Path

_PREFIX = "ravo-lab-"
USER_SIGNALS = {signal.SIGINT, signal.SIGTERM, signal.SIGHUP}
_open_labs = []


def _start_time(pid):
    """When the process started, in clock ticks since boot: tells a process from a later one with its id."""
    try:
        return Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()[19]
    except (OSError, IndexError):
        return None


def make_folder():
    """A fresh folder, named ravo-lab-PID-START-RANDOM, that other programs may read."""
    sweep()
    folder = tempfile.mkdtemp(prefix=f"{_PREFIX}{os.getpid()}-{_start_time(os.getpid())}-")
    os.chmod(folder, 0o755)
    return Path(folder)


def sweep():
    """Remove the folders whose owner is gone; returns them."""
    removed = []
    for folder in Path(tempfile.gettempdir()).glob(f"{_PREFIX}*"):
        owner = re.fullmatch(rf"{_PREFIX}(\d+)-(\d+)-\w+", folder.name)
        with contextlib.suppress(FileNotFoundError):  # another lab may have swept it meanwhile
            if owner and _start_time(owner[1]) != owner[2] and folder.stat().st_uid == os.getuid():
                shutil.rmtree(folder, ignore_errors=True)
                removed.append(folder)
    return removed


def register(lab):
    _open_labs.append(lab)


def unregister(lab):
    with contextlib.suppress(ValueError):
        _open_labs.remove(lab)


@contextlib.contextmanager
def undisturbed():
    """No signal of a user interrupts the block; it arrives behind it. Other threads never take these signals."""
    before = signal.pthread_sigmask(signal.SIG_BLOCK, USER_SIGNALS)
    try:
        yield
    finally:
        signal.pthread_sigmask(signal.SIG_SETMASK, before)


def _close_all():
    with undisturbed():
        for lab in list(_open_labs):
            lab.close()
        mine = f"{_PREFIX}{os.getpid()}-{_start_time(os.getpid())}-*"
        for folder in Path(tempfile.gettempdir()).glob(mine):
            shutil.rmtree(folder, ignore_errors=True)


def _leave(number, _frame):
    # One is enough: a second signal must not break into the tidying that the first one started.
    for name in (signal.SIGTERM, signal.SIGHUP):
        signal.signal(name, signal.SIG_IGN)
    sys.exit(128 + number)


def on_signals():
    """SIGINT, SIGTERM and SIGHUP end the program in order, also where a shell started it with SIGINT ignored."""
    signal.signal(signal.SIGINT, signal.default_int_handler)
    for number in (signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, _leave)


atexit.register(_close_all)

# SPDX-License-Identifier: Apache-2.0
"""The packages of this tree: built where they are to run, and as an earlier version of themselves."""

import os
import re
import shutil
import subprocess
from pathlib import Path

REPOSITORY = Path(__file__).resolve().parents[2]
EARLIER = "0.0.1"
NAMES = ("ravo", "ravo-web", "ravo-snmp")


class NotBuilt(Exception):
    """The packages were not built; the text says where to look."""


def in_folder(folder):
    """The packages of this version in a folder."""
    version = (REPOSITORY / "VERSION").read_text().strip()
    return [file for name in NAMES for file in sorted(Path(folder).glob(f"{name}_{version}_*.deb"))]


def build_here():
    """Those that `make deb` builds on this machine."""
    done = subprocess.run([REPOSITORY / "packaging/build-deb"], cwd=REPOSITORY, text=True, capture_output=True, stdin=subprocess.DEVNULL)
    if done.returncode != 0:
        raise NotBuilt(f"packaging/build-deb failed: {(done.stdout + done.stderr)[-1500:]}")
    return in_folder(REPOSITORY / "build")


def copy_sources(to):
    """The tree as it is now, what was built left out."""
    listed = subprocess.run(["git", "-C", REPOSITORY, "ls-files", "-z", "--cached", "--others", "--exclude-standard"], check=True,
                            capture_output=True).stdout
    names = [name for name in os.fsdecode(listed).split("\0") if name and (REPOSITORY / name).is_file()]
    for name in names:
        source, target = REPOSITORY / name, to / name
        if target.is_file() and target.stat().st_mtime_ns == source.stat().st_mtime_ns and target.stat().st_size == source.stat().st_size:
            continue  # what is not touched is not compiled again
        target.parent.mkdir(parents=True, exist_ok=True)
        shutil.copy2(source, target)


def as_earlier(files, folder):
    """The same packages with an earlier version's number, which depend on each other by it."""
    made = []
    Path(folder).mkdir(parents=True, exist_ok=True)
    for file in files:
        tree = Path(folder) / Path(file).stem
        subprocess.run(["dpkg-deb", "-R", file, tree], check=True)
        control = tree / "DEBIAN/control"
        version = re.search(r"^Version: (.*)$", control.read_text(), re.M)[1]
        control.write_text(control.read_text().replace(f"Version: {version}", f"Version: {EARLIER}")
                           .replace(f"(= {version})", f"(= {EARLIER})"))
        made.append(tree.with_suffix(".deb"))
        subprocess.run(["dpkg-deb", "-Znone", "--root-owner-group", "-b", tree, made[-1]], check=True, stdout=subprocess.DEVNULL)
    return made

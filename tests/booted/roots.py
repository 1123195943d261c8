# SPDX-License-Identifier: Apache-2.0
"""The roots that machines are booted over, kept below build/roots: a small Debian of a release with what the steps use, and,
for a release that this machine is not, one that the packages are built in."""

import os
import re
import shutil
import subprocess
from pathlib import Path

import packages

KEPT = packages.REPOSITORY / "build/roots"
RELEASES = {"12": "bookworm", "13": "trixie"}
# What the steps and the recipes use in a machine, besides what the packages depend on.
TOOLS = ("systemd", "systemd-sysv", "dbus", "iproute2", "procps", "python3", "dnsmasq-base", "udhcpc", "snmpd", "snmp",
         "ca-certificates")
PROGRAMS = {"systemd-nspawn": "systemd-container", "nsenter": "util-linux", "dpkg-deb": "dpkg"}
HERE_PROGRAMS = {"systemctl": "systemd", "udhcpc": "udhcpc", "dnsmasq": "dnsmasq-base", "snmpd": "snmpd", "snmpwalk": "snmp"}


class Unavailable(Exception):
    """A machine cannot be booted here; the text says why."""


def need(programs):
    absent = sorted({package for program, package in programs.items() if not shutil.which(program)})
    if absent:
        raise Unavailable(f"packages are missing: {' '.join(absent)}")


def done(words, limit, why):
    try:
        result = subprocess.run([str(word) for word in words], text=True, errors="replace", capture_output=True, stdin=subprocess.DEVNULL,
                                timeout=limit)
    except subprocess.TimeoutExpired:
        raise Unavailable(f"{why}: not within {limit} s") from None
    if result.returncode != 0:
        raise Unavailable(f"{why}: {(result.stdout + result.stderr).strip()[-800:]}")
    return result.stdout


def this_release():
    """The number of this machine's Debian, None for another system."""
    text = Path("/etc/os-release").read_text()
    found = re.search(r'^VERSION_ID="?(\d+)', text, re.M)
    return found[1] if found and re.search(r"^ID=debian$", text, re.M) else None


def made(name, release, more):
    """A root of a release with more packages, made when it is not there: its folder."""
    folder, wanted = KEPT / name, KEPT / f"{name}.packages"
    asked = "\n".join(sorted(set(more)))
    if folder.is_dir() and wanted.is_file() and wanted.read_text() == asked:
        return folder
    need({"mmdebstrap": "mmdebstrap"})
    print(f"ravo: making a root of Debian {release} in {folder.relative_to(packages.REPOSITORY)}", flush=True)
    fresh = KEPT / f"{name}.fresh"
    subprocess.run(["rm", "-rf", "--one-file-system", fresh, folder], check=True)
    KEPT.mkdir(parents=True, exist_ok=True)
    done(["mmdebstrap", "--quiet", "--variant=minbase", f"--include={','.join(more)}", RELEASES[release], fresh], 900,
         f"mmdebstrap of {RELEASES[release]}")
    fresh.rename(folder)
    wanted.write_text(asked)
    return folder


def inside(root, command, limit, why):
    """Run a command of the shell in a root that is not booted."""
    return done(["systemd-nspawn", "-q", "-D", root, "--register=no", "--keep-unit", "--private-network", "--pipe", "sh", "-c", command],
                limit, why)


def build_dependencies():
    """The packages that building takes, of packaging/dependencies."""
    text = (packages.REPOSITORY / "packaging/dependencies").read_text()
    sets = [re.search(rf'^ +\[{name}\]="([^"]*)"', text, re.M)[1].split() for name in ("build", "deb")]
    return [name for names in sets for name in names]


def built(release):
    """The packages for a release, built in it."""
    if release == this_release():
        return packages.build_here()
    root = made(f"build-{release}", release, [*build_dependencies(), "make"])
    packages.copy_sources(root / "source")
    time = done(["git", "-C", packages.REPOSITORY, "log", "-1", "--format=%ct"], 60, "git log").strip()
    print(f"ravo: building the packages in Debian {release}", flush=True)
    inside(root, f"cd /source && rm -f build/*.deb && SOURCE_DATE_EPOCH={time} packaging/build-deb", 3000, f"the build in Debian {release}")
    return packages.in_folder(root / "source/build")


def libraries(files):
    """The packages of libraries that packages depend on."""
    depends = done(["dpkg-deb", "-f", files[0], "Depends"], 60, "dpkg-deb") + "".join(
        ", " + done(["dpkg-deb", "-f", file, "Depends"], 60, "dpkg-deb") for file in files[1:])
    return sorted({word.split()[0] for word in depends.replace("\n", "").split(",")} - set(packages.NAMES) - {""})


def of_release(release):
    """(name, root, packages) for a release."""
    files = built(release)
    if len(files) != len(packages.NAMES):
        raise Unavailable(f"the build for Debian {release} left {len(files)} packages")
    return f"debian{release}", made(f"run-{release}", release, [*TOOLS, *libraries(files)]), files


def of_this_machine():
    """(name, root, packages) for this machine's own root, with the packages that were built last or are built now."""
    need(HERE_PROGRAMS)
    files = packages.in_folder(packages.REPOSITORY / "build") or packages.build_here()
    return "this-debian", Path("/"), files


def wanted(words):
    """What the command line asks for, one (name, root, packages) after the other."""
    need(PROGRAMS)
    if os.environ.get("container") and not os.access("/sys/fs/cgroup", os.W_OK):
        raise Unavailable("this container may not make another")
    if words == ["--here"]:
        yield of_this_machine()
        return
    for release in words or RELEASES:
        if release not in RELEASES:
            raise Unavailable(f"no Debian {release!r}; there are {', '.join(RELEASES)}, and --here")
        yield of_release(release)

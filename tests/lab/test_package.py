# SPDX-License-Identifier: Apache-2.0
"""The Debian package: what is in it, and what installing and removing it leaves, in a folder that plays the machine."""

import hashlib
import json
import os
import re
import shutil
import subprocess

import pytest
from conftest import REPOSITORY

VERSION = (REPOSITORY / "VERSION").read_text().strip()

FOLDER, FILE, PROGRAM = "drwxr-xr-x", "-rw-r--r--", "-rwxr-xr-x"


def run(*words, **more):
    """Standard output of a command that must succeed."""
    result = subprocess.run([str(word) for word in words], text=True, capture_output=True, timeout=600, **more)
    assert result.returncode == 0, f"{words}: status {result.returncode}\n{result.stdout[-2000:]}{result.stderr[-4000:]}"
    return result.stdout


@pytest.fixture(scope="module")
def package():
    printed = run("make", "--no-print-directory", "deb", cwd=REPOSITORY)
    architecture = run("dpkg", "--print-architecture").strip()
    assert printed.splitlines()[-3:] == [f"build/{name}_{VERSION}_{architecture}.deb"
                                         for name in ("ravo-web", "ravo-snmp", "ravo")]
    return REPOSITORY / printed.splitlines()[-1]


def entries(package):
    """{path: "MODE OWNER"} of what the package unpacks."""
    rows = (line.split(maxsplit=5) for line in run("dpkg-deb", "-c", package).splitlines())
    return {path.removeprefix(".").rstrip("/") or "/": f"{mode} {owner}" for mode, owner, _, _, _, path in rows}


def test_contents(package):
    documents = [path.name for path in (REPOSITORY / "docs").glob("*.md")]
    expected = {
        "/etc/ravo": FOLDER,
        **{f"/usr/lib/systemd/system/{unit}": FILE for unit in ("ravod.service", "ravo-gate.socket", "ravo-gate@.service")},
        **{f"/usr/bin/{name}": PROGRAM for name in ("ravo-import", "ravosh")},
        "/usr/lib/sysusers.d/ravo.conf": FILE,
        "/usr/lib/tmpfiles.d/ravo.conf": FILE,
        "/usr/sbin/ravod": PROGRAM,
        **{f"/usr/share/doc/ravo/{name}": FILE for name in ("README.md", "CHANGELOG.md", "changelog.gz", "copyright", "kernel.conf", "ravo.spdx.json", *documents)},
        **{f"/usr/share/bash-completion/completions/{name}": FILE for name in ("ravod", "ravosh")},
        **{f"/usr/share/man/man1/{name}.1.gz": FILE for name in ("ravo-import", "ravosh")},
        **{f"/usr/share/doc/ravo/schema/{path.name}": FILE for path in (REPOSITORY / "docs/schema").iterdir()},
        "/usr/share/man/man5/switch.toml.5.gz": FILE,
        "/usr/share/man/man8/ravod.8.gz": FILE,
    }
    for path in list(expected):
        while path != "/":
            path = os.path.dirname(path)
            expected[path] = FOLDER
    assert entries(package) == {path: f"{mode} root/root" for path, mode in expected.items()}


def beside(package, name):
    """The package of a program in front, built together with the daemon's."""
    return package.with_name(package.name.replace("ravo_", f"{name}_"))


@pytest.mark.parametrize("name, more", [
    ("ravo-web", {f"/usr/share/doc/ravo-web/monitoring/{path.name}" for path in (REPOSITORY / "docs/monitoring").glob("*")}),
    ("ravo-snmp", {"/usr/share/snmp/mibs/RAVO-DHCP-RELAY-MIB.txt"})])
def test_contents_of_the_programs_in_front(package, name, more):
    files = {path for path, mode in entries(beside(package, name)).items() if not mode.startswith("d")}
    assert files == more | {f"/usr/sbin/{name}", f"/usr/lib/systemd/system/{name}.service", f"/usr/lib/sysusers.d/{name}.conf",
                            f"/usr/share/man/man8/{name}.8.gz",
                            *(f"/usr/share/doc/{name}/{file}" for file in ("CHANGELOG.md", "changelog.gz", "copyright",
                                                                             f"{name}.spdx.json"))}
    assert f"ravo (= {VERSION})" in run("dpkg-deb", "-f", beside(package, name), "Depends")


def test_programs_in_front_are_installed_and_purged(package, tmp_path):
    machine = Machine(tmp_path / "machine")
    machine.dpkg("-i", package, beside(package, "ravo-web"), beside(package, "ravo-snmp"))
    users = {line.split(":")[0] for line in (machine.folder / "etc/passwd").read_text().splitlines()}
    assert users >= {"ravo-web", "ravo-snmp"} and "ravo-admin" in group_names(machine)
    for name in ("ravo-web", "ravo-snmp"):
        assert run(machine.folder / "usr/sbin" / name, "--version") == f"{name} {VERSION}\n"
    (machine.folder / "etc/ravo/web-accounts").write_text("")
    machine.dpkg("-P", "ravo-web", "ravo-snmp", "ravo")
    left = {path for path in machine.files() - machine.before if "ravo" in path}
    assert left == set()


@pytest.mark.parametrize("name", ["ravod", "ravo-gate@", "ravo-web", "ravo-snmp"])
def test_services_are_shut_in(name, tmp_path):
    """What systemd finds exposed of them: at most 1.5 of 10."""
    unit = (REPOSITORY / "packaging" / f"{name}.service").read_text()
    unit = re.sub(r"(?<=^ExecStart=)/usr/sbin/\S+", "/bin/true", unit, flags=re.M)
    (tmp_path / f"{name}.service").write_text(unit)
    shown = run("systemd-analyze", "security", "--offline=true", "--no-pager", tmp_path / f"{name}.service")
    assert float(re.search(r"Overall exposure level for \S+: ([\d.]+)", shown)[1]) <= 1.5, shown


def test_control(package):
    def field(name):
        return run("dpkg-deb", "-f", package, name).strip()

    assert (field("Package"), field("Version")) == ("ravo", VERSION)
    depends = {word.split()[0] for word in field("Depends").split(", ")}
    assert depends >= {"libc6", "libedit2", "libevent-core-2.1-7", "libmnl0", "libbpf1", "libseccomp2", "libstdc++6",
                       "passwd"}
    assert not any(name.startswith("libsystemd") for name in depends), "the few lines for the init system are our own"


def unpacked(package, name, folder):
    """The programs of a package, and its folder of documents."""
    run("dpkg-deb", "-x", beside(package, name), folder)
    programs = [path for place in ("usr/sbin", "usr/bin") for path in (folder / place).glob("*")]
    return programs, folder / "usr/share/doc" / name


@pytest.mark.parametrize("name", ["ravo", "ravo-web", "ravo-snmp"])
def test_programs_are_hardened(package, name, tmp_path):
    programs, _ = unpacked(package, name, tmp_path)
    run(REPOSITORY / "tests/hardening/check", *programs)


@pytest.mark.parametrize("name", ["ravo", "ravo-web", "ravo-snmp"])
def test_list_of_what_it_is_made_of(package, name, tmp_path):
    """Each library that the package depends on, and the programs with their checksums, are in the SPDX document."""
    programs, documents = unpacked(package, name, tmp_path)
    document = json.loads((documents / f"{name}.spdx.json").read_text())
    assert (document["spdxVersion"], document["dataLicense"]) == ("SPDX-2.3", "CC0-1.0")
    named = {element["SPDXID"] for element in [*document["packages"], *document["files"]]} | {"SPDXRef-DOCUMENT"}
    for relation in document["relationships"]:
        assert {relation["spdxElementId"], relation["relatedSpdxElement"]} <= named
    kinds = {relation["relatedSpdxElement"]: relation["relationshipType"] for relation in document["relationships"]}
    listed = {element["name"]: kinds[element["SPDXID"]] for element in document["packages"]}
    depends = {word.split()[0] for word in run("dpkg-deb", "-f", beside(package, name), "Depends").split(", ")}
    assert {one for one, kind in listed.items() if kind == "DYNAMIC_LINK"} >= {one for one in depends if one.startswith("lib")}
    compiled = "libtomlplusplus-dev" if name == "ravo" else "nlohmann-json3-dev"
    assert [one for one, kind in listed.items() if kind == "STATIC_LINK"] == [compiled]
    checksums = {file["fileName"]: file["checksums"][1]["checksumValue"] for file in document["files"]}
    assert checksums == {f"./{path.name}": hashlib.sha256(path.read_bytes()).hexdigest() for path in programs}


class Machine:
    """A folder with what dpkg needs to take it for a machine; scripts of packages run against it from outside."""

    def __init__(self, folder):
        self.folder = folder
        for name in ("var/lib/dpkg/info", "var/lib/dpkg/updates", "var/lib/dpkg/triggers", "etc"):
            (folder / name).mkdir(parents=True)
        (folder / "var/lib/dpkg/status").touch()
        (folder / "var/lib/dpkg/available").touch()
        self.before = self.files()

    def dpkg(self, *words):
        return run("dpkg", f"--root={self.folder}", "--force-depends", "--force-script-chrootless", "--log=/dev/null",
                   *words, stdin=subprocess.DEVNULL)

    def files(self):
        """Everything but dpkg's own notes."""
        found = (path.relative_to(self.folder).as_posix() for path in self.folder.rglob("*"))
        return {path for path in found if not path.startswith("var/lib/dpkg/")}


def group_names(machine):
    return {line.split(":")[0] for line in (machine.folder / "etc/group").read_text().splitlines()}


def test_install_remove_and_purge(package, tmp_path):
    machine = Machine(tmp_path / "machine")
    machine.dpkg("-i", package)
    assert group_names(machine) >= {"ravo", "ravo-admin"}
    assert run(machine.folder / "usr/sbin/ravod", "--version") == f"ravod {VERSION}\n"
    for name in ("ravosh", "ravo-import"):
        assert run(machine.folder / "usr/bin" / name, "--version") == f"{name} {VERSION}\n"
    unit = (machine.folder / "usr/lib/systemd/system/ravod.service").read_text()
    program = re.search(r"^ExecStart=(\S+)", unit, re.M)[1]
    assert (machine.folder / program.lstrip("/")).is_file()
    assert not list(machine.folder.rglob("*.wants")), "a service was enabled"

    configuration = machine.folder / "etc/ravo"
    user = re.search(r"^ravo:[^:]*:(\d+):(\d+):", (machine.folder / "etc/passwd").read_text(), re.M)
    assert (configuration.stat().st_uid, configuration.stat().st_gid) == (int(user[1]), int(user[2])), "cannot be saved in"
    for name in ("startup-config", "startup-config.1", "switch.toml"):
        (configuration / name).write_text("!\n")
    machine.dpkg("-r", "ravo")
    assert sorted(path.name for path in configuration.iterdir()) == ["startup-config", "startup-config.1", "switch.toml"]
    machine.dpkg("-P", "ravo")
    assert [path.name for path in configuration.iterdir()] == ["switch.toml"]


def test_a_purge_leaves_nothing_of_the_daemons(package, tmp_path):
    machine = Machine(tmp_path / "machine")
    machine.dpkg("-i", package)
    (machine.folder / "etc/ravo/startup-config").write_text("!\n")
    machine.dpkg("-P", "ravo")
    left = {path for path in machine.files() - machine.before if "ravo" in path}
    assert left == set()


def test_life_under_a_booted_systemd(package):
    """Over this machine's own root, which nothing is written to; `make deb-test` does the same in roots of two releases."""
    done = subprocess.run([REPOSITORY / "tests/booted/run", "--here"], text=True, capture_output=True, stdin=subprocess.DEVNULL, timeout=300)
    print(done.stdout)
    if done.returncode == 77:
        pytest.skip(done.stderr.strip())
    assert done.returncode == 0, done.stdout + done.stderr
    assert re.fullmatch(r"\d+ passed, 0 failed", done.stdout.splitlines()[-1])


# ---- Without packages ----

def made(folder, *words):
    """Standard output of make, from the package's build, into a folder that plays the machine."""
    return run("make", "--no-print-directory", *words, "BUILD=build-package", f"DESTDIR={folder}", cwd=REPOSITORY)


def below(folder):
    """Its files, and the folders that bear the relay's name."""
    return {path.relative_to(folder).as_posix() for path in folder.rglob("*") if not path.is_dir() or path.name == "ravo"}


def test_uninstall_takes_away_what_install_put(package, tmp_path):
    for name in ("etc/ravo/startup-config", "usr/local/bin/somebody-elses"):
        (tmp_path / name).parent.mkdir(parents=True, exist_ok=True)
        (tmp_path / name).touch()
    before = below(tmp_path)
    printed = made(tmp_path, "install-built", "install-users")
    assert printed.splitlines()[-1] == "-- Next, where these files go: systemd-sysusers && systemd-tmpfiles --create"
    put = below(tmp_path) - before
    assert put >= {"usr/local/sbin/ravod", "usr/local/bin/ravosh", "etc/systemd/system/ravod.service", "usr/local/include/ravo",
                   "etc/sysusers.d/ravo.conf", "etc/tmpfiles.d/ravo.conf", "usr/local/share/man/man8/ravod.8"}
    assert not (tmp_path / "etc/passwd").exists()
    lines = made(tmp_path, "uninstall").splitlines()
    assert lines[:-1] == [f"-- Removing: {tmp_path}/{name}" for name in sorted(put) if not name.endswith("/ravo")]
    assert lines[-1].startswith("-- Left: /etc/ravo, ")
    assert below(tmp_path) == before
    assert len(made(tmp_path, "uninstall").splitlines()) == 1, "a second time there is nothing to remove"


@pytest.mark.parametrize("by_hand", [False, True], ids=["systemd", "passwd"])
def test_users_are_made(tmp_path, by_hand):
    """By systemd's programs, and where these are not there by those of passwd; a second time changes nothing."""
    tools = tmp_path / "tools"
    tools.mkdir()
    for name in ("bash", "cat", "chown", "dirname", "grep", "groupadd", "id", "install", "realpath", "sed", "useradd"):
        (tools / name).symlink_to(shutil.which(name))
    environment = {**os.environ, "PATH": str(tools)} if by_hand else None
    box = tmp_path / "box"
    (box / "etc").mkdir(parents=True)
    for _ in range(2):
        printed = run(REPOSITORY / "packaging/make-users", "--root", box, env=environment)
        assert printed == "-- Groups: ravo may look, ravo-admin may do everything (usermod -aG ravo-admin NAME)\n"
        users = {line.split(":")[0]: line.split(":")[2:4] for line in (box / "etc/passwd").read_text().splitlines()}
        groups = [line.split(":")[0] for line in (box / "etc/group").read_text().splitlines()]
        assert sorted(users) == ["ravo", "ravo-snmp", "ravo-web"]
        assert sorted(groups) == ["ravo", "ravo-admin", "ravo-snmp", "ravo-web"]
        configuration = (box / "etc/ravo").stat()
        assert [str(configuration.st_uid), str(configuration.st_gid)] == users["ravo"]

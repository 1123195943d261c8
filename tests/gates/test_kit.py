# SPDX-License-Identifier: Apache-2.0
"""The core as a kit: built with nothing but the C++ runtime, installed, and a platform of somebody else's linked with it."""

import os
import re
import subprocess
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parents[2]
EXAMPLE = ROOT / "examples/minimal_platform"
PORTING = ROOT / "docs/porting.md"


def run(*words, **options):
    return subprocess.run(words, check=True, text=True, capture_output=True, **options).stdout


@pytest.fixture(scope="module")
def kit(tmp_path_factory):
    """The folder that the kit was installed in. No library is looked for on the way."""
    build, prefix = tmp_path_factory.mktemp("build"), tmp_path_factory.mktemp("prefix")
    run("cmake", "-S", ROOT, "-B", build, "-G", "Ninja", "-DRAVO_CORE_ONLY=ON", "-DCMAKE_BUILD_TYPE=Debug",
        "-DCMAKE_CXX_FLAGS_DEBUG=-O0", "-DCMAKE_DISABLE_FIND_PACKAGE_PkgConfig=ON")
    run("cmake", "--build", build)
    run("cmake", "--install", build, "--prefix", prefix)
    return prefix


@pytest.fixture(scope="module")
def example(kit, tmp_path_factory):
    """The minimal platform, built by CMake from the installed kit."""
    build = tmp_path_factory.mktemp("example")
    run("cmake", "-S", EXAMPLE, "-B", build, "-G", "Ninja", f"-DCMAKE_PREFIX_PATH={kit}", "-DCMAKE_CXX_FLAGS=-Wall -Werror")
    run("cmake", "--build", build)
    return build / "minimal_platform"


def pkg_config(kit, *words):
    return run("pkg-config", *words, "ravo", env={**os.environ, "PKG_CONFIG_PATH": str(next(kit.rglob("pkgconfig")))}).split()


def fenced(title):
    """The lines of the fenced block below a heading of docs/porting.md."""
    return re.search(rf"^## {re.escape(title)}\n.*?\n```\n(.*?)```", PORTING.read_text(), re.M | re.S).group(1)


def test_what_is_installed(kit):
    files = {str(path.relative_to(kit / "include/ravo")) for path in (kit / "include/ravo").rglob("*")}
    assert files == {path.name for path in (ROOT / "platform/h").glob("*.h")} | {
        "ravo_main.h", "ravo_access.h", "ravo_conformance.h"}
    assert len(list(kit.rglob("libravo.a"))) == 1
    assert not (kit / "bin").exists() and not (kit / "sbin").exists()
    assert pkg_config(kit, "--modversion") == [(ROOT / "VERSION").read_text().strip()]


def test_headers_need_no_other(kit, tmp_path):
    """Each of the boundary's headers is C99 and C++20, and stands by itself."""
    empty = tmp_path / "empty"
    empty.write_text("typedef int nothing;\n")
    for header in sorted((kit / "include/ravo").glob("*.h")):
        languages = [["g++", "-std=c++20", "-x", "c++"]]
        if header.name not in ("ravo_main.h", "ravo_access.h"):
            languages.append(["gcc", "-std=c99", "-pedantic", "-x", "c"])
        for words in languages:
            run(*words, "-Wall", "-Werror", "-D_GNU_SOURCE", "-fsyntax-only", f"-I{header.parent}", "-include", header.name, empty)


def test_the_example_relays_one_exchange(example):
    assert run(example) == fenced("One exchange")


def test_the_example_links_by_pkg_config(kit, tmp_path):
    program = tmp_path / "minimal"
    run("g++", "-std=c++20", *map(str, sorted(EXAMPLE.glob("*.cpp"))), *pkg_config(kit, "--cflags", "--libs"), "-o", program)
    assert run(program) == fenced("One exchange")


def test_the_example_keeps_the_promises(example):
    assert run(example, "conformance") == ""


FAULTS = {  # what is broken in the example: what is said of it
    ("return std::calloc(count, size);", "return std::memset(std::malloc(count * size), 1, count * size);"):
        ["mfh_calloc: memory is not zeroed", "mfh_calloc: a product that overflows gives memory"],
    ("records.upper_bound(", "records.lower_bound("): ["avl_getnext: a walk does not meet every record in order",
                                                       "avl_remove: what stays is not whole and in order"],
    ("timer->armed = 0;", ""): ["OSAL_ZEBOS_Delete_Timer: does not clear the armed mark"],
}


def test_faults_are_named(kit, tmp_path):
    """Each of these breaks the example in one place; all at once, all are told, and nothing else."""
    text = "#include <cstring>\n" + (EXAMPLE / "services.cpp").read_text()
    for before, after in FAULTS:
        assert before in text
        text = text.replace(before, after)
    (tmp_path / "services.cpp").write_text(text)
    sources = [tmp_path / "services.cpp", *(EXAMPLE / name for name in ("main.cpp", "commands.cpp", "network.cpp"))]
    run("g++", "-std=c++20", "-fno-builtin", f"-I{EXAMPLE}", *sources, *pkg_config(kit, "--cflags", "--libs"), "-o", tmp_path / "broken")
    told = subprocess.run([tmp_path / "broken", "conformance"], text=True, capture_output=True)
    assert told.stdout.splitlines() == [line for lines in FAULTS.values() for line in lines]
    assert told.returncode == len(told.stdout.splitlines())


def test_the_trace_is_the_one_that_is_shown(example):
    """TRACE=1 shows the way of the messages, which a platform of one's own can be compared with."""
    printed = run(example, env={"TRACE": "1"})
    lines = printed[printed.index("ravo_l2_listen_hdlr"):].splitlines()
    # Without the bytes of the messages and of their options.
    kept = [line for line in lines if line.strip() and not re.match(r"\(\d+/|[0-9a-f]{4}  |to the \w+:", line)]
    assert [re.sub(r" \(\d+\)", " (#)", line).rstrip() for line in kept] == fenced("Reference trace").splitlines()


def declared():
    """The functions and variables that the boundary's headers declare for the platform to provide."""
    return set(re.findall(r"\b(\w+)\(", "".join(path.read_text() for path in (ROOT / "platform/h").glob("*.h")))) \
        | {"vex_print_threshold"}


def symbols_of(kit):
    """What the library needs of those."""
    rows = [line.split() for line in run("nm", "-P", next(kit.rglob("libravo.a"))).splitlines()]
    return {row[0] for row in rows if len(row) > 1 and row[1] == "U"} & declared()


def test_the_list_of_symbols_is_whole(kit):
    """docs/porting.md lists exactly what the library and its main need of a platform."""
    listed = re.findall(r"`(\w+)`", re.search(r"^## Every symbol\n(.*?)^## ", PORTING.read_text(), re.M | re.S).group(1))
    assert len(listed) == len(set(listed))
    of_main = {"VEX_INIT_alloc", "VEX_INIT_Sys_Init", "relay_access_register"}
    assert set(listed) == symbols_of(kit) | of_main

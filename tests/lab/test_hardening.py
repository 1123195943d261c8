# SPDX-License-Identifier: Apache-2.0
"""How the programs were built: read from their ELF files, and proof that the reader sees each protection that is missing."""

import subprocess

import pytest
from conftest import REPOSITORY
from ravolab.relay import BUILD

CHECK = REPOSITORY / "tests/hardening/check"
SOURCE = """#include <cstdio>
#include <cstring>
int main(int, char **words) {
    char copy[64];
    std::memcpy(copy, words[0], std::strlen(words[0]) + 1);
    return std::puts(copy);
}
"""
FLAGS = {
    "pie": "-fPIE -pie",
    "now": "-Wl,-z,now",
    "relro": "-Wl,-z,relro",
    "protector": "-fstack-protector-strong",
    "clash": "-fstack-clash-protection",
    "zero": "-ftrivial-auto-var-init=zero",
    "fortify": "-D_FORTIFY_SOURCE=3",
    "assertions": "-D_GLIBCXX_ASSERTIONS",
}


def check(*words):
    done = subprocess.run([CHECK, *words], text=True, capture_output=True, timeout=120)
    return done.returncode, done.stdout + done.stderr


def test_programs_of_the_build():
    programs = [BUILD / name for name in ("ravod", "ravosh", "ravo-web", "ravo-snmp") if (BUILD / name).exists()]
    assert BUILD / "ravod" in programs and BUILD / "ravosh" in programs
    assert check("--compiled", *programs) == (0, "")


def build(folder, **without):
    """A small program with every protection but these; other words take their place."""
    flags = " ".join(without.get(name, words) for name, words in FLAGS.items()).split()
    (folder / "small.cpp").write_text(SOURCE)
    program = folder / "small"
    x86 = subprocess.run(["uname", "-m"], text=True, capture_output=True, check=True).stdout.strip() == "x86_64"
    subprocess.run(["g++", "-std=c++20", "-O2", "-g", '-DRAVO_VERSION="1"', *flags,
                    *(["-fcf-protection=full", "-Wl,-z,shstk"] if x86 else ["-mbranch-protection=standard"]),
                    folder / "small.cpp", REPOSITORY / "cmake/build_note.cpp", "-o", program], check=True)
    return program


def test_small_program_with_all_of_it(tmp_path):
    assert check("--compiled", build(tmp_path)) == (0, "")


@pytest.mark.parametrize("name, instead, told", [
    ("pie", "-fno-PIE -no-pie", "is no position independent executable"),
    ("now", "-Wl,-z,lazy", "binds its calls late"),
    ("relro", "-Wl,-z,norelro", "leaves its tables of calls writable"),
    ("relro", "-Wl,-z,relro -Wl,-z,execstack", "has an executable stack"),
    ("relro", "-Wl,-z,relro -Wl,-rpath,/tmp", "looks for libraries in places of its own (RUNPATH)"),
    ("protector", "-fno-stack-protector", "has no stack protector"),
    ("clash", "-fno-stack-clash-protection", "was compiled without -fstack-clash-protection"),
    ("zero", "", "was compiled without -ftrivial-auto-var-init=zero"),
    ("fortify", "-U_FORTIFY_SOURCE", "checks no copies"),
    ("fortify", "-D_FORTIFY_SOURCE=2", "says of its build fortify=2, not 3"),
    ("assertions", "", "says of its build assertions=0, not 1"),
])
def test_what_is_missing_is_told(tmp_path, name, instead, told):
    program = build(tmp_path, **{name: instead})
    status, text = check("--compiled", program)
    assert status == 1
    assert told in text
    assert all(line.startswith(f"{program}: ") for line in text.splitlines())

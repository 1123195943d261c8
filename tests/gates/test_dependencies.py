# SPDX-License-Identifier: Apache-2.0
"""The packages that a make target needs: on a machine that has none of them, every single one is asked for."""

import os
import re
import subprocess
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parents[2]
PROGRAM = ROOT / "packaging/dependencies"
SETS = {name: words.split() for name, words in
        re.findall(r'^    \[(\w+)\]="([^"]*)"$', PROGRAM.read_text().split("declare -A services")[0], re.M)}


@pytest.fixture
def bare_machine(tmp_path):
    """The surroundings of an ordinary user on a machine on which no package is installed."""
    for name, text in {"dpkg-query": "exit 1", "id": "echo 1000"}.items():
        program = tmp_path / name
        program.write_text(f"#!/bin/sh\n{text}\n")
        program.chmod(0o755)
    return {**os.environ, "PATH": f"{tmp_path}:{os.environ['PATH']}"}


def asked_for(words, surroundings):
    done = subprocess.run([PROGRAM, *words], env=surroundings, text=True, capture_output=True, check=False)
    assert done.returncode == 1 and done.stdout == ""
    return done.stderr


def test_the_table_is_read():
    assert "build" in SETS and "libsnmp-dev" in SETS["build"]


@pytest.mark.parametrize("name", sorted(SETS))
def test_a_set_is_asked_for_to_its_last_word(name, bare_machine):
    expected = f"ravo: missing packages; as root: apt-get install --no-install-recommends {' '.join(SETS[name])}\n"
    assert asked_for([name], bare_machine) == expected


def test_sets_are_added_up(bare_machine):
    expected = " ".join(SETS["build"] + SETS["fuzz"])
    assert asked_for(["build", "fuzz"], bare_machine).endswith(f"recommends {expected}\n")


def test_a_set_that_is_not_there_is_named(bare_machine):
    assert asked_for(["biuld"], bare_machine).startswith("ravo: packaging/dependencies: no set named 'biuld' (sets: ")

# SPDX-License-Identifier: Apache-2.0
"""The places of a program from which it makes calls that may fail: file, function and call."""

import re
import subprocess
from collections import Counter
from pathlib import Path

from calls import FAULTS, PASSING

TABLE = Path(__file__).parent / "sites.txt"


def output(*words, **how):
    return subprocess.run(words, check=True, capture_output=True, text=True, **how).stdout


def calls_of(program):
    """[(offset behind the call, function)] of every call of a function that may fail, in order."""
    text = output("objdump", "--disassemble", "--no-show-raw-insn", program)
    found = []
    waiting = None
    for line in text.splitlines():
        if waiting and (at := re.match(r" *([0-9a-f]+):", line)):
            found.append((int(at[1], 16), waiting))
            waiting = None
        if (call := re.search(r"\t(call|bl) +[0-9a-f]+ <(\w+)@plt>", line)) and (call[2] in FAULTS or call[2] in PASSING):
            waiting = call[2]
    return found


def short(function):
    """A function's name alone; a lambda has that of its function."""
    function = re.sub(r"\(anonymous namespace\)::|ravo::(platform|cli)::|\[abi:\w+\]", "", function)
    return re.split(r"[(<]|::\{lambda", function)[0].split()[-1]


def source(where):
    """A source's path in the repository, wherever it was compiled; of others the name alone."""
    path = re.split(r"(?:^|/)(?=(?:platform/linux|user/src)/)", where.rsplit(":", 1)[0])[-1]
    return path if path.startswith(("platform/", "user/")) else Path(path).name


def frames_of(program, offsets):
    """Of each offset behind a call the functions that it is in: [(source, function)], those put into others first."""
    told = output("addr2line", "--exe", program, "--addresses", "--functions", "--inlines", "--demangle",
                  input="".join(f"{offset - 1:#x}\n" for offset in offsets))
    blocks = re.split(r"^0x[0-9a-f]+\n", told, flags=re.M)[1:]
    lines = [block.splitlines() for block in blocks]
    return [[(source(where), short(function)) for function, where in zip(block[::2], block[1::2])] for block in lines]


def places_of(program):
    """{offset behind the call: "file function call"} of all of them; the second such call in a function is call#2."""
    calls = calls_of(program)
    places, seen = {}, Counter()
    for (offset, call), frames in zip(calls, frames_of(program, [offset for offset, _ in calls]), strict=True):
        place = f"{' '.join(frames[0])} {call}"
        seen[place] += 1
        places[offset] = place if seen[place] == 1 else f"{place}#{seen[place]}"
    return places


def known_places():
    """{place: what sites.txt says of it}"""
    if not TABLE.exists():
        return {}
    return dict(line.split(" | ", 1) for line in TABLE.read_text().splitlines() if not line.startswith("#"))

# SPDX-License-Identifier: Apache-2.0
"""The pages that people copy from do what they say: docs/examples.md, run example by example against a ravod, and
the descriptions and faults that switch.toml(5) shows."""

import re
import subprocess

import pytest
from conftest import REPOSITORY, open_lab
from ravolab.relay import BUILD
from scripted import Stage

PAGE = REPOSITORY / "docs/examples.md"
MANUAL = REPOSITORY / "docs/man/switch.toml.5"
STEP = re.compile(r"^```(?P<kind>[a-z]+)\n(?P<text>.*?)^```$|^<!-- lab: (?P<scene>.*?) -->$", re.M | re.S)

# What differs from run to run stands as one of its kind.
CHANGING = [(re.compile(pattern), kind) for pattern, kind in (
    (r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}", "TIME"), (r"\b\d+\.\d{3} ms\b", "DURATION"),
    (r"\bxid [0-9A-F]{1,8}\b", "xid XID"))]


def examples():
    """{title: text} of the page's sections."""
    parts = re.split(r"^## (.*)$", PAGE.read_text(), flags=re.M)[1:]
    return dict(zip(parts[::2], parts[1::2]))


def steps(text):
    """("commands", lines, output) and ("scene", words, None) in their order; output is "" where the page has none."""
    found = []
    for match in STEP.finditer(text):
        if match["scene"]:
            found.append(("scene", match["scene"], None))
        elif match["kind"] == "commands":
            found.append(("commands", match["text"].splitlines(), ""))
        elif match["kind"] == "output":
            kind, lines, output = found.pop()
            assert (kind, output) == ("commands", ""), f"an output without commands: {match['text']}"
            found.append((kind, lines, match["text"]))
        else:
            pytest.fail(f"a block of kind {match['kind']!r}, which nobody runs")
    return found


def alike(text):
    for pattern, kind in CHANGING:
        text = pattern.sub(kind, text)
    return text


@pytest.fixture(scope="module")
def lab():
    yield from open_lab(name="examples", servers=2)


def a_client_gets_a_lease(lab, relay):
    """The four messages, each answered by the test, so that every counter is known."""
    stage = Stage(lab, relay)
    try:
        for asked, answered in (("DISCOVER", "OFFER"), ("REQUEST", "ACK")):
            request = stage.relayed(stage.ask(lab.client(1), asked))
            stage.delivered(stage.answer(request, answered), lab.client(1))
    finally:
        stage.close()


SCENES = {"a client on port 1 gets a lease": a_client_gets_a_lease,
          "the daemon is restarted": lambda lab, relay: relay.restart()}


def run_commands(relay, lines, output):
    result = relay.run(*lines)
    assert (result.stderr, result.returncode) == ("", 0), result.stdout
    printed = result.stdout.replace(str(relay.startup_file), "/etc/ravo/startup-config")
    assert alike(printed) == alike(output)


@pytest.mark.parametrize("title", examples())
def test_example(lab, relay, title):
    ran = 0
    for kind, what, output in steps(examples()[title]):
        if kind == "scene":
            SCENES[what](lab, relay)
        else:
            run_commands(relay, what, output)
            ran += 1
    assert ran > 0, "an example without commands"


def test_every_step_of_the_page_belongs_to_an_example():
    found = sum(len(steps(text)) for text in examples().values())
    assert found == len(re.findall(r"^```commands$|^<!-- lab: ", PAGE.read_text(), re.M))


# ---- switch.toml(5) ----

def blocks_of_the_manual():
    return re.findall(r"^\.EX\n(.*?)^\.EE$", MANUAL.read_text(), re.M | re.S)


def check(folder, text):
    """(exit status, lines) of ravod --check with this switch description."""
    (folder / "switch.toml").write_text(text)
    result = subprocess.run([BUILD / "ravod", "--check", "--switch", "switch.toml"], cwd=folder, text=True,
                            capture_output=True, timeout=60)
    return result.returncode, result.stderr.splitlines()


def test_the_manuals_descriptions_are_good(tmp_path):
    good = [text for text in blocks_of_the_manual() if "device" in text and "switch.toml:" not in text]
    assert len(good) == 2
    for text in good:
        assert check(tmp_path, text) == (0, [])


def test_the_manuals_faults_read_as_it_says(tmp_path):
    faulty = ('[[port]]\ndevice = "swp1"\nmodule = 256\nport   = 1\n'
              '[[port]]\ndevice = "swp2"\nnr     = 4\nmodule = 1\nport   = 1\n'
              '[[port]]\ndevice = "swp3"\nmodule = 1\nport   = 1\n')
    shown, = [text for text in blocks_of_the_manual() if "switch.toml:" in text]
    assert check(tmp_path, faulty) == (1, shown.splitlines())


# ---- The programs' options ----

@pytest.mark.parametrize("program, page", [("ravod", "ravod.8"), ("ravosh", "ravosh.1")])
def test_the_manual_has_every_option(program, page):
    printed = subprocess.run([BUILD / program, "--help"], text=True, capture_output=True, timeout=60).stdout
    manual = (REPOSITORY / "docs/man" / page).read_text().replace("\\-", "-")
    options = set(re.findall(r"(?<![\w-])--?[a-z][a-z-]*", printed))
    assert len(options) >= 3
    described = set(re.findall(r"(?<![\w-])--?[a-z][a-z-]*", "\n".join(
        line for before, line in zip(manual.splitlines(), manual.splitlines()[1:]) if before == ".TP")))
    assert described == options

# SPDX-License-Identifier: Apache-2.0
"""`make test` can fail, and its last lines say what did."""

import importlib.machinery
import importlib.util
import sys
from pathlib import Path

import pytest

RUN = Path(__file__).resolve().parents[1] / "run"
loader = importlib.machinery.SourceFileLoader("tests_run", str(RUN))
run = importlib.util.module_from_spec(importlib.util.spec_from_loader("tests_run", loader))
sys.modules["tests_run"] = run
loader.exec_module(run)

UNIT = """<testsuite tests="9" failures="0">
  <testcase name="Option.IsAdded" classname="Option.IsAdded" time="0.1" status="run"/>
  <testcase name="Option.IsTaken" classname="Option.IsTaken" time="0.1" status="fail"><failure message=""/></testcase>
  <testcase name="Slab.IsGiven" classname="Slab.IsGiven" time="0.1" status="notrun"><skipped message=""/></testcase>
</testsuite>"""
LAB = """<testsuites><testsuite tests="1" failures="0">
  <testcase classname="tests.lab.test_lease" name="test_lease[one]"><failure message="no lease">late</failure></testcase>
  <testcase classname="tests.lab.test_lease" name="test_two"><error message="no lab">gone</error></testcase>
  <testcase classname="tests.lab.test_lease" name="test_three"/>
</testsuite></testsuites>"""
GOOD = '<testsuite><testcase name="a" classname="a" status="run"/></testsuite>'


@pytest.fixture
def report(tmp_path):
    def written(text):
        path = tmp_path / "report.xml"
        path.write_text(text)
        return path
    return written


@pytest.fixture
def suites(monkeypatch, tmp_path):
    """Suites of the test's own, and results elsewhere."""
    def put(**functions):
        monkeypatch.setattr(run, "SUITES", functions)
        monkeypatch.setattr(run, "USUAL", {**run.USUAL, **dict.fromkeys(functions, 1)})
        monkeypatch.setattr(run, "RESULTS", run.REPOSITORY / "build" / tmp_path.name)
    yield put
    folder = run.REPOSITORY / "build" / tmp_path.name
    if folder.exists():
        folder.rmdir()


def suite(count):
    def work():
        """A suite."""
        if isinstance(count, Exception):
            raise count
        return count
    return work


def test_counts_come_from_the_cases_and_not_from_sums(report):
    assert run.junit(report(UNIT), 8) == run.Count(1, 1, 1, ["Option.IsTaken"])
    assert run.junit(report(LAB), 1) == run.Count(
        1, 2, 0, ["tests.lab.test_lease.test_lease[one]", "tests.lab.test_lease.test_two"])


def test_a_runner_that_fails_by_itself_counts(report):
    assert run.junit(report(GOOD), 0) == run.Count(1)
    assert run.junit(report(GOOD), 3) == run.Count(
        1, 1, 0, ["report.xml: every test passed, but their runner ended with status 3"])


def test_no_test_and_no_report_are_no_success(report, tmp_path):
    with pytest.raises(run.Broken, match="no test was found"):
        run.junit(report("<testsuite/>"), 0)
    with pytest.raises(run.Broken, match="no report none.xml"):
        run.junit(tmp_path / "none.xml", 0)


def test_the_last_lines_name_what_failed(suites, capsys):
    suites(first=suite(run.Count(3)), second=suite(run.Count(1, 2, 1, ["Option.IsTaken", "Slab.IsGiven"])),
           third=suite(run.Broken("failed: cmake")))
    assert run.main(["first", "second", "third"]) == 1
    assert capsys.readouterr().out.splitlines()[-7:] == [
        "first:           3 passed, 0 failed (0 s)",
        "second:          1 passed, 2 failed, 1 skipped (0 s)",
        "third:           0 passed, 1 failed (0 s)",
        "failed: second: Option.IsTaken",
        "failed: second: Slab.IsGiven",
        "failed: third: failed: cmake",
        "4 passed, 3 failed, 1 skipped"]


def test_without_a_failure_all_is_well(suites, capsys):
    suites(first=suite(run.Count(3)))
    assert run.main(["first"]) == 0
    assert capsys.readouterr().out.splitlines()[-1] == "3 passed, 0 failed"


def test_what_ran_beside_says_what_failed(suites, tmp_path, monkeypatch, capsys):
    suites(lab=suite(run.Count(1)))
    monkeypatch.setattr(run, "RESULTS", tmp_path)
    (tmp_path / "beside.log").write_text("x\nfailed: lab: tests.lab.test_a.test_b\n==== lab: 4 passed, 1 failed (7 s)\n")

    class Ended:
        """A process that has ended."""
        def wait(self):
            return 1
    assert run.end_beside(Ended()) == (run.Count(4, 1, 0, ["tests.lab.test_a.test_b"]), 7)
    (tmp_path / "beside.log").write_text("killed\n")
    assert run.end_beside(Ended()) == (run.Count(failed=1, names=["it ended without a sum"]), 0)
    assert capsys.readouterr().out

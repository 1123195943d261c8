# SPDX-License-Identifier: Apache-2.0
"""The table of limits in the operator's guide: every row names a test that there is."""

import re

from conftest import REPOSITORY

TABLE = re.search(r"^## What has a limit\n.*?^\| --- .*?\n(.*?)\n\n", (REPOSITORY / "docs/operations.md").read_text(), re.M | re.S)[1]


def names_of_tests():
    units = (path.read_text() for path in (REPOSITORY / "tests/unit").rglob("*_test.cpp"))
    lab = (path.read_text() for path in (REPOSITORY / "tests/lab").rglob("test_*.py"))
    found = {f"{suite}.{name}" for text in units for suite, name in re.findall(r"^TEST(?:_F)?\((\w+), (\w+)\)", text, re.M)}
    return found | {name for text in lab for name in re.findall(r"^def (test_\w+)\(", text, re.M)}


def test_every_limit_has_a_test_that_goes_there():
    rows = [[cell.strip() for cell in line.strip("|").split("|")] for line in TABLE.splitlines()]
    assert len(rows) > 10 and all(len(row) == 4 and all(row) for row in rows)
    assert {row[3] for row in rows} - names_of_tests() == set()

# SPDX-License-Identifier: Apache-2.0
"""The tables of limits in the guides: every row names a test that there is."""

import re

import pytest
from conftest import REPOSITORY


def table_of(document, heading):
    return re.search(rf"^## {heading}\n.*?^\| --- .*?\n(.*?)\n\n", (REPOSITORY / document).read_text(), re.M | re.S)[1]


def names_of_tests():
    units = (path.read_text() for path in (REPOSITORY / "tests/unit").rglob("*_test.cpp"))
    lab = (path.read_text() for path in (REPOSITORY / "tests/lab").rglob("test_*.py"))
    found = {f"{suite}.{name}" for text in units for suite, name in re.findall(r"^TEST(?:_F)?\((\w+), (\w+)\)", text, re.M)}
    return found | {name for text in lab for name in re.findall(r"^def (test_\w+)\(", text, re.M)}


@pytest.mark.parametrize(("document", "heading"), [("docs/operations.md", "What has a limit"), ("docs/web.md", "Limits")])
def test_every_limit_has_a_test_that_goes_there(document, heading):
    rows = [[cell.strip() for cell in line.strip("|").split("|")] for line in table_of(document, heading).splitlines()]
    assert len(rows) > 10 and all(len(row) == 4 and all(row) for row in rows)
    assert {row[3] for row in rows} - names_of_tests() == set()

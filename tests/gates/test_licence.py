# SPDX-License-Identifier: Apache-2.0
"""The lint of licences can fail: a source without its line, and a library that NOTICE does not name."""

import shutil
import subprocess
import sys
from pathlib import Path

LINT = Path(__file__).resolve().parents[1] / "lint/licence"
TAG = "SPDX-License-" "Identifier: Apache-2.0"


def test_what_is_missing_is_named(tmp_path):
    lint = tmp_path / "tests/lint/licence"
    lint.parent.mkdir(parents=True)
    shutil.copy(LINT, lint)
    (tmp_path / "CMakeLists.txt").write_text(f"# {TAG}\npkg_check_modules(JSON REQUIRED IMPORTED_TARGET jay_son other-lib)\n")
    (tmp_path / "NOTICE").write_text("    Other     MIT    what else\n")
    (tmp_path / "main.cpp").write_text("int main() {}\n")
    subprocess.run(["git", "init", "-q", tmp_path], check=True)

    def lints(*words):
        done = subprocess.run([sys.executable, lint, *words], capture_output=True, text=True)
        return done.returncode, done.stdout

    line = f"main.cpp:1: the line '{TAG}' is missing; tests/lint/licence --write puts it there\n"
    notice = "NOTICE:1: jay, which CMakeLists.txt asks for, is not listed; name its licence\n"
    assert lints() == (1, line + notice)
    lints("--write")
    assert (tmp_path / "main.cpp").read_text() == f"// {TAG}\nint main() {{}}\n"
    assert lints() == (1, notice)
    (tmp_path / "NOTICE").write_text("    Other     MIT    what else\n    Jay-Son   MIT    JSON\n")
    assert lints() == (0, "")

# SPDX-License-Identifier: Apache-2.0
"""`make mutate` can fail: it finds what a small library's test does not notice, and nothing else."""

import importlib.machinery
import importlib.util
import subprocess
import sys
from pathlib import Path

import pytest

MUTATE = Path(__file__).resolve().parents[1] / "mutate"
sys.path.insert(0, str(MUTATE))
import explained  # noqa: E402
import mutants  # noqa: E402
import reached  # noqa: E402

loader = importlib.machinery.SourceFileLoader("mutate_run", str(MUTATE / "run"))
run = importlib.util.module_from_spec(importlib.util.spec_from_loader("mutate_run", loader))
sys.modules["mutate_run"] = run
loader.exec_module(run)


def changes(text):
    """What each mutant makes of the only line that changes."""
    return [(mutant.before, mutant.after) for mutant in mutants.mutants(text)]


def bodies(statement):
    """The mutants of a statement in a function."""
    text = "void f() {\n    int a;\n    " + statement + "\n}\n"
    return [after for _, after in changes(text)]


@pytest.mark.parametrize("statement, expected", [
    ("return a < b;", ["return a <= b;", "return a >= b;"]),
    ("return a == b && !c;", ["return a != b && !c;", "return a == b || !c;", "return a == b && c;"]),
    ("return 3;", ["return 2;", "return 4;"]),
    ("return 0xFFu;", ["return 254;", "return 256;"]),
    ("return true;", ["return false;"]),
    ("print(a);", [";"]),
    ("x.y->z[0] = b;", [";", "x.y->z[1] = b;"]),
    ("if (a) return;", [";", "if (!(a)) return;"]),
    ("if (a) print(b);", ["if (!(a)) print(b);", "if (a) ;"]),
    ("++n;", ["--n;"]),
])
def test_every_kind_of_change(statement, expected):
    assert bodies(statement) == expected


@pytest.mark.parametrize("statement", [
    "const char *text = name;", "const iface &record = *other;", "std::vector<int> list;", 'print_nothing: "a < b && 1";',
    "// a < b", "static_assert(sizeof x == 8 && y < 3);", "iface record;"])
def test_what_is_no_expression_stays(statement):
    assert bodies(statement) == []


def test_a_mutant_keeps_the_number_of_lines():
    text = "void f() {\n    print(one,\n          two);\n}\n"
    mutant, = mutants.mutants(text)
    assert mutants.apply(text, mutant) == "void f() {\n    ;\n\n}\n"


def test_explanations(tmp_path):
    path = tmp_path / "explained.txt"
    path.write_text("# a remark\nhalf\n- return n / 2;\n+ return n * 2;\nnobody can tell\n\nhalf\n- print(...\n+ ;\nsilent\n")
    known = explained.read(path)
    told = mutants.Mutant(1, 0, 0, "", "return n / 2;", "return n * 2;")
    assert known.explains("half", told) and not known.explains("other", told)
    assert known.unused() == ["half: print(..."]
    assert known.explains("half", mutants.Mutant(1, 0, 0, "", 'print("x");', ";"))
    assert known.unused() == []
    path.write_text("half\n- return n / 2;\n+ return n * 2;\n")
    with pytest.raises(ValueError):
        explained.read(path)


HALF = "int half(int n) {\n    if (n < 0) return 0;\n    return n / 2;\n}\n"
JUDGE = "int half(int n);\nint main() { return half(4) == 2 && half(-3) == 0 ? 0 : 1; }\n"


@pytest.fixture
def bench(tmp_path, monkeypatch):
    """A library of one source, with a program that judges it: (bench, order of programs)."""
    monkeypatch.setattr(run, "ROOT", tmp_path)
    (tmp_path / "user/src").mkdir(parents=True)
    (tmp_path / "user/src/half.cpp").write_text(HALF)
    (tmp_path / "judge.cpp").write_text(JUDGE)
    compiler = run.Compiler(run.folder_in(tmp_path, "headers"), {"half": ["g++", "-fPIC"]})
    folder = run.folder_in(tmp_path, "bench")
    made = run.Bench(folder, compiler)
    assert made.link()
    subprocess.run(["g++", tmp_path / "judge.cpp", "-o", tmp_path / "judge", folder / run.LIBRARY], check=True)
    return made, [run.Program(tmp_path / "judge", 0.1)]


def verdicts(bench, order):
    results = [bench.try_mutant("half", HALF, mutant, lambda *_: order) for mutant in mutants.mutants(HALF)]
    return {result.mutant.after: result.verdict for result in results}


def test_what_the_test_does_not_notice_survives(bench):
    assert verdicts(*bench) == {
        "if (n <= 0) return 0;": "survived",   # half of 0 is 0 either way
        "if (n >= 0) return 0;": "killed",
        "if (!(n < 0)) return 0;": "killed",
        "if (n < 1) return 0;": "survived",    # so it is here
        "if (n < 0) return 1;": "killed",
        ";": "killed",
        "return n * 2;": "killed",
        "return n / 1;": "killed",
        "return n / 3;": "killed",
    }


def test_a_mutant_leaves_nothing_behind(bench):
    made, order = bench
    before = (made.folder / "half.o").read_bytes()
    verdicts(made, order)
    assert (made.folder / "half.o").read_bytes() == before
    assert made.link() and run.run_program(order[0].path, made.folder, 20)


def test_a_loop_without_end_is_ended_by_its_processor_time(tmp_path):
    (tmp_path / "loop.cpp").write_text("int main() { for (volatile int turn = 0;; turn = 1 - turn) {} }\n")
    subprocess.run(["g++", "loop.cpp", "-o", "loop"], cwd=tmp_path, check=True)
    assert not run.run_program(tmp_path / "loop", tmp_path, 1)


def test_what_the_optimising_compiler_makes_the_same_of_is_the_same(bench):
    made, order = bench
    text = HALF.replace("return n / 2;", "if (n < 0) n += 0;\n    return n / 2;")
    (run.ROOT / "user/src/half.cpp").write_text(text)
    mutant = next(mutant for mutant in mutants.mutants(text) if mutant.after == "if (n < 0) n -= 0;")
    assert made.try_mutant("half", text, mutant, lambda *_: order).verdict == "same"


def test_too_many_survivors_fail(bench, monkeypatch, tmp_path, capsys):
    made, order = bench
    monkeypatch.setattr(run, "BUILD", tmp_path)
    results = [made.try_mutant("half", HALF, mutant, lambda *_: order) for mutant in mutants.mutants(HALF)]
    options = type("Options", (), {"sources": [], "sample": 0, "again": False, "kept": False})
    assert run.report(results, options) == 1
    assert "22.2 % survive without an explanation, 3 % may" in capsys.readouterr().out
    (tmp_path / "tests/mutate").mkdir(parents=True)
    entry = "half\n- if (n < 0) return 0;\n+ if (n <= 0) return 0;\n+ if (n < 1) return 0;\nhalf of 0 is 0\n"
    (tmp_path / "tests/mutate/explained.txt").write_text(entry)
    assert run.report(results, options) == 0
    (tmp_path / "tests/mutate/explained.txt").write_text(entry + "\nhalf\n- gone\n+ gone too\nstale\n")
    assert run.report(results, options) == 1
    assert "fits no survivor: half: gone" in capsys.readouterr().out


def test_any_beginning_is_an_even_sample():
    work = list(range(1000))
    assert sorted(run.spread(work)) == work
    first = run.spread(work)[:100]
    assert all(7 <= sum(start <= item < start + 100 for item in first) <= 13 for start in range(0, 1000, 100))


def test_an_ended_run_goes_on(monkeypatch, tmp_path):
    monkeypatch.setattr(run, "BUILD", tmp_path)
    work = [("half", HALF, mutant) for mutant in mutants.mutants(HALF)]
    assert run.results_before(work) == ([], work), "there are no results yet"
    kept = [run.Result("half", work[0][2], "survived"), run.Result("half", work[2][2], "killed", "judge")]
    (tmp_path / "results").write_text("".join(result.line() + "\n" for result in kept))
    assert run.results_before(work) == (kept, [work[1], *work[3:]])
    (tmp_path / "results").write_text(kept[0].line().replace("n < 0", "n < 7") + "\n")
    assert run.results_before(work) == ([], work), "the line has changed since"


TWICE = """int half(int n) {
    return n / 2;
}
int twice(int n) {
    return n * 2;
}
"""


def test_only_who_runs_a_line_is_asked(tmp_path):
    (tmp_path / "sums.cpp").write_text(TWICE)
    words = {"sums": ["g++", "-fPIC"]}
    subprocess.run(["g++", "-shared", "-fPIC", "-Wl,-soname,libsums.so", "sums.cpp", "-o", "libsums.so"], cwd=tmp_path,
                   check=True)
    dies = "(fork() == 0 && half(4) == 2 ? abort() : (void)wait(nullptr), twice(2) - 4)"
    for name, body in {"halves": "half(4) - 2", "twices": "twice(2) - 4", "dies": dies}.items():
        (tmp_path / f"{name}.cpp").write_text("#include <stdlib.h>\n#include <sys/wait.h>\n#include <unistd.h>\n"
                                              f"int half(int), twice(int);\nint main() {{ return {body}; }}\n")
        subprocess.run(["g++", f"{name}.cpp", "-o", name, "libsums.so"], cwd=tmp_path, check=True)
    programs = [tmp_path / name for name in ("halves", "twices", "dies")]
    found = reached.Reached(words, {"sums": tmp_path / "sums.cpp"}, programs, "libsums.so")
    assert found.programs("sums", 2) == {"halves", "dies"}, "what a child runs that is aborted is counted"
    assert found.programs("sums", 5) == {"twices", "dies"}
    assert found.programs("sums", 99) == {"halves", "twices", "dies"}, "outside of functions all are asked"


def test_what_survived_is_tried_again(monkeypatch, tmp_path):
    monkeypatch.setattr(run, "BUILD", tmp_path)
    work = [("half", HALF, mutant) for mutant in mutants.mutants(HALF)]
    kept = [run.Result("half", work[0][2], "survived"), run.Result("half", work[2][2], "killed", "judge")]
    (tmp_path / "results").write_text("".join(result.line() + "\n" for result in kept))
    run.forget_survivors()
    assert run.results_before(work) == ([kept[1]], [*work[:2], *work[3:]])
